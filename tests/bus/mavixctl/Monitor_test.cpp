#include "MonitorFixture.h"

#include "Await.h"
#include "Hex.h"
#include "Recording.h"
#include "sim/EventTypes.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <gmock/gmock.h>
#include <systemd/sd-login.h>

namespace MavixTest {

namespace {

using MavixSim::Behaviour;
using nlohmann::json;
using testing::HasSubstr;

std::string OwnName() {
    std::ifstream file("/proc/self/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

json OwnUnit() {
    char* unit = nullptr;
    if (sd_pid_get_unit(0, &unit) < 0 && sd_pid_get_user_unit(0, &unit) < 0)
        return nullptr;
    const std::unique_ptr<char, void (*)(void*)> held(unit, std::free);
    return unit;
}

struct FormRow {
    const char* name;
    int code;
    unsigned flags;
    bool noReply;
    std::optional<std::string> programName;
    Bytes payload;
    bool isStamped;
    const char* signature;
    std::vector<std::string> flagNames;
};

const std::vector<FormRow>& Forms() {
    const std::optional<std::string> noName;
    static const std::vector<FormRow> rows{
        {"empty", 3, 0, false, noName, {}, false, "iii", {}},
        {"payload", 66, 0, false, noName, {'a', 'b'}, false, "iiiay", {}},
        {"program name", 3, 2, false, "tour", {}, false, "iiis", {"first-call"}},
        {"name and payload", 3, 2, false, "tour", {0, 255}, false, "iiisay", {"first-call"}},
        {"timestamp", 3, 4, false, noName, {}, true, "iiiiay", {"timestamp-sent"}},
        {"no reply", 3, 1, true, noName, {'a'}, false, "iiiay", {"no-reply"}},
        {"all", 3, 7, true, "tour", {'a'}, true, "iiisayiay", {"no-reply", "first-call", "timestamp-sent"}},
        {"negative code", -5, 0xffff, false, "tour", {'a'}, true, "iiisayiay", {}},
    };
    return rows;
}

RawCall MakeForm(const FormRow& row, std::uint64_t nowMs) {
    RawCall call;
    call.interface = "com.norvale.IAVControl";
    call.header = Header(row.code, row.flags);
    call.noReply = row.noReply;
    call.programName = row.programName;
    call.payload = row.payload;
    if (row.isStamped)
        call.aux = AuxTimestamp(4, nowMs);
    return call;
}

std::string Printable(const Bytes& bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes)
        text += byte >= ' ' && byte <= '~' ? static_cast<char>(byte) : '.';
    return text;
}

// What is printed for people of a call, from its header to its payload.
std::string TextOf(const FormRow& row, std::uint64_t sentMs) {
    char header[16];
    std::snprintf(header, sizeof header, "0x%08x", Header(row.code, row.flags));
    std::string text = std::string("\n    header ") + header;
    if (row.code >= 0) {
        std::string names;
        for (const std::string& name : row.flagNames)
            names += (names.empty() ? " " : "|") + name;
        text += ", flags 0x" + std::to_string(row.flags) + names;
    }
    text += row.noReply ? ", wants no reply" : "";
    text += ", process id " + std::to_string(::getpid());
    text += row.programName ? ", program " + *row.programName : "";
    text += row.isStamped ? "\n    sent at " + std::to_string(sentMs) + " ms" : "";
    if (!row.payload.empty())
        text += "\n    payload, " + std::to_string(row.payload.size()) + " bytes\n      00000000  ";
    return text;
}

TEST_F(ControlMonitor, DecodesEveryFieldOfCallsInAllForms) {
    std::size_t messages = 0;
    for (const FormRow& row : Forms())
        messages += row.noReply ? 1 : 2;
    const auto monitor = Monitor({"--json", "--count", std::to_string(messages)});
    const auto text = Monitor({"--count", std::to_string(messages)});
    const std::uint64_t sentMs = NowMs();
    for (const FormRow& row : Forms()) {
        if (row.noReply)
            m_client.Send(MakeForm(row, sentMs));
        else
            m_client.Call(MakeForm(row, sentMs));
    }
    const std::vector<json> all = Objects(monitor);
    ASSERT_EQ(all.size(), messages);
    const std::string lines = text->Wait().output;
    std::size_t at = 0;
    for (const FormRow& row : Forms()) {
        SCOPED_TRACE(row.name);
        const std::string from = " #" + std::to_string(at + 1) + " call com.norvale.IAVControl " +
                                 std::to_string(row.code) + " to com.norvale.MavixAPI\n    from " +
                                 m_client.UniqueName() + " " + OwnName() + "[" + std::to_string(::getpid()) +
                                 "]";
        const std::size_t head = lines.find(from);
        ASSERT_NE(head, std::string::npos) << from << lines;
        const std::size_t rest = lines.find('\n', head + from.size());
        const std::string expected = TextOf(row, sentMs);
        EXPECT_EQ(lines.substr(rest, expected.size()), expected);
        const json& call = all[at];
        EXPECT_EQ(call.at("number"), ++at);
        EXPECT_EQ(call.at("kind"), "call");
        EXPECT_EQ(call.at("sender"), m_client.UniqueName());
        EXPECT_GT(call.at("serial"), 0);
        EXPECT_GE(call.at("atUs").get<std::uint64_t>(), sentMs * 1000);
        EXPECT_EQ(call.at("destination"), "com.norvale.MavixAPI");
        EXPECT_EQ(call.at("path"), "/com/norvale/Object");
        EXPECT_EQ(call.at("member"), "MethodCall");
        EXPECT_EQ(call.at("interface"), "com.norvale.IAVControl");
        EXPECT_EQ(call.at("signature"), row.signature);
        EXPECT_EQ(call.at("deviation"), nullptr);
        EXPECT_EQ(call.at("header"), Header(row.code, row.flags));
        EXPECT_EQ(call.at("code"), row.code);
        EXPECT_EQ(call.at("flags"), row.code < 0 ? json() : json(row.flags));
        EXPECT_EQ(call.at("flagNames"), row.code < 0 ? json() : json(row.flagNames));
        EXPECT_EQ(call.at("noReply"), row.noReply);
        EXPECT_EQ(call.at("pid"), ::getpid());
        EXPECT_EQ(call.at("programName"), row.programName ? json(*row.programName) : json());
        EXPECT_EQ(call.at("timestampSent"), row.isStamped ? json(sentMs) : json());
        EXPECT_EQ(call.at("size"), row.payload.size());
        EXPECT_EQ(call.at("payload"), MavixTraffic::ToHex(row.payload.data(), row.payload.size()));
        EXPECT_EQ(call.at("text"), Printable(row.payload));
        EXPECT_EQ(call.at("cut"), false);
        EXPECT_EQ(call.at("process").at("pid"), ::getpid());
        EXPECT_EQ(call.at("process").at("name"), OwnName());
        EXPECT_EQ(call.at("process").at("unit"), OwnUnit());
        EXPECT_EQ(call.at("time").get<std::string>().size(),
                  std::string("2000-01-01T00:00:00.000000Z").size());
        if (row.noReply)
            continue;
        const json& reply = all[at];
        EXPECT_EQ(reply.at("number"), at + 1);
        EXPECT_EQ(reply.at("kind"), "reply");
        EXPECT_EQ(reply.at("call"), at);
        EXPECT_EQ(reply.at("interface"), "com.norvale.IAVControl");
        EXPECT_EQ(reply.at("code"), row.code);
        EXPECT_EQ(reply.at("destination"), m_client.UniqueName());
        EXPECT_EQ(reply.at("signature"), "yiay");
        EXPECT_EQ(reply.at("value"), 1);
        EXPECT_EQ(reply.at("length"), row.payload.size());
        EXPECT_EQ(reply.at("size"), row.payload.size());
        EXPECT_EQ(reply.at("payload"), call.at("payload"));
        EXPECT_EQ(reply.at("text"), call.at("text"));
        EXPECT_EQ(reply.at("deviation"), nullptr);
        EXPECT_EQ(reply.at("sender").get<std::string>().rfind(":1.", 0), 0u);
        EXPECT_EQ(reply.at("process").at("unit"), OwnUnit());
        EXPECT_EQ(reply.at("timestampReceived"), nullptr);
        EXPECT_EQ(reply.at("timestampSent"), nullptr);
        EXPECT_EQ(reply.at("process").at("pid"), m_service.DaemonPid());
        EXPECT_EQ(reply.at("process").at("name"), "mavix-daemon");
        EXPECT_EQ(reply.at("startsAt"), row.isStamped ? "client" : "monitor");
        EXPECT_EQ(reply.at("serviceUs"), nullptr);
        ++at;
    }
}

TEST_F(ControlMonitor, PrintsCallsAndRepliesForPeople) {
    const auto monitor = Monitor({"--count", "2"});
    FormRow row = Forms().back();
    row.code = 4;
    row.flags = 6;
    const std::uint64_t sentMs = NowMs();
    RawCall call = MakeForm(row, sentMs);
    call.interface = MavixSim::testInterface;
    call.payload = {0, 'a', 'b'};
    m_client.Call(call);
    const ControlResult result = monitor->Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "mavixctl: monitoring\n");
    const std::string own = std::to_string(::getpid());
    const std::string expected[] = {
        " #1 call com.norvale.ISimTest 4 to com.norvale.MavixAPI\n",
        "\n    from " + m_client.UniqueName() + " " + OwnName() + "[" + own + "]",
        "\n    header 0x00060004, flags 0x6 first-call|timestamp-sent, process id " + own +
            ", program tour\n",
        "\n    sent at " + std::to_string(sentMs) + " ms\n",
        "\n    payload, 3 bytes\n      00000000  00 61 62                                          |.ab|\n",
        " #2 reply to #1 com.norvale.ISimTest 4 in ",
        " ms: way out ",
        ", service ",
        ", way back ",
        " mavix-daemon[" + std::to_string(m_service.DaemonPid()) + "]",
        ", reply byte 0x07, received at ",
        " ms, sent at ",
    };
    for (const std::string& text : expected)
        EXPECT_THAT(result.output, HasSubstr(text));
}

TEST_F(ControlMonitor, PrintsErrorsAndDeviationsForPeople) {
    const auto monitor = Monitor({"--count", "6"});
    m_client.Call(TestCall(Behaviour::Error, TextBytes("com.norvale.Error.A\na \x1b[31mred\ntext")));
    m_client.Call(TestCall(Behaviour::EmptyReturn));
    RawCall call;
    call.size = 5;
    call.payload = {'a'};
    m_client.Call(call);
    const std::string output = monitor->Wait().output;
    for (const char* text :
         {" #2 error to #1 com.norvale.ISimTest 2 in ", "\n    com.norvale.Error.A: a \\x1b[31mred\\ntext\n",
          "\n    deviates: reply byte: expected type 'y', found the end\n",
          "\n    deviates: payload: size 5 announced, 1 bytes found\n    payload, 1 bytes\n"})
        EXPECT_THAT(output, HasSubstr(text));
}

TEST_F(ControlMonitor, DecodesAllTypesOfEvents) {
    const auto objects = Monitor({"--json", "--count", "14"});
    const auto text = Monitor({"--count", "14"});
    for (int type = 0; type < 14; ++type)
        m_daemon.Emit(type, 100 + type, {1, 2, static_cast<std::uint8_t>(type)}, {1, 42, ""});
    const std::vector<json> events = Objects(objects);
    const ControlResult lines = text->Wait();
    ASSERT_EQ(events.size(), 14u);
    for (std::size_t type = 0; type < events.size(); ++type) {
        const MavixSim::EventType& expected = MavixSim::eventTypes[type];
        SCOPED_TRACE(expected.member);
        const json& event = events[type];
        EXPECT_EQ(event.at("number"), type + 1);
        EXPECT_EQ(event.at("kind"), "event");
        EXPECT_EQ(event.at("sender").get<std::string>().rfind(":1.", 0), 0u);
        EXPECT_GT(event.at("serial"), 0);
        EXPECT_EQ(event.at("path"), "/com/norvale/Mavix/SignalObject");
        EXPECT_EQ(event.at("interface"), "com.norvale.Mavix.SignalIFace");
        EXPECT_EQ(event.at("type"), expected.member);
        EXPECT_EQ(event.at("typeNumber"), type);
        EXPECT_EQ(event.at("id"), 100 + type);
        EXPECT_EQ(event.at("idText"), std::to_string(100 + type));
        EXPECT_EQ(event.at("handleText"), "65578");
        EXPECT_EQ(event.at("furtherText"), expected.hasFurther ? json("65578") : json());
        EXPECT_EQ(event.at("signature"), expected.hasFurther ? "sssay" : "ssay");
        EXPECT_EQ(event.at("destination"), nullptr);
        EXPECT_EQ(event.at("deviation"), nullptr);
        EXPECT_EQ(event.at("size"), 3);
        EXPECT_EQ(event.at("payload"), (std::string("01020") + "0123456789abcd"[type]));
        EXPECT_EQ(event.at("text"), Printable({1, 2, static_cast<std::uint8_t>(type)}));
        EXPECT_EQ(event.at("cut"), false);
        EXPECT_EQ(event.at("process").at("pid"), m_service.DaemonPid());
        EXPECT_EQ(event.at("process").at("name"), "mavix-daemon");
        EXPECT_EQ(event.at("process").at("unit"), OwnUnit());
        char line[300];
        std::snprintf(line, sizeof line,
                      " #%zu event %s id %zu, handle 65578%s\n    from %s mavix-daemon[%d]", type + 1,
                      expected.member, 100 + type, expected.hasFurther ? ", further 65578" : "",
                      event.at("sender").get<std::string>().c_str(), m_service.DaemonPid());
        EXPECT_THAT(lines.output, HasSubstr(line));
        std::snprintf(line, sizeof line, "\n    payload, 3 bytes\n      00000000  01 02 %02zx ", type);
        EXPECT_THAT(lines.output, HasSubstr(line));
    }
}

TEST_F(ControlMonitor, TellsForWhomAnEventIsAlone) {
    const auto objects = Monitor({"--json", "--count", "1"});
    const auto text = Monitor({"--count", "1"});
    m_daemon.Emit(2, 7, {'a'}, {0, 0, m_client.UniqueName()});
    EXPECT_EQ(Objects(objects).at(0).at("destination"), m_client.UniqueName());
    EXPECT_THAT(text->Wait().output, HasSubstr(" to " + m_client.UniqueName() + " alone\n"));
}

struct MalformedRow {
    const char* kind;
    const char* deviation;
    json id;
};

TEST_F(ControlMonitor, TellsInWhatEventsDeviate) {
    const MalformedRow rows[] = {
        {"text-id", nullptr, 12},
        {"no-arguments", "event id: expected type 's', found the end", nullptr},
        {"id-only", "handle: expected type 's', found the end", 12},
        {"int-id", "event id: expected type 's', found 'i'", nullptr},
        {"no-payload", "payload: expected type 'ay', found the end", 12},
        {"text-payload", "payload: expected type 'ay', found 's'", 12},
        {"ints-payload", "payload: expected type 'ay', found 'ai'", 12},
        {"texts-payload", "payload: expected type 'ay', found 'as'", 12},
        {"variant-payload", "payload: expected type 'ay', found 'v'", 12},
        {"more-arguments", "trailing argument of type 's'", 12},
        {"unknown-member", "no type of event 'NoSuchEvent'", 12},
        {"other-interface", "unexpected interface 'com.norvale.Mavix.OtherIFace'", 12},
    };
    ASSERT_EQ(m_daemon.RawKinds().size(), std::size(rows)) << "a kind of its own is missing";
    const auto monitor = Monitor({"--json", "--type", "event", "--count", std::to_string(std::size(rows))});
    for (const MalformedRow& row : rows)
        m_daemon.EmitRaw(row.kind, 2, "12abc", {'a'});
    const std::vector<json> events = Objects(monitor);
    ASSERT_EQ(events.size(), std::size(rows));
    for (std::size_t i = 0; i < events.size(); ++i) {
        EXPECT_EQ(events[i].at("deviation"), rows[i].deviation != nullptr ? json(rows[i].deviation) : json())
            << rows[i].kind;
        EXPECT_EQ(events[i].at("id"), rows[i].id) << rows[i].kind;
    }
}

TEST_F(ControlMonitor, GoesOnAfterATextThatItCannotRead) {
    const std::string path = m_bus.Folder() + "/recording";
    const auto monitor = Monitor({"--json", "--record", path, "--count", "2"});
    // U+FFFE, which the bus passes on.
    MavixTools::ChildOptions sender;
    sender.program = "dbus-send";
    sender.arguments = {"--bus=" + m_bus.Address(), "--type=signal", "/com/norvale/Mavix/SignalObject",
                        "com.norvale.Mavix.SignalIFace.Data", "string:12\xEF\xBF\xBE"};
    EXPECT_EQ(MavixTools::ShellStatus(*MavixTools::TCChildProcess(sender).Wait()), 0);
    m_daemon.Emit(2, 7, {'a'});
    const ControlResult result = monitor->Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.errors, HasSubstr("mavixctl: #1 is not recorded: cannot read a text: Bad message\n"));
    const std::vector<json> all = result.Objects();
    ASSERT_EQ(all.size(), 2u) << result.output;
    EXPECT_EQ(all[0].at("deviation"), "event id: a text that cannot be read");
    EXPECT_EQ(all[1].at("id"), 7);
    const MavixTraffic::Recording recording = MavixTraffic::ReadRecording(path);
    ASSERT_EQ(recording.events.size(), 1u);
    EXPECT_EQ(recording.events[0].arguments.at(0), "7");
}

TEST_F(ControlMonitor, ShowsWhatSteersATerminalAsEscapes) {
    const auto text = Monitor({"--count", "1"});
    const auto objects = Monitor({"--json", "--count", "1"});
    const std::string handle = "\u009b31m\x7f\u00e4\x1b";
    m_client.Emit({"/com/norvale/Mavix/SignalObject",
                   "com.norvale.Mavix.SignalIFace",
                   "Data",
                   "",
                   {"7", handle},
                   {'a'}});
    EXPECT_THAT(text->Wait().output, HasSubstr(", handle \\xc2\\x9b31m\\x7f\u00e4\\x1b\n"));
    const ControlResult object = objects->Wait();
    EXPECT_THAT(object.output, HasSubstr("\\u009b31m\\u007f\u00e4\\u001b"));
    EXPECT_EQ(object.Object().at("handleText"), handle);
}

struct ReplyRow {
    Behaviour behaviour;
    Bytes payload;
    const char* kind;
    const char* deviation;
    json value;
    // Which timestamps it carries.
    const char* stamps;
};

TEST_F(ControlMonitor, DecodesRepliesAndErrorsInAllForms) {
    const ReplyRow rows[] = {
        {Behaviour::Echo, {'a'}, "reply", nullptr, 1, ""},
        {Behaviour::Aux, {0}, "reply", nullptr, 7, "received sent"},
        {Behaviour::Aux, {1}, "reply", nullptr, 3, "received"},
        {Behaviour::Aux, {2}, "reply", nullptr, 5, "sent"},
        {Behaviour::Aux, {3}, "reply", "auxiliary block: value of 0 bytes", 7, "received"},
        {Behaviour::Aux, {4}, "reply", "auxiliary block: value of 8 bytes", 7, "received"},
        {Behaviour::Aux, {5}, "reply", "auxiliary block: unknown tag 64", 7, ""},
        {Behaviour::Aux, {6}, "reply", "auxiliary block: value of 4 bytes", 7, ""},
        {Behaviour::Aux, {7}, "reply", "auxiliary block: expected type 'ay', found 's'", 7, ""},
        {Behaviour::AuxAbsent, {}, "reply", "auxiliary length: expected type 'i', found the end", 5, ""},
        {Behaviour::BrokenByte, {0}, "reply", "reply byte 0 says that the reply is broken", 0, ""},
        {Behaviour::BrokenByte,
         {1},
         "reply",
         "reply byte 6 says that the reply is broken",
         6,
         "received sent"},
        {Behaviour::WrongTypes, {0}, "reply", "reply byte: expected type 'y', found 's'", nullptr, ""},
        {Behaviour::WrongTypes, {5}, "reply", "payload: expected type 'ay', found 'as'", 1, ""},
        {Behaviour::LengthLies, {'a'}, "reply", "payload: length 1001 announced, 1 bytes found", 1, ""},
        {Behaviour::EmptyReturn, {}, "reply", "reply byte: expected type 'y', found the end", nullptr, ""},
        {Behaviour::Error, {}, "error", nullptr, nullptr, ""},
        {Behaviour::ErrorNoText, {}, "error", nullptr, nullptr, ""},
    };
    const std::string count = std::to_string(std::size(rows));
    const auto monitor = Monitor({"--json", "--type", "reply", "--type", "error", "--count", count});
    const auto text = Monitor({"--type", "reply", "--type", "error", "--count", count});
    const std::uint64_t startMs = NowMs();
    for (const ReplyRow& row : rows)
        m_client.Call(TestCall(row.behaviour, row.payload));
    const std::vector<json> replies = Objects(monitor);
    ASSERT_EQ(replies.size(), std::size(rows));
    const std::string lines = text->Wait().output;
    for (std::size_t i = 0; i < replies.size(); ++i) {
        const ReplyRow& row = rows[i];
        const json& reply = replies[i];
        SCOPED_TRACE(static_cast<int>(row.behaviour));
        EXPECT_EQ(reply.at("kind"), row.kind);
        EXPECT_EQ(reply.at("call"), 2 * i + 1);
        EXPECT_EQ(reply.at("deviation"), row.deviation != nullptr ? json(row.deviation) : json());
        EXPECT_EQ(reply.value("value", json()), row.value);
        const std::string stamps = row.stamps;
        for (const auto& [word, member] :
             {std::pair{"received", "timestampReceived"}, {"sent", "timestampSent"}}) {
            const json stamp = reply.value(member, json());
            ASSERT_EQ(stamp.is_number(), stamps.find(word) != std::string::npos) << member << reply;
            if (stamp.is_number()) {
                EXPECT_GE(stamp, startMs);
                EXPECT_LE(stamp, NowMs());
                EXPECT_THAT(lines, HasSubstr(", " + (word + (" at " + stamp.dump())) + " ms"));
            }
        }
        const bool isSplit = stamps == "received sent";
        EXPECT_EQ(reply.at("serviceUs").is_number(), isSplit);
        if (isSplit) {
            EXPECT_LE(reply.at("serviceUs").get<int>(), reply.at("totalUs").get<int>() + 1000);
        }
        if (row.deviation == nullptr && reply.at("kind") == "reply") {
            EXPECT_EQ(reply.at("length"), reply.at("size"));
        }
        if (row.deviation != nullptr) {
            EXPECT_THAT(lines, HasSubstr(std::string("\n    deviates: ") + row.deviation + "\n"));
        }
    }
    EXPECT_EQ(replies[16].at("name"), "com.norvale.Error.Refused");
    EXPECT_EQ(replies[16].at("errorText"), "Refused on request.");
    EXPECT_EQ(replies[17].at("errorText"), nullptr);
}

TEST_F(ControlMonitor, SplitsTheTimeOfACallIntoItsWays) {
    const auto monitor = Monitor({"--json", "--type", "reply", "--count", "2"});
    RawCall call = TestCall(Behaviour::Aux, {0});
    call.header = Header(static_cast<int>(Behaviour::Aux), 4);
    m_daemon.SetDelay(std::chrono::milliseconds(40));
    for (int i = 0; i < 2; ++i) {
        call.aux = AuxTimestamp(4, NowMs() - 25);
        m_client.Call(call);
    }
    for (const json& reply : Objects(monitor)) {
        EXPECT_EQ(reply.at("startsAt"), "client");
        EXPECT_GE(reply.at("wayOutUs"), 24000) << "from the timestamp of the client to that of the service";
        EXPECT_GE(reply.at("serviceUs"), 39000);
        EXPECT_GE(reply.at("totalUs"), 64000);
        EXPECT_EQ(reply.at("totalUs").get<int>(), reply.at("wayOutUs").get<int>() +
                                                      reply.at("serviceUs").get<int>() +
                                                      reply.at("wayBackUs").get<int>());
    }
}

TEST_F(ControlMonitor, TellsOfCallsWithoutAReply) {
    const auto objects = Monitor({"--json", "--reply-limit", "0.2", "--count", "2"});
    const auto text = Monitor({"--reply-limit", "0.2", "--type", "timeout", "--count", "1"});
    CallInVain();
    const std::vector<json> both = Objects(objects);
    ASSERT_EQ(both.size(), 2u);
    EXPECT_EQ(both[1].at("kind"), "timeout");
    EXPECT_EQ(both[1].at("call"), 1);
    EXPECT_EQ(both[1].at("interface"), MavixSim::testInterface);
    EXPECT_EQ(both[1].at("code"), 6);
    EXPECT_GE(both[1].at("waitedUs"), 200000);
    EXPECT_THAT(text->Wait().output, HasSubstr("#1 com.norvale.ISimTest 6 has no reply after 2"));
}

TEST_F(ControlMonitor, PrintsOwnerChangesOfTheServicesNames) {
    const auto objects = Monitor({"--json", "--count", "2"});
    const auto text = Monitor({"--count", "2"});
    m_daemon.DropName("com.norvale.MavixAPI.Pipeline");
    m_client.RequestName("com.norvale.Mavix.Signal.mavix1");
    m_daemon.TakeName("com.norvale.MavixAPI.Pipeline");
    const std::vector<json> changes = Objects(objects);
    ASSERT_EQ(changes.size(), 2u);
    EXPECT_EQ(changes[0].at("kind"), "owner");
    EXPECT_EQ(changes[0].at("name"), "com.norvale.MavixAPI.Pipeline");
    EXPECT_EQ(changes[0].at("newOwner"), nullptr);
    EXPECT_EQ(changes[1].at("oldOwner"), nullptr);
    EXPECT_EQ(changes[1].at("newOwner"), changes[0].at("oldOwner"));
    EXPECT_EQ(changes[1].at("process").at("name"), "mavix-daemon");
    const std::string lines = text->Wait().output;
    EXPECT_THAT(lines, HasSubstr("#1 owner com.norvale.MavixAPI.Pipeline has none, was :1."));
    EXPECT_THAT(lines, HasSubstr(" mavix-daemon["));
}

struct FilterRow {
    Words arguments;
    std::vector<int> numbers; // of the messages below
};

TEST_F(ControlMonitor, TakesWhatItsFiltersAskFor) {
    // 1, 2: a call of code 66 and its reply; 3, 4: of code 3; 5, 6: of the test interface, refused; 7: an
    // event; 8: a change; 9: another event; 10, 11: the last call.
    const std::string own = std::to_string(::getpid());
    const std::string daemon = std::to_string(m_service.DaemonPid());
    const FilterRow rows[] = {
        {{}, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}},
        {{"--interface", "com.norvale.IAVControl"}, {1, 2, 3, 4, 10, 11}},
        {{"--interface", "com.norvale.Mavix.SignalIFace"}, {7, 9}},
        {{"--code", "66"}, {1, 2}},
        {{"--code", "2"}, {5, 6}},
        {{"--interface", "com.norvale.ISimTest", "--code", "66"}, {}},
        {{"--type", "call"}, {1, 3, 5, 10}},
        {{"--type", "reply", "--type", "error"}, {2, 4, 6, 11}},
        {{"--type", "event"}, {7, 9}},
        {{"--type", "Data"}, {7}},
        {{"--type", "3"}, {9}},
        {{"--type", "owner"}, {8}},
        {{"--process", OwnName()}, {1, 2, 3, 4, 5, 6, 10, 11}},
        {{"--process", own, "--type", "error"}, {6}},
        {{"--process", "mavix-daemon"}, {7, 8, 9}},
        {{"--process", daemon, "--type", "Program"}, {9}},
        {{"--process", "nobody"}, {}},
    };
    std::vector<Program> monitors;
    for (const FilterRow& row : rows) {
        Words arguments{"--json"};
        arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
        monitors.push_back(Monitor(arguments));
    }
    const auto end = Monitor({"--count", "11"});
    RawCall call;
    call.interface = "com.norvale.IAVControl";
    for (const int code : {66, 3}) {
        call.header = Header(code);
        m_client.Call(call);
    }
    m_client.Call(TestCall(Behaviour::Error));
    m_daemon.Emit(2, 7, {'a'});
    m_daemon.DropName("com.norvale.MavixAPI.Pipeline");
    m_daemon.Emit(3, 7, {'a'});
    m_client.Call(call);
    EXPECT_EQ(end->Wait().status, 0);
    for (std::size_t i = 0; i < monitors.size(); ++i) {
        SCOPED_TRACE(testing::PrintToString(rows[i].arguments));
        // What has passed before the signal is still printed.
        monitors[i]->Signal(SIGTERM);
        const ControlResult result = monitors[i]->Wait();
        EXPECT_EQ(result.status, 0);
        std::vector<int> numbers;
        for (const json& object : result.Objects())
            numbers.push_back(object.at("number"));
        EXPECT_EQ(numbers, rows[i].numbers);
    }
}

