#include "ControlBus.h"

namespace MavixTest {

namespace {

using nlohmann::json;

const char* const interface = "com.norvale.ISessionControl";

Words Session(Words arguments, bool asJson = false) {
    arguments.insert(arguments.begin(), "session");
    if (asJson)
        arguments.emplace_back("--json");
    return arguments;
}

class ControlSession : public ControlBus {
protected:
    json Sessions() { return m_lite.Stats().at("sessions"); }
};

TEST_F(ControlSession, KeepsASessionUntilInterrupted) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        m_lite.ClearRecords();
        TCControlProgram program(Session({"open"}));
        ASSERT_TRUE(program.AwaitOutput("open: done\n")) << program.Errors();
        EXPECT_EQ(Sessions().at("open"), 1);
        program.Signal(signal);
        const ControlResult result = program.Wait();
        EXPECT_EQ(result.status, 0) << result.errors;
        EXPECT_EQ(result.output, "open: done\nclose: done\n");
        EXPECT_EQ(Sessions().at("closed"), 1);
        EXPECT_EQ(Sessions().at("vanished"), 0);
    }
}

TEST_F(ControlSession, KeepsASessionForATime) {
    const ControlResult result = RunControl(Session({"open", "--hold", "0.01"}, true));
    EXPECT_EQ(result.status, 0) << result.errors;
    ASSERT_EQ(result.Objects().size(), 2u);
    EXPECT_EQ(result.Objects()[0], (json{{"operation", "open"}, {"result", 0}, {"ok", true}}));
    EXPECT_EQ(result.Objects()[1], (json{{"operation", "close"}, {"result", 0}, {"ok", true}}));
    EXPECT_EQ(Sessions().at("opened"), 1);
    EXPECT_EQ(Sessions().at("closed"), 1);
}

TEST_F(ControlSession, AClosedBusEndsAHeldSession) {
    TCControlProgram program(Session({"open"}));
    ASSERT_TRUE(program.AwaitOutput("open: done\n"));
    m_bus.Kill();
    const ControlResult result = program.Wait();
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.errors, "mavixctl: the bus has gone away\n");
}

TEST_F(ControlSession, ABusThatGoesAwayIsToldByEveryCommand) {
    const std::pair<const char*, std::int16_t> rows[] = {
        {"open", 0}, {"close", 1}, {"dump", 2}, {"terminated", 5}};
    std::vector<std::unique_ptr<TCControlProgram>> programs;
    for (const auto& [command, code] : rows) {
        m_lite.SetReply(interface, code, MavixSim::Behaviour::Never);
        programs.push_back(std::make_unique<TCControlProgram>(Session({command}, true)));
    }
    ASSERT_EQ(m_lite.WaitForRecords(std::size(rows)).size(), std::size(rows));
    m_bus.Kill();
    for (const auto& program : programs) {
        const ControlResult result = program->Wait();
        EXPECT_EQ(result.status, 3) << result.output;
        EXPECT_NE(result.errors.find("mavixctl: the bus has gone away\n"), std::string::npos)
            << result.errors;
        EXPECT_EQ(result.Object().at("ok"), false);
    }
}

TEST_F(ControlSession, TellsWhatTheServiceAnswersToANeedlessClose) {
    const ControlResult text = RunControl(Session({"close"}));
    EXPECT_EQ(text.status, 1);
    EXPECT_EQ(text.output, "");
    EXPECT_EQ(text.errors, "mavixctl: close failed: the service answered 1\n");
    const ControlResult object = RunControl(Session({"close"}, true));
    EXPECT_EQ(object.status, 1);
    EXPECT_EQ(object.Object(), (json{{"operation", "close"}, {"result", 1}, {"ok", false}}));
    EXPECT_EQ(Sessions().at("needlessCloses"), 2);

    m_lite.SetReply(interface, 1, MavixSim::Behaviour::Echo, {0, 0, 0, 0});
    EXPECT_EQ(RunControl(Session({"close"})).output, "close: done\n");
}

