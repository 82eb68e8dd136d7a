#include "ControlBus.h"

#include <mavix-api/MessageBuffer.h>

#include <fstream>

namespace MavixTest {

namespace {

using nlohmann::json;

const char* const interface = "com.norvale.IAVControl";
const char* const testInterface = "com.norvale.ISimTest";

std::string Hex(const MavixApiLite::TCMessageBuffer& buffer) {
    std::string text;
    for (std::size_t i = 0; i < buffer.PayloadSize(); ++i) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(buffer.GetAsCStr(0)[i]));
        text += digits;
    }
    return text;
}

Words Call(const Words& more, const char* code = "1") {
    Words words{"call", interface, code};
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

class ControlCall : public ControlBus {};

struct ValueRow {
    Words values;
    std::function<void(MavixApiLite::TCMessageBuffer&)> push;
};

TEST_F(ControlCall, LaysValuesOutAsAMessageBufferDoes) {
    using Buffer = MavixApiLite::TCMessageBuffer;
    const ValueRow rows[] = {
        {{}, [](Buffer&) {}},
        {{"c:65", "c:-1", "c:0xff"}, [](Buffer& b) { b.PushChar('A'), b.PushChar(-1), b.PushChar(-1); }},
        {{"s:-2", "s:0x8001"}, [](Buffer& b) { b.PushShort(-2), b.PushShort(-32767); }},
        {{"i:-2147483648", "i:4294967295"}, [](Buffer& b) { b.PushInt(-2147483647 - 1), b.PushInt(-1); }},
        {{"l:-3", "l:18446744073709551615"}, [](Buffer& b) { b.PushLongLong(-3), b.PushLongLong(-1); }},
        {{"str:hello", "str:"},
         [](Buffer& b) { b.PushInt(5), b.PushConcatenated(5, "hello"), b.PushInt(0); }},
        {{"str:a:b"}, [](Buffer& b) { b.PushInt(3), b.PushConcatenated(3, "a:b"); }},
        {{"strz:hello", "strz:"}, [](Buffer& b) { b.PushConcatenated(7, "hello\0"); }},
        {{"hex:00fF 10:01", "hex:"}, [](Buffer& b) { b.PushConcatenated(4, "\x00\xff\x10\x01"); }},
        // As session control lays out a trace.
        {{"l:7", "str:who", "i:3"},
         [](Buffer& b) { b.PushLongLong(7), b.PushInt(3), b.PushConcatenated(3, "who"), b.PushInt(3); }},
    };
    for (const ValueRow& row : rows) {
        Buffer buffer;
        row.push(buffer);
        Words words = Call(row.values);
        words.emplace_back("--json");
        const ControlResult result = RunControl(words);
        EXPECT_EQ(result.status, 0) << result.errors;
        EXPECT_EQ(result.Object().at("payload"), Hex(buffer)) << testing::PrintToString(row.values);
        EXPECT_EQ(result.Object().at("size"), buffer.PayloadSize());
    }
}

TEST_F(ControlCall, TakesBytesFromFilesAndStandardInput) {
    const std::string path = m_bus.Folder() + "/bytes";
    std::ofstream(path) << "from a file,";
    TCControlProgram::Options options;
    options.input = "from input";
    const json object =
        RunControl(Call({"@" + path, "-", "c:0x21", "--decode", "hex:12,hex", "--json"}), options).Object();
    EXPECT_EQ(object.at("values"), json({"66726f6d20612066696c652c", "66726f6d20696e70757421"}));
}

TEST_F(ControlCall, ShowsTheReplyAsADump) {
    const ControlResult result = RunControl(Call({"hex:000102030405060708090a0b0c0d0e0f", "strz:A~"}));
    EXPECT_EQ(result.status, 0) << result.errors;
    const std::size_t firstLine = result.output.find('\n');
    EXPECT_EQ(result.output.rfind("19 bytes in ", 0), 0u) << result.output;
    EXPECT_EQ(result.output.substr(0, firstLine).find(" ms from com.norvale.MavixAPI") + 29, firstLine);
    EXPECT_EQ(result.output.substr(firstLine + 1),
              "00000000  00 01 02 03 04 05 06 07  08 09 0a 0b 0c 0d 0e 0f  |................|\n"
              "00000010  41 7e 00                                          |A~.|\n");
}

struct DecodeRow {
    Words arguments;
    const char* types;
    const char* text;
    json values;
    const char* rest;
};

TEST_F(ControlCall, DecodesTheReply) {
    const DecodeRow rows[] = {
        {{"c:200", "s:-5", "i:6", "l:-7"},
         "c,s,i,l",
         "c     -56\ns     -5\ni     6\nl     -7\n",
         {-56, -5, 6, -7},
         ""},
        {{"str:hello", "strz:wor\"ld"},
         "str,strz",
         "str   \"hello\"\nstrz  \"wor\"ld\"\n",
         {"hello", "wor\"ld"},
         ""},
        {{"i:1", "hex:0a0b0c"}, "i,hex:2", "i     1\nhex:N  0a0b\nrest  0c\n", {1, "0a0b"}, "0c"},
        {{"hex:0a0b0c"}, "hex", "hex   0a0b0c\n", json::array({"0a0b0c"}), ""},
        {{"str:a\n\x1b[1m\\"}, "str", "str   \"a\\n\\x1b[1m\\\\\"\n", json::array({"a\n\x1b[1m\\"}), ""},
        {{"c:1"}, "c,hex", "c     1\nhex   \n", {1, ""}, ""},
    };
    for (const DecodeRow& row : rows) {
        Words words = Call(row.arguments);
        words.insert(words.end(), {"--decode", row.types});
        const ControlResult text = RunControl(words);
        EXPECT_EQ(text.status, 0) << text.errors;
        EXPECT_EQ(text.output.substr(text.output.find('\n') + 1), row.text);
        words.emplace_back("--json");
        const json object = RunControl(words).Object();
        EXPECT_EQ(object.at("values"), row.values) << row.types;
        EXPECT_EQ(object.at("rest"), row.rest) << row.types;
    }
}

TEST_F(ControlCall, ShowsWhatSteersATerminalAsEscapes) {
    const ControlResult result =
        RunControl(Call({"str:\u009b\x9b\xc3\u00e4\u20ac\U0001f600\xf0\x9f\x98\xe2\x82", "--decode", "str"}));
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.output.substr(result.output.find('\n') + 1),
              "str   \"\\xc2\\x9b\\x9b\\xc3\u00e4\u20ac\U0001f600\\xf0\\x9f\\x98\\xe2\\x82\"\n");
}