TEST_F(ControlMonitor, ShowsTheBeginningOfAPayloadOrAllOfIt) {
    const auto cut = Monitor({"--json", "--count", "1"});
    const auto cutText = Monitor({"--count", "1"});
    const auto full = Monitor({"--json", "--full", "--count", "1"});
    m_client.Call(TestCall(Behaviour::Echo, Bytes(1000, 'x')));
    const json beginning = Objects(cut).at(0);
    EXPECT_EQ(beginning.at("size"), 1000);
    EXPECT_EQ(beginning.at("cut"), true);
    EXPECT_EQ(beginning.at("text"), std::string(64, 'x'));
    EXPECT_EQ(beginning.at("payload").get<std::string>().size(), 128u);
    const json all = Objects(full).at(0);
    EXPECT_EQ(all.at("cut"), false);
    EXPECT_EQ(all.at("text"), std::string(1000, 'x'));
    EXPECT_THAT(cutText->Wait().output, HasSubstr("payload, 1000 bytes, of which 64 are shown\n"));
}

TEST_F(ControlMonitor, KnowsProcessesThatAreGoneWhenTheirCallsArePrinted) {
    const auto monitor = Monitor({"--json", "--type", "call"});
    // A monitor that gets no processor in time finds nobody any more, so one is enough; none may be wrong.
    int known = 0;
    for (int i = 0; i < 20 && known == 0; ++i) {
        EXPECT_EQ(RunControl({"call", "com.norvale.IAVControl", std::to_string(i)}).status, 0);
        EXPECT_TRUE(monitor->AwaitOutput("\"code\":" + std::to_string(i) + ","));
        known += monitor->Output().find("\"name\":\"mavixctl\"") != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(known, 1);
    monitor->Signal(SIGTERM);
    for (const json& call : Objects(monitor)) {
        const json& process = call.at("process");
        if (process == nullptr)
            continue;
        EXPECT_EQ(process.at("pid"), call.at("pid"));
        EXPECT_TRUE(process.at("name") == "mavixctl" || process.at("name") == nullptr) << process;
    }
}

TEST_F(ControlMonitor, ACountThatIsNotReachedInTimeIsAFailure) {
    const ControlResult none = RunControl({"monitor", "--count", "2", "--timeout", "0.1"});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.errors, "mavixctl: monitoring\nmavixctl: 0 of 2 messages came in 0.1 s\n");
    EXPECT_EQ(RunControl({"monitor", "--timeout", "0.1"}).status, 0);
}