TEST_F(ControlSession, TellsThatTheServiceItselfAnsweredMinusOne) {
    const TCSimDriver::Bytes minusOne(4, 0xff);
    m_lite.SetReply(interface, 0, MavixSim::Behaviour::Echo, minusOne);
    EXPECT_EQ(RunControl(Session({"open"})).errors, "mavixctl: open failed: the service answered -1\n");
    m_lite.ClearReplies();
    m_lite.SetReply(interface, 1, MavixSim::Behaviour::Echo, minusOne);
    EXPECT_EQ(RunControl(Session({"open", "--hold", "0"})).errors,
              "mavixctl: close failed: the service answered -1\n");
    const ControlResult directly = RunControl(Session({"close"}));
    EXPECT_EQ(directly.errors, "mavixctl: close failed: the service answered -1\n");
    EXPECT_EQ(directly.status, 1);
}

TEST_F(ControlSession, PrintsTheServicesText) {
    EXPECT_EQ(RunControl(Session({"dump"})).output, "no clients\n");
    TCControlProgram program(Session({"open"}));
    ASSERT_TRUE(program.AwaitOutput("open: done\n"));
    const ControlResult text = RunControl(Session({"dump"}));
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.output.find(": session open\n"), std::string::npos) << text.output;
    const json object = RunControl(Session({"dump"}, true)).Object();
    EXPECT_EQ(object.at("result"), 0);
    EXPECT_EQ(object.at("text"), text.output);
}

TEST_F(ControlSession, AsksWhetherTheServiceIsTerminated) {
    EXPECT_EQ(RunControl(Session({"terminated"})).output, "not terminated\n");
    EXPECT_EQ(RunControl(Session({"terminated"}, true)).Object().at("terminated"), false);
    m_lite.SetReply(interface, 5, MavixSim::Behaviour::Echo, {0, 0, 0, 0, 1, 0, 0, 0});
    const ControlResult text = RunControl(Session({"terminated"}));
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(text.output, "terminated\n");
    EXPECT_EQ(RunControl(Session({"terminated"}, true)).Object().at("terminated"), true);
}

TEST_F(ControlSession, KeepsATrace) {
    TCControlProgram program(Session({"trace", "-7", "--info", "my test", "--param", "0x10"}));
    ASSERT_TRUE(program.AwaitOutput("open trace: done\n")) << program.Errors();
    ASSERT_EQ(m_lite.WaitForRecords(1).size(), 1u);
    EXPECT_NE(RunControl(Session({"dump"})).output.find("  trace -7, parameter 16\n    my test\n"),
              std::string::npos);
    program.Signal(SIGINT);
    const ControlResult result = program.Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "open trace: done\nclose trace: done\n");
    const std::vector<json> objects = RunControl(Session({"trace", "8", "--hold", "0"}, true)).Objects();
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(objects[0].at("operation"), "open trace");
    EXPECT_EQ(objects[1], (json{{"operation", "close trace"}, {"result", 0}, {"ok", true}}));
}

TEST_F(ControlSession, TellsWhyTheServiceRefused) {
    const std::pair<Words, std::int16_t> rows[] = {
        {{"open"}, 0}, {{"close"}, 1}, {{"dump"}, 2}, {{"terminated"}, 5}};
    for (const auto& [words, code] : rows) {
        m_lite.SetReply(interface, code, MavixSim::Behaviour::Error);
        const ControlResult text = RunControl(Session(words));
        EXPECT_EQ(text.status, 1) << words[0];
        EXPECT_EQ(text.output, "") << words[0];
        EXPECT_EQ(text.errors,
                  "mavixctl: " + words[0] + " failed: com.norvale.Error.Refused: Refused on request.\n");
        const ControlResult object = RunControl(Session(words, true));
        EXPECT_EQ(object.status, 1) << words[0];
        EXPECT_EQ(object.Object(), (json{{"operation", words[0]}, {"result", -1}, {"ok", false}}));
    }
}

TEST_F(ControlSession, NeedsTheServicesName) {
    m_lite.DropName(interface);
    for (const char* command : {"open", "close", "dump", "terminated"}) {
        const ControlResult result = RunControl(Session({command}));
        EXPECT_EQ(result.status, 3) << command;
        EXPECT_EQ(result.errors,
                  "mavixctl: com.norvale.ISessionControl has no owner: the service does not run\n");
    }
    TCControlProgram waiting(Session({"dump", "--wait", "40"}));
    m_lite.TakeName(interface);
    EXPECT_EQ(waiting.Wait().status, 0);
}

} // namespace

} // namespace MavixTest