TEST_F(ControlCall, WritesToNobodyElseWhenAStreamIsClosed) {
    const auto behind = [](const char* redirection) {
        return TCControlProgram::Options::Behind(std::string("exec \"$@\" ") + redirection);
    };
    const ControlResult noOutput = RunControl(Call({}), behind(">&-"));
    EXPECT_EQ(noOutput.status, 1);
    EXPECT_EQ(noOutput.errors, "mavixctl: standard output cannot be written\n");
    const ControlResult noErrors = RunControl(Call({"i:1", "--decode", "l"}), behind("2>&-"));
    EXPECT_EQ(noErrors.status, 1);
    EXPECT_EQ(noErrors.output.rfind("4 bytes in ", 0), 0u) << noErrors.output;
    const ControlResult noInput = RunControl(Call({"-"}), behind("<&-"));
    EXPECT_EQ(noInput.status, 2);
    EXPECT_EQ(noInput.errors, "mavixctl: ARGUMENT: '-' cannot be read: Bad file descriptor; see mavixctl "
                              "call --help\n");
    EXPECT_EQ(m_daemon.Records().size(), 2u);
}

TEST_F(ControlCall, EndsWhenItsOutputCannotBeWritten) {
    const ControlResult result = RunControl(Call({"--repeat", "1000000000"}),
                                            TCControlProgram::Options::Behind("exec \"$@\" >/dev/full"));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "mavixctl: standard output cannot be written\n");
}

struct ShortRow {
    const char* argument;
    const char* types;
    const char* complaint;
};