TEST_F(ControlMonitor, ABusThatGoesAwayEndsItWithTheRecordingWhole) {
    const std::string path = m_bus.Folder() + "/recording";
    const auto monitor = Monitor({"--record", path, "--json"});
    m_client.Call(TestCall(Behaviour::Echo, {'a'}));
    EXPECT_TRUE(monitor->AwaitOutput("\"reply\""));
    m_bus.Stop();
    const ControlResult result = monitor->Wait();
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.errors, "mavixctl: monitoring\nmavixctl: the bus has gone away\n");
    EXPECT_EQ(MavixTraffic::ReadRecording(path).calls.size(), 1u);
}

TEST_F(ControlMonitor, RecordsWhatItsFiltersTakeWhateverItPrints) {
    const std::string path = m_bus.Folder() + "/recording";
    const auto monitor =
        Monitor({"--record", path, "--interface", "com.norvale.ISimTest", "--type", "error", "--count", "1"});
    m_client.Call(RawCall());
    m_client.Call(TestCall(Behaviour::Echo, {'a'}));
    m_daemon.Emit(2, 7, {'a'});
    m_client.Call(TestCall(Behaviour::Error));
    EXPECT_EQ(monitor->Wait().status, 0);
    const MavixTraffic::Recording recording = MavixTraffic::ReadRecording(path);
    ASSERT_EQ(recording.calls.size(), 2u);
    EXPECT_EQ(recording.events.size(), 0u);
    EXPECT_EQ(recording.calls[0].payload, Bytes{'a'});
    EXPECT_EQ(recording.calls[0].reply->signature, "yiay");
    EXPECT_EQ(recording.calls[1].reply->errorName, "com.norvale.Error.Refused");
}

