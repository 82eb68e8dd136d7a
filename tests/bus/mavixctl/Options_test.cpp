#include "CommandHelp.h"
#include "MonitorFixture.h"
#include "PrivateMounts.h"

#include <mavix-api/IPCCache.h>

#include <algorithm>
#include <regex>
#include <set>
#include <unistd.h>

namespace MavixTest {

namespace {

using nlohmann::json;

const char* const interface = "com.norvale.IAVControl";

class ControlOptions : public ControlMonitor {
public:
    void EmitTwo() {
        m_daemon.Emit(2, 6, {8});
        m_daemon.Emit(2, 7, {9}, {1, 2, ""});
    }
    // A call with its reply, one with an error, and an event.
    void MakeTraffic() {
        RawCall call;
        call.interface = interface;
        call.header = Header(66);
        call.payload = Bytes(100, 'x');
        m_client.Call(call);
        m_client.Call(TestCall(MavixSim::Behaviour::Error));
        m_daemon.Emit(2, 7, {'a'});
    }
    void CallInVain() { ControlMonitor::CallInVain(); }
    void StoreNew() { Store("new", "9"); }

protected:
    // As the library's other users leave it.
    static void Store(const char* key, const std::string& value) {
        IPCCache("demo", IPCCache::AccessType::Write).setData(key, value.data(), value.size());
    }
};

// A use of a command: what it prints, and what it prints with --json.
struct UseRow {
    Words words;
    const char* pattern;                        // of a part of the text
    json members = json::object();              // among those of the last object
    void (ControlOptions::*action)() = nullptr; // once it says that it waits
    std::size_t objects = 1;
    int status = 0;
};

const std::vector<UseRow>& BusUses() {
    using Test = ControlOptions;
    static const std::vector<UseRow> rows{
        {{"call", interface, "1", "i:5", "--decode", "i"}, "\ni     5\n$", {{"values", {5}}}},
        {{"call", interface, "1", "i:5", "--hex"}, "\n05000000\n$", {{"payload", "05000000"}}},
        {{"call", interface, "1", "--async"}, "^sent to com.norvale.MavixAPI\n$", {{"async", true}}},
        {{"call", interface, "1", "--repeat", "3"}, "^(0 bytes in .*\n){3}$", {}, nullptr, 3},

        {{"listen", "Data", "--id", "7", "--count", "1"},
         "^.* Data id 7, .*\n.*\n$",
         {{"id", 7}},
         &Test::EmitTwo},
        {{"listen", "Data", "--handle", "1,2", "--count", "1"},
         "^.* Data id 7, ",
         {{"id", 7}},
         &Test::EmitTwo},
        {{"listen", "Data", "--count", "2"}, "^.* id 6, .*\n.*\n.* id 7, .*\n.*\n$", {}, &Test::EmitTwo, 2},
        {{"listen", "Data", "--timeout", "0.05"}, "^$", {}, nullptr, 0},
        {{"listen", "Data", "--count", "1", "--decode", "c"},
         "\n  c     8\n$",
         {{"values", {8}}},
         &Test::EmitTwo},
        {{"listen", "Data", "--count", "1", "--hex"}, "\n  08\n$", {{"payload", "08"}}, &Test::EmitTwo},

        {{"monitor", "--interface", "com.norvale.ISimTest", "--count", "1"},
         "^.* #3 call com.norvale.ISimTest 2 ",
         {{"number", 3}},
         &Test::MakeTraffic},
        {{"monitor", "--code", "2", "--count", "1"},
         "^.* #3 call com.norvale.ISimTest 2 ",
         {{"number", 3}},
         &Test::MakeTraffic},
        {{"monitor", "--process", "mavix-daemon", "--count", "1"},
         "^.* #5 event Data id 7,",
         {{"number", 5}},
         &Test::MakeTraffic},
        {{"monitor", "--type", "error", "--count", "1"},
         "^.* #4 error to #3 ",
         {{"kind", "error"}},
         &Test::MakeTraffic},
        {{"monitor", "--full", "--count", "1"},
         "\n    payload, 100 bytes\n",
         {{"cut", false}},
         &Test::MakeTraffic},
        {{"monitor", "--reply-limit", "0.05", "--type", "timeout", "--count", "1"},
         "^.* timeout #1 com.norvale.ISimTest 6 has no reply",
         {{"kind", "timeout"}},
         &Test::CallInVain},
        {{"monitor", "--count", "2"}, " #1 call [^#]* #2 reply to ", {{"number", 2}}, &Test::MakeTraffic, 2},
        {{"monitor", "--timeout", "0.05"}, "^$", {}, nullptr, 0},
        {{"monitor", "--record", "/dev/null", "--count", "1"},
         "^.* #1 call ",
         {{"kind", "call"}},
         &Test::MakeTraffic},

        {{"owners"},
         "\ncom.norvale.ISessionControl .* mavix-lite\\[",
         {{"process", "mavix-lite"}},
         nullptr,
         5},
        {{"route", interface, "66"}, "\nbus name   com.norvale.MavixAPI.HyperFast\n", {{"code", 66}}},
        {{"bench", interface, "1", "--size", "10", "--threads", "2", "--seconds", "0.1"},
         ", 10 bytes, 2 threads, 0\\.\\d+ s\n",
         {{"size", 10}, {"threads", 2}, {"failed", 0}}},
        {{"session", "open", "--hold", "0"},
         "^open: done\nclose: done\n$",
         {{"operation", "close"}},
         nullptr,
         2},
        {{"session", "close"}, "^$", {{"result", 1}}, nullptr, 1, 1},
        {{"session", "dump"}, "^no clients\n$", {{"text", "no clients\n"}}},
        {{"session", "terminated"}, "^not terminated\n$", {{"terminated", false}}},
        {{"session", "trace", "7", "--info", "me", "--param", "3", "--hold", "0"},
         "^open trace: done\nclose trace: done\n$",
         {{"operation", "close trace"}},
         nullptr,
         2},
        {{"completion", "bash"}, "\ncomplete .* mavixctl\n$", {{"shell", "bash"}}},
    };
    return rows;
}

// Without the service at first.
const std::vector<UseRow>& WaitUses() {
    static const std::vector<UseRow> rows{
        {{"call", interface, "1", "--wait", "40"}, "^0 bytes in ", {{"ok", true}}},
        {{"bench", interface, "1", "--seconds", "0.1", "--wait", "40"}, "\nrate  ", {{"failed", 0}}},
        {{"session", "open", "--hold", "0", "--wait", "40"}, "\nclose: done\n$", {{"ok", true}}, nullptr, 2},
        {{"session", "close", "--wait", "40"}, "^$", {{"result", 1}}, nullptr, 1, 1},
        {{"session", "dump", "--wait", "40"}, "\n$", {{"ok", true}}},
        {{"session", "terminated", "--wait", "40"}, "^not terminated\n$", {{"ok", true}}},
        {{"session", "trace", "7", "--hold", "0", "--wait", "40"},
         "\nclose trace: done\n$",
         {{"ok", true}},
         nullptr,
         2},
    };
    return rows;
}

// With a cache of its own, in which "key" is "value" and "key3:5" is "v".
const std::vector<UseRow>& CacheUses() {
    using Test = ControlOptions;
    static const std::vector<UseRow> rows{
        {{"cache", "get", "demo", "key", "--id", "0x30005"}, "^00000000  76 .*\n$", {{"payload", "76"}}},
        {{"cache", "get", "demo", "key", "--decode", "c,hex"},
         "^c     118\nhex   616c7565\n$",
         {{"values", {118, "616c7565"}}}},
        {{"cache", "get", "demo", "key", "--hex"}, "^76616c7565\n$", {{"payload", "76616c7565"}}},
        {{"cache", "set", "demo", "new", "c:1", "--id", "5"}, "^set new0:5: done\n$", {{"key", "new0:5"}}},
        {{"cache", "set", "demo", "key", "c:1", "--replace"}, "^set key: done\n$", {{"size", 1}}},
        {{"cache", "reset", "demo", "key", "--id", "0x30005"}, "^reset key3:5: done\n$", {{"key", "key3:5"}}},
        {{"cache", "list", "demo", "--decode", "hex"},
         "\nkey  5 bytes\n  hex   76616c7565\n",
         {{"state", "complete"}}},
        {{"cache", "list", "demo", "--hex"}, "\nkey  5 bytes\n  76616c7565\n", {{"state", "complete"}}},
        {{"cache", "verify", "demo"}, "\nok   last write  complete\n$", {{"ok", true}}},
        {{"cache", "watch", "demo", "--interval", "0.001", "--count", "1", "--decode", "c"},
         "^set new, 1 bytes\n  c     57\n$",
         {{"values", {57}}},
         &Test::StoreNew},
        {{"cache", "watch", "demo", "--count", "1", "--hex"},
         "^set new, 1 bytes\n  39\n$",
         {{"payload", "39"}},
         &Test::StoreNew},
        {{"cache", "watch", "demo", "--timeout", "0.01"}, "^$", {}, nullptr, 0},
        {{"doctor"}, "\nok     pending replies: ", {{"check", "pending replies"}}, nullptr, 16},
    };
    return rows;
}

Words With(const UseRow& row, bool asJson) {
    Words words = row.words;
    if (asJson)
        words.emplace_back("--json");
    return words;
}

void ExpectUse(const UseRow& row, const ControlResult& result, bool asJson) {
    EXPECT_EQ(result.status, row.status) << result.errors;
    if (!asJson) {
        EXPECT_TRUE(std::regex_search(result.output, std::regex(row.pattern))) << result.output;
        return;
    }
    const std::vector<json> objects = result.Objects();
    ASSERT_EQ(objects.size(), row.objects) << result.output;
    for (const auto& [name, value] : row.members.items())
        EXPECT_EQ(objects.back().at(name), value);
}

// Runs all rows, as text and with --json; `prepare` comes before each run.
template <class Prepare>
void RunAll(const std::vector<UseRow>& rows, ControlOptions& test, const Prepare& prepare) {
    for (const UseRow& row : rows)
        for (const bool asJson : {false, true}) {
            SCOPED_TRACE(Join(With(row, asJson)));
            prepare();
            TCControlProgram program(With(row, asJson));
            if (row.action != nullptr) {
                ASSERT_TRUE(program.AwaitErrors("ing\n")) << program.Errors();
                (test.*row.action)();
            }
            ExpectUse(row, program.Wait(), asJson);
        }
}

TEST_F(ControlOptions, DoWhatTheirHelpSays) {
    RunAll(BusUses(), *this, [] {});
}

TEST_F(ControlOptions, MakeEveryCommandWaitForTheService) {
    const char* const daemon = "com.norvale.MavixAPI";
    const char* const lite = "com.norvale.ISessionControl";
    m_daemon.DropName(daemon);
    m_lite.DropName(lite);
    std::vector<std::unique_ptr<TCControlProgram>> programs;
    for (const UseRow& row : WaitUses())
        for (const bool asJson : {false, true}) {
            Words atOnce = With(row, asJson);
            std::replace(atOnce.begin(), atOnce.end(), std::string("40"), std::string("0"));
            EXPECT_EQ(RunControl(atOnce).status, 3) << Join(atOnce);
            programs.push_back(std::make_unique<TCControlProgram>(With(row, asJson)));
        }
    m_lite.TakeName(lite);
    m_daemon.TakeName(daemon);
    for (std::size_t i = 0; i < programs.size(); ++i) {
        const UseRow& row = WaitUses()[i / 2];
        SCOPED_TRACE(Join(row.words));
        ExpectUse(row, programs[i]->Wait(), i % 2 == 1);
    }
}

TEST_F(ControlOptions, OfCachesDoWhatTheirHelpSays) {
    if (!EnterPrivateCacheFolders())
        GTEST_SKIP() << noCacheFoldersReason;
    RunAll(CacheUses(), *this, [] {
        ::unlink("/run/demo_cache_lock");
        ::unlink("/dev/shm/demo");
        Store("key", "value");
        Store("key3:5", "v");
    });
}

bool BeginsWith(const Words& words, const Words& command) {
    return words.size() >= command.size() && std::equal(command.begin(), command.end(), words.begin());
}

TEST(ControlOptionsList, EveryCommandAndOptionIsUsedAbove) {
    int commands = 0;
    ForEachCommand({}, [&](const Words& command, const std::string& help) {
        if (!CommandsIn(help).empty())
            return;
        ++commands;
        std::set<std::string> used{"--help", "--json"};
        bool isUsed = false;
        for (const auto* rows : {&BusUses(), &WaitUses(), &CacheUses()})
            for (const UseRow& row : *rows)
                if (BeginsWith(row.words, command)) {
                    isUsed = true;
                    used.insert(row.words.begin(), row.words.end());
                }
        EXPECT_TRUE(isUsed) << Join(command);
        for (const std::string& option : OptionsIn(help))
            EXPECT_EQ(used.count(option), 1u) << Join(command) << " " << option;
    });
    EXPECT_GE(commands, 19);
}

} // namespace

} // namespace MavixTest
