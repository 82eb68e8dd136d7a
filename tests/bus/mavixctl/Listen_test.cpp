#include "ControlBus.h"

#include "sim/EventTypes.h"

namespace MavixTest {

namespace {

using nlohmann::json;

class ControlListen : public ControlBus {
protected:
    // Returns when its rules are in force.
    static std::unique_ptr<TCControlProgram> Listen(Words arguments) {
        arguments.insert(arguments.begin(), "listen");
        auto program = std::make_unique<TCControlProgram>(arguments);
        EXPECT_TRUE(program->AwaitErrors("listening")) << program->Errors();
        return program;
    }
};

TEST_F(ControlListen, PrintsEveryTypeOfEvent) {
    const auto text = Listen({"all", "--count", "14"});
    const auto objects = Listen({"all", "--count", "14", "--json"});
    for (int type = 0; type < 14; ++type)
        m_daemon.Emit(type, 100 + type, {1, 2, static_cast<std::uint8_t>(type)});
    const ControlResult lines = text->Wait();
    EXPECT_EQ(lines.status, 0) << lines.errors;
    EXPECT_EQ(lines.errors, "mavixctl: listening\n");
    const ControlResult result = objects->Wait();
    EXPECT_EQ(result.status, 0);
    const std::vector<json> events = result.Objects();
    ASSERT_EQ(events.size(), 14u);
    for (std::size_t type = 0; type < events.size(); ++type) {
        const char* name = MavixSim::eventTypes[type].member;
        char line[128];
        std::snprintf(line, sizeof line, " %s id %zu, 3 bytes\n  00000000  01 02 %02zx ", name, 100 + type,
                      type);
        EXPECT_NE(lines.output.find(line), std::string::npos) << line << lines.output;
        EXPECT_EQ(events[type].at("type"), name);
        EXPECT_EQ(events[type].at("number"), type);
        EXPECT_EQ(events[type].at("id"), 100 + type);
        EXPECT_EQ(events[type].at("size"), 3);
        EXPECT_EQ(events[type].at("payload"), (std::string("01020") + "0123456789abcd"[type]));
        EXPECT_EQ(events[type].at("time").get<std::string>().size(),
                  std::string("2000-01-01T00:00:00.000Z").size());
    }
}

struct Emitted {
    int type;
    int id;
    EventTarget target;
};

struct FilterRow {
    Words arguments;
    std::vector<int> ids;
    // What ends the row; it comes behind all others.
    Emitted last;
};

TEST_F(ControlListen, TakesTheEventsThatWereAskedFor) {
    const EventTarget handle{1, 2, ""};
    const Emitted all[] = {{2, 1, {}}, {2, 2, {}}, {2, 2, handle}, {2, 3, handle}, {3, 4, {}}, {3, -5, {}}};
    const FilterRow rows[] = {
        {{"Data"}, {1, 2, 2, 3}, {2, 9, {}}},
        {{"2"}, {1, 2, 2, 3}, {2, 9, {}}},
        {{"Data", "3"}, {1, 2, 2, 3, 4, -5}, {3, 9, {}}},
        {{"Data", "--id", "2"}, {2, 2}, {2, 2, {}}},
        {{"--handle", "1,2", "Data"}, {2, 3}, {2, 9, handle}},
        {{"--id", "2", "--handle", "0x1,2", "Data"}, {2}, {2, 2, handle}},
        {{"Program", "--id", "-5"}, {-5}, {3, -5, {}}},
        {{"Section"}, {}, {4, 9, {}}},
    };
    for (const FilterRow& row : rows) {
        Words arguments = row.arguments;
        arguments.insert(arguments.end(), {"--json", "--count", std::to_string(row.ids.size() + 1)});
        const auto program = Listen(arguments);
        for (const Emitted& event : all)
            m_daemon.Emit(event.type, event.id, {}, event.target);
        m_daemon.Emit(row.last.type, row.last.id, {0xFF}, row.last.target);
        const ControlResult result = program->Wait();
        EXPECT_EQ(result.status, 0) << result.errors;
        const std::vector<json> events = result.Objects();
        ASSERT_EQ(events.size(), row.ids.size() + 1) << testing::PrintToString(row.arguments);
        EXPECT_EQ(events.back().at("payload"), "ff") << testing::PrintToString(row.arguments);
        for (std::size_t i = 0; i < row.ids.size(); ++i)
            EXPECT_EQ(events[i].at("id"), row.ids[i]) << testing::PrintToString(row.arguments);
    }
}

TEST_F(ControlListen, DecodesPayloads) {
    const auto text = Listen({"Data", "--count", "1", "--decode", "s,strz"});
    const auto hex = Listen({"Data", "--count", "1", "--hex"});
    const auto objects = Listen({"Data", "--count", "1", "--decode", "s,strz", "--json"});
    m_daemon.Emit(2, 1, {5, 0, 'a', 'b', 0});
    const ControlResult lines = text->Wait();
    EXPECT_EQ(lines.status, 0);
    EXPECT_NE(lines.output.find("\n  s     5\n  strz  \"ab\"\n"), std::string::npos) << lines.output;
    EXPECT_NE(hex->Wait().output.find("\n  0500616200\n"), std::string::npos);
    EXPECT_EQ(objects->Wait().Object().at("values"), json({5, "ab"}));
}

TEST_F(ControlListen, APayloadThatEndsTooEarlyIsAFailedCheckAndNotTheEnd) {
    const auto program = Listen({"Data", "--count", "2", "--decode", "i", "--json"});
    m_daemon.Emit(2, 1, {1});
    m_daemon.Emit(2, 2, {1, 0, 0, 0});
    const ControlResult result = program->Wait();
    EXPECT_EQ(result.status, 1);
    ASSERT_EQ(result.Objects().size(), 2u);
    EXPECT_EQ(result.Objects()[0].at("complaint"),
              "the payload ends within value 1 (i), 1 bytes before its end");
    EXPECT_EQ(result.Objects()[1].at("values"), json::array({1}));
}

TEST_F(ControlListen, EndsAfterItsTime) {
    EXPECT_EQ(RunControl({"listen", "Data", "--timeout", "0.05"}).status, 0);
    const ControlResult result = RunControl({"listen", "Data", "--timeout", "0.05", "--count", "2"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "mavixctl: listening\nmavixctl: 0 of 2 events came in 0.05 s\n");
}

TEST_F(ControlListen, PrintsEachEventWhenItComes) {
    const auto program = Listen({"Data"});
    m_daemon.Emit(2, 1, {});
    EXPECT_TRUE(program->AwaitOutput("Data id 1, 0 bytes\n"));
    m_daemon.Emit(2, 2, {});
    EXPECT_TRUE(program->AwaitOutput("Data id 2, 0 bytes\n"));
    program->Signal(SIGINT);
    EXPECT_EQ(program->Wait().status, 128 + SIGINT);
}

TEST_F(ControlListen, EndsWhenItsOutputCannotBeWritten) {
    TCControlProgram program({"listen", "Data"}, TCControlProgram::Options::Behind("exec \"$@\" >/dev/full"));
    ASSERT_TRUE(program.AwaitErrors("listening"));
    m_daemon.Emit(2, 1, {});
    const ControlResult result = program.Wait();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "mavixctl: listening\nmavixctl: standard output cannot be written\n");
}

TEST_F(ControlListen, SaysThatTheBusHasGone) {
    const auto program = Listen({"all"});
    m_bus.Kill();
    const ControlResult result = program->Wait();
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.errors, "mavixctl: listening\nmavixctl: the bus has gone away\n");
}

TEST_F(ControlListen, GoesOnWhenTheServiceIsStartedAnew) {
    const auto program = Listen({"Data", "--count", "1"});
    m_service.KillDaemon();
    ASSERT_TRUE(m_service.WaitReady());
    m_daemon.Emit(2, 1, {});
    EXPECT_EQ(program->Wait().status, 0);
}

TEST_F(ControlListen, SaysThatTheServiceDoesNotRunAndListens) {
    m_daemon.DropName("com.norvale.MavixAPI");
    const auto program = Listen({"Data", "--count", "1"});
    m_daemon.Emit(2, 1, {});
    const ControlResult result = program->Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "mavixctl: listening; the service does not run\n");
}

TEST_F(ControlListen, TellsWhyTheLibraryStopsIt) {
    const auto program = Listen({"Data"});
    m_daemon.EmitRaw("int-id", 2, "1", {});
    const ControlResult result = program->Wait();
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.errors.find("\nmavixctl: the library stops the program: MAVIX Assertion failed ["),
              std::string::npos)
        << result.errors;
}

} // namespace

} // namespace MavixTest