TEST_F(ControlMonitor, AReaderThatLeavesEndsItWithTheRecordingWhole) {
    const std::string path = m_bus.Folder() + "/recording";
    TCControlProgram monitor({"monitor", "--record", path},
                             TCControlProgram::Options::Behind("\"$@\" | head -n 1"));
    ASSERT_TRUE(monitor.AwaitErrors("monitoring"));
    EXPECT_TRUE(Await([&] {
        m_client.Call(RawCall());
        try {
            return !MavixTraffic::ReadRecording(path).calls.empty();
        } catch (const MavixTraffic::RecordingError&) {
            return false;
        }
    }));
    EXPECT_THAT(monitor.Wait().output, HasSubstr(" #1 call com.norvale.ITest 0 to com.norvale.MavixAPI\n"));
}

TEST_F(ControlMonitor, EndsWithTheRecordingWholeWhenItsOutputCannotBeWritten) {
    const std::string path = m_bus.Folder() + "/recording";
    TCControlProgram monitor({"monitor", "--record", path},
                             TCControlProgram::Options::Behind("exec \"$@\" >/dev/full"));
    ASSERT_TRUE(monitor.AwaitErrors("monitoring"));
    m_client.Call(RawCall());
    const ControlResult result = monitor.Wait();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "mavixctl: monitoring\nmavixctl: standard output cannot be written\n");
    EXPECT_EQ(MavixTraffic::ReadRecording(path).calls.size(), 1u);
}