TEST_F(ControlCall, AReplyThatEndsTooEarlyIsAFailedCheck) {
    const ShortRow rows[] = {
        {"c:1", "s", "the payload ends within value 1 (s), 1 bytes before its end"},
        {"i:1", "i,c", "the payload ends within value 2 (c), 0 bytes before its end"},
        {"s:1", "str", "the payload ends within value 1 (str), 2 bytes before its end"},
        {"i:5", "str", "the payload ends within value 1 (str), 4 bytes before its end"},
        {"i:-1", "str", "the payload ends within value 1 (str), 4 bytes before its end"},
        {"hex:414243", "strz", "the payload ends within value 1 (strz), 3 bytes before its end"},
        {"hex:414243", "hex:4", "the payload ends within value 1 (hex:N), 3 bytes before its end"},
    };
    for (const ShortRow& row : rows) {
        const ControlResult text = RunControl(Call({row.argument, "--decode", row.types}));
        EXPECT_EQ(text.status, 1) << row.complaint;
        EXPECT_EQ(text.errors, std::string("mavixctl: ") + row.complaint + "\n");
        const ControlResult object = RunControl(Call({row.argument, "--decode", row.types, "--json"}));
        EXPECT_EQ(object.status, 1) << row.complaint;
        EXPECT_EQ(object.Object().at("complaint"), row.complaint);
    }
}

TEST_F(ControlCall, ShowsTheReplyInOneLineOfDigits) {
    const ControlResult result = RunControl(Call({"i:1", "str:x", "--hex"}));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output.substr(result.output.find('\n') + 1), "010000000100000078\n");
}

TEST_F(ControlCall, GoesToTheBusThatServesTheFunction) {
    const json object = RunControl({"call", interface, "66", "--json"}).Object();
    EXPECT_EQ(object.at("bus"), "com.norvale.MavixAPI.HyperFast");
    EXPECT_EQ(object.at("interface"), interface);
    EXPECT_EQ(object.at("code"), 66);
    EXPECT_EQ(object.at("ok"), true);
    EXPECT_EQ(object.at("async"), false);
    EXPECT_GT(object.at("milliseconds"), 0);
    const std::vector<json> records = m_daemon.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].at("destination"), "com.norvale.MavixAPI.HyperFast");
    EXPECT_EQ(records[0].at("programName"), "mavixctl");
}

TEST_F(ControlCall, DoesNotWaitForAReplyOnRequest) {
    const ControlResult text = RunControl(Call({"i:9", "--async"}));
    EXPECT_EQ(text.status, 0) << text.errors;
    EXPECT_EQ(text.output, "sent to com.norvale.MavixAPI\n");
    const json object = RunControl(Call({"i:9", "--async", "--json"})).Object();
    EXPECT_EQ(object, (json{{"interface", interface},
                            {"code", 1},
                            {"bus", "com.norvale.MavixAPI"},
                            {"ok", true},
                            {"async", true}}));
    const std::vector<json> records = m_daemon.WaitForRecords(2);
    ASSERT_EQ(records.size(), 2u);
    for (const json& record : records) {
        EXPECT_EQ(record.at("noReply"), true);
        EXPECT_EQ(record.at("payload"), "09000000");
    }
}

TEST_F(ControlCall, RepeatsACall) {
    EXPECT_EQ(RunControl(Call({"i:9", "--repeat", "5", "--json"})).Objects().size(), 5u);
    EXPECT_EQ(m_daemon.Records().size(), 5u);
    const ControlResult async = RunControl(Call({"--repeat", "3", "--async"}));
    EXPECT_EQ(async.output,
              "sent to com.norvale.MavixAPI\nsent to com.norvale.MavixAPI\nsent to com.norvale.MavixAPI\n");
    EXPECT_EQ(m_daemon.WaitForRecords(8).size(), 8u);
}

struct RefusalRow {
    Words arguments;
    const char* name;
    const char* text;
};

