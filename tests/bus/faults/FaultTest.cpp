#include "ChildProgram.h"
#include "FaultOutcomes.h"
#include "SessionControl_C.h"
#include "scenario/Faults.h"
#include "tests/bus/client/ClientBus.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fstream>
#include <glib.h>
#include <set>
#include <sstream>

// Every row of the table of faults, played against the library in a process of its own.

using namespace MavixTest;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

constexpr const char* callMark = "call: ";
constexpr const char* eventsMark = "events: ";
constexpr const char* endMark = "played"; // what the log has afterwards is of the end of the process
constexpr int eventId = 7;

std::vector<std::string>& Events() {
    static std::vector<std::string> events;
    return events;
}

void OnEvent(int id, const char* data, int length) {
    std::uint32_t number = 0;
    if (length >= static_cast<int>(sizeof number)) {
        std::memcpy(&number, data, sizeof number);
    }
    Events().push_back(id != eventId ? "of another id" : length == 0 ? "empty" : std::to_string(number));
}

// "0 to 9" for numbers that follow one another, otherwise all of them.
std::string EventsText() {
    const std::vector<std::string>& events = Events();
    bool follow = events.size() > 2;
    std::string all;
    for (std::size_t at = 0; at < events.size(); ++at) {
        follow = follow && events[at] == std::to_string(at);
        all += (all.empty() ? "" : " ") + events[at];
    }
    return follow ? "0 to " + events.back() : all;
}

std::string CallText(const FaultOutcome& row) {
    if (row.opensSession) {
        return "returns " + std::to_string(SessionControl__Open());
    }
    const CallResult result = Call("com.norvale.ITest", 1, TextBytes("ask"));
    const std::string size = result.output ? " with " + std::to_string(result.output->size()) + " bytes" : "";
    return (result.success ? "succeeds" : "fails") + size;
}

MAVIX_CHILD(PlayFault) {
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));
    const FaultOutcome& row = FaultOutcomes().at(std::stoul(arguments.at(0)));
    const TCPrivateBus bus;
    const std::string file = bus.Folder() + "/scenario.json";
    std::ofstream(file) << "{\"format\":1," << row.scenario << "}";
    const TCSimProcess service(bus, {"--scenario=" + file}, true);

    const bool listens = !row.events.empty() || row.stopsTheProcess;
    if (listens) {
        IPCConnection__SetCallbackFunction(IPC_MESSAGE_DATA, OnEvent);
        IPCConnection__AddMatchRule(IPC_MESSAGE_DATA, eventId, 0, 0);
    }
    for (std::size_t call = 0; call < row.calls.size(); ++call) {
        if (call != 0 && !TCRecordingPlatform::Get().WaitFor(row.awaited.substr(2), call)) {
            return 2;
        }
        const auto start = steady_clock::now();
        const std::string text = CallText(row);
        const auto took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
        std::printf("%s%lld %s\n", callMark, static_cast<long long>(took.count()), text.c_str());
        std::fflush(stdout);
    }
    if (listens) {
        const std::string last = row.events.substr(row.events.rfind(' ') + 1);
        IterateUntil(
            [&] { return !Events().empty() && Events().back() == last && EventsText() == row.events; },
            seconds(30));
        // None come after the right ones.
        Settle();
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
    }
    std::printf("%s%s\n", eventsMark, EventsText().c_str());
    std::fprintf(stderr, "%s\n", endMark);
    return 0;
}

// The rest of the lines that begin with a mark.
std::vector<std::string> LinesOf(const ChildResult& result, const std::string& mark) {
    std::vector<std::string> found;
    std::istringstream lines(result.output);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(mark, 0) == 0) {
            found.push_back(line.substr(mark.size()));
        }
    }
    return found;
}

// `outcome` is "<milliseconds> <what happened>".
void ExpectCall(const std::string& expected, const std::string& outcome) {
    const std::size_t mark = expected.find(" after ");
    const milliseconds least =
        mark == std::string::npos ? seconds(0) : seconds(std::stoi(expected.substr(mark + 7)));
    std::size_t end = 0;
    const milliseconds took(std::stoll(outcome, &end));
    EXPECT_EQ(expected.substr(0, mark), outcome.substr(end + 1));
    // A name that is away for a second may have been so for a moment when the call begins.
    EXPECT_GE(took + milliseconds(300), least);
    EXPECT_LT(took, least + seconds(15));
}

// Whether a line comes with every process that lives long enough.
bool IsOfEveryRun(const std::string& entry) {
    static const char* const parts[] = {"tarted main loop: ", "] watchdog notify", "'NameAcquired'",
                                        "MAVIX Assertion failed"};
    return std::any_of(std::begin(parts), std::end(parts),
                       [&entry](const char* part) { return entry.find(part) != std::string::npos; });
}

// The lines of a child's log as "6|text": the errors and those of the table.
std::set<std::string> LogOf(const ChildResult& result, const std::vector<std::string>& expected) {
    std::set<std::string> found;
    std::istringstream lines(result.errors);
    for (std::string line; std::getline(lines, line) && line != endMark;) {
        const std::size_t tag = line.find("|MAVIX_API|");
        const std::size_t text =
            tag == std::string::npos ? tag : line.find('|', tag + std::strlen("|MAVIX_API|"));
        if (text == std::string::npos) {
            continue;
        }
        const std::string entry = line.substr(0, tag) + line.substr(text);
        const bool isError = entry[0] == '6' && !IsOfEveryRun(entry);
        if (isError || std::find(expected.begin(), expected.end(), entry) != expected.end()) {
            found.insert(entry);
        }
    }
    return found;
}

class Fault : public testing::TestWithParam<std::size_t> {};

TEST_P(Fault, DoesWhatTheTableSays) {
    const FaultOutcome& row = FaultOutcomes()[GetParam()];
    if (row.isRelease && !CanChooseFlavour()) {
        GTEST_SKIP() << noFlavourReason;
    }
    const ChildResult result = RunChildProgram("PlayFault", row.isRelease ? releaseFlavour : plainFlavour,
                                               {std::to_string(GetParam())}, seconds(120));
    SCOPED_TRACE(result.output + result.errors);
    ASSERT_FALSE(result.timedOut);
    EXPECT_EQ(row.stopsTheProcess ? SIGABRT : 0, result.signal);
    EXPECT_EQ(row.stopsTheProcess ? -1 : 0, result.exitCode);

    const std::vector<std::string> calls = LinesOf(result, callMark);
    ASSERT_EQ(row.calls.size(), calls.size());
    for (std::size_t call = 0; call < calls.size(); ++call) {
        ExpectCall(row.calls[call], calls[call]);
    }
    if (!row.stopsTheProcess) {
        EXPECT_EQ(std::vector<std::string>{row.events}, LinesOf(result, eventsMark));
    }
    // A name that comes and goes is told each time.
    EXPECT_EQ(std::set<std::string>(row.lines.begin(), row.lines.end()), LogOf(result, row.lines));
}

INSTANTIATE_TEST_SUITE_P(Table, Fault, testing::ValuesIn(FaultRows(MAVIX_TEST_SLOW_FAULTS != 0)),
                         [](const auto& row) { return FaultRowName(row.param); });

TEST(FaultOutcomes, AreThereForEveryFault) {
    std::set<std::string> played;
    for (const FaultOutcome& row : FaultOutcomes()) {
        played.insert(row.fault);
    }
    std::set<std::string> known;
    for (const MavixSim::FaultRow& row : MavixSim::FaultTable()) {
        known.insert(row.name);
    }
    EXPECT_EQ(known, played);
}

} // namespace