TEST_F(ControlMonitor, ARecordingTakesThePlaceOfNoClosedStream) {
    const std::string path = m_bus.Folder() + "/recording";
    for (const char* streams : {"<&- 2>&-", "<&- >&- 2>&-"}) {
        RunControl({"monitor", "--record", path, "--timeout", "0.1"},
                   TCControlProgram::Options::Behind(std::string("exec \"$@\" ") + streams));
        EXPECT_NO_THROW(MavixTraffic::ReadRecording(path)) << streams;
    }
}

TEST_F(ControlMonitor, WithoutABusThereIsNothingToMonitor) {
    TCControlProgram::Options options;
    options.environment = {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus"}};
    const ControlResult result = RunControl({"monitor"}, options);
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.errors, HasSubstr("mavixctl: no bus at unix:path=/nonexistent/bus: "));
}

TEST_F(ControlMonitor, ARecordingThatCannotBeWrittenIsAFailure) {
    const ControlResult folder = RunControl({"monitor", "--record", m_bus.Folder()});
    EXPECT_EQ(folder.status, 1);
    EXPECT_EQ(folder.errors, "mavixctl: cannot write '" + m_bus.Folder() + "': Is a directory\n");
    const ControlResult full = RunControl({"monitor", "--record", "/dev/full", "--timeout", "0.1"});
    EXPECT_EQ(full.status, 1);
    EXPECT_THAT(full.errors, HasSubstr("cannot write '/dev/full': No space left on device\n"));
}