TEST_F(ControlCall, TellsWhyTheServiceRefused) {
    const RefusalRow rows[] = {
        {{"2"}, "com.norvale.Error.Refused", "Refused on request."},
        {{"2", "hex:636f6d2e782e590a6e6f", "c:33"}, "com.x.Y", "no!"},
        {{"3"}, nullptr, "Reply message is broken. Reply value: 0"},
        {{"12"}, nullptr, "Expected DBUS_TYPE_BYTE."},
        {{"13"}, "com.norvale.Error.Refused", "without a text"},
        {{"9", "i:3"},
         "org.freedesktop.DBus.Error.NoReply",
         "Message recipient disconnected from message bus without replying"},
    };
    for (const RefusalRow& row : rows) {
        Words words{"call", testInterface};
        words.insert(words.end(), row.arguments.begin(), row.arguments.end());
        words.insert(words.end(), {"--wait", "20"});
        const ControlResult text = RunControl(words);
        EXPECT_EQ(text.status, 1) << row.text;
        EXPECT_EQ(text.output, "") << row.text;
        EXPECT_EQ(text.errors, "mavixctl: com.norvale.ISimTest " + row.arguments[0] +
                                   " failed: " + (row.name != nullptr ? std::string(row.name) + ": " : "") +
                                   row.text + "\n");
        words.emplace_back("--json");
        const ControlResult object = RunControl(words);
        EXPECT_EQ(object.status, 1) << row.text;
        EXPECT_EQ(object.Object().at("ok"), false);
        EXPECT_EQ(object.Object().at("error"),
                  (json{{"name", row.name != nullptr ? json(row.name) : json()}, {"text", row.text}}));
    }
}

TEST_F(ControlCall, SaysAtOnceThatNobodyServes) {
    m_daemon.DropName("com.norvale.MavixAPI");
    const ControlResult result = RunControl(Call({}));
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "mavixctl: com.norvale.MavixAPI has no owner: the service does not run\n");
}

TEST_F(ControlCall, WaitsForTheServiceOnRequest) {
    m_daemon.DropName("com.norvale.MavixAPI");
    TCControlProgram program(Call({"--wait", "40", "--json"}));
    // It has to be there to find the name without owner, and may be early for that.
    EXPECT_EQ(RunControl(Call({"--wait", "0.1"})).status, 3);
    m_daemon.TakeName("com.norvale.MavixAPI");
    EXPECT_EQ(program.Wait().status, 0);
}

TEST_F(ControlCall, SaysThatThereIsNoBus) {
    TCControlProgram::Options options;
    options.environment = {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus"}};
    const ControlResult result = RunControl(Call({}), options);
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.errors, "mavixctl: no bus at unix:path=/nonexistent/bus: No such file or directory\n");
}

TEST_F(ControlCall, SaysThatTheBusHasGone) {
    TCControlProgram program({"call", testInterface, "6"});
    ASSERT_EQ(m_daemon.WaitForRecords(1).size(), 1u);
    m_bus.Kill();
    const ControlResult result = program.Wait();
    EXPECT_EQ(result.status, 3);
    EXPECT_NE(result.errors.find("mavixctl: the bus has gone away\n"), std::string::npos) << result.errors;
}

TEST_F(ControlCall, SaysThatTheServiceHasGone) {
    m_daemon.SetDelay(std::chrono::milliseconds(500));
    TCControlProgram program(Call({"--repeat", "2", "--json"}));
    ASSERT_EQ(m_daemon.WaitForRecords(1).size(), 1u);
    m_daemon.DropName("com.norvale.MavixAPI");
    // The library waits for it for 25 s.
    const ControlResult result = program.Wait();
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.errors, "mavixctl: com.norvale.IAVControl 1 failed: Bus not owned\n"
                             "mavixctl: com.norvale.MavixAPI has no owner: the service does not run\n");
    ASSERT_EQ(result.Objects().size(), 2u);
    EXPECT_EQ(result.Objects()[1].at("ok"), false);
}

TEST_F(ControlCall, CarriesTheLargestPayload) {
    const std::string path = m_bus.Folder() + "/large";
    std::ofstream(path) << std::string(16'777'216, 'x');
    const json object = RunControl(Call({"@" + path, "--json"})).Object();
    EXPECT_EQ(object.at("size"), 16'777'216);
    const ControlResult tooLarge = RunControl(Call({"@" + path, "c:1"}));
    EXPECT_EQ(tooLarge.status, 2);
    EXPECT_NE(tooLarge.errors.find("the payload is larger than the 16777216 bytes"), std::string::npos);
}

} // namespace

} // namespace MavixTest