TEST(ControlMonitorRights, OnlyTheBusesOwnUserAndRootMayMonitor) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can be somebody else";
    const TCPrivateBus bus(TCPrivateBus::Access::EveryUser);
    TCControlProgram::Options options;
    options.launcher = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    const ControlResult result = RunControl({"monitor"}, options);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors.rfind("mavixctl: the bus lets only root and its own user monitor: ", 0), 0u)
        << result.errors;
}

struct UsageRow {
    Words arguments;
    const char* message;
};

TEST(ControlMonitorUsage, SaysWhichOptionIsWrongAndWhatWasExpected) {
    const UsageRow rows[] = {
        {{"--type", "Datum"},
         "mavixctl: --type: 'Datum' is none of call, reply, error, event, owner, timeout, nor a type of "
         "event by "
         "name or number; see mavixctl monitor --help\n"},
        {{"--code", "70000"},
         "mavixctl: --code: '70000' is not a whole number from -32768 to 32767; see mavixctl monitor "
         "--help\n"},
        {{"--count", "0"},
         "mavixctl: --count: '0' is not a whole number from 1 to 9223372036854775807; see mavixctl monitor "
         "--help\n"},
        {{"--timeout", "soon"},
         "mavixctl: --timeout: 'soon' is not a number of seconds from 0 to 1000000; see mavixctl monitor "
         "--help\n"},
    };
    for (const UsageRow& row : rows) {
        Words words{"monitor"};
        words.insert(words.end(), row.arguments.begin(), row.arguments.end());
        const ControlResult result = RunControl(words);
        EXPECT_EQ(result.status, 2) << row.message;
        EXPECT_EQ(result.errors, row.message);
    }
}

} // namespace

} // namespace MavixTest
