#include "ScenarioFixture.h"

#include "ChildProcess.h"

#include <filesystem>
#include <iterator>
#include <set>

// The scenarios that are shipped, with the program that shows the first steps.

namespace MavixTest {

namespace {

struct ReadyRow {
    const char* scenario;
    const char* command; // $0 is the program
    int status;
    std::string output;
};

const std::vector<ReadyRow>& ReadyRows() {
    static const std::string answer = "the service answered: hello\n";
    static const std::vector<ReadyRow> rows{
        {"first-fails-then-works", "$0; $0 || $0", 0, answer},
        {"slow-service", "$0", 0, answer},
        {"service-restarts", "$0 || $0 && $0", 0, answer + answer},
        {"flood", "$0 && $0", 0, answer + answer},
        {"refuses-session", "$0", 0, answer},
        {"ticks", "$0", 0, answer},
        {"expectations", "$0", 0, "the service answered: welcome\n"},
        {"expectations", "true", 124, ""},
        {"expectations", "$0; $0", 124, "the service answered: welcome\nthe service answered: welcome\n"},
    };
    return rows;
}

TEST(ReadyScenarios, DoWithTheFirstProgramWhatTheySay) {
    for (const ReadyRow& row : ReadyRows()) {
        SCOPED_TRACE(std::string(row.scenario) + ": " + row.command);
        MavixTools::ChildOptions options;
        options.program = MAVIX_TEST_SANDBOX;
        options.arguments = {std::string("--scenario=") + MAVIX_TEST_SCENARIOS + "/" + row.scenario + ".json",
                             "--",
                             "sh",
                             "-c",
                             row.command,
                             MAVIX_TEST_HELLO};
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        MavixTools::TCChildProcess sandbox(options);
        EXPECT_EQ(row.status, MavixTools::ShellStatus(*sandbox.Wait()));
        EXPECT_EQ(row.output, testing::internal::GetCapturedStdout());
        const std::string errors = testing::internal::GetCapturedStderr();
        EXPECT_EQ(row.status == 124,
                  errors.find("the scenario's expectations were not met:\n") != std::string::npos)
            << errors;
    }
}

TEST(ReadyScenarios, AreAllInTheTableAndInTheirReadme) {
    std::set<std::string> tried;
    for (const ReadyRow& row : ReadyRows()) {
        tried.insert(std::string(row.scenario) + ".json");
    }
    std::ifstream file(std::string(MAVIX_TEST_SCENARIOS) + "/README.md");
    const std::string readme{std::istreambuf_iterator<char>(file), {}};
    for (const auto& entry : std::filesystem::directory_iterator(MAVIX_TEST_SCENARIOS)) {
        const std::string name = entry.path().filename();
        if (entry.path().extension() == ".json") {
            EXPECT_EQ(1U, tried.erase(name)) << name;
            EXPECT_NE(std::string::npos, readme.find("| `" + name + "` |")) << name;
        }
    }
    EXPECT_EQ(std::set<std::string>(), tried);
}

using ReadyScenario = TCScenarioFixture;

std::string Text(const char* scenario) {
    std::ifstream file(std::string(MAVIX_TEST_SCENARIOS) + "/" + scenario + ".json");
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST_F(ReadyScenario, RefusesSessionRefusesTheFirstOpen) {
    Play(Text("refuses-session"));
    EXPECT_EQ(IntBytes(-1), Answer(0, {}, "com.norvale.ISessionControl"));
    EXPECT_EQ(IntBytes(0), Answer(0, {}, "com.norvale.ISessionControl"));
}

TEST_F(ReadyScenario, TicksTicks) {
    SubscribeToEvents();
    Play(Text("ticks"));
    for (int event = 0; event < 3; ++event) {
        EXPECT_EQ((Bytes{4, 0, 0, 0, 't', 'i', 'c', 'k'}), m_client.NextEvent().value().payload);
    }
}

TEST_F(ReadyScenario, FloodFloodsItsFirstCaller) {
    Play(Text("flood"));
    SubscribeToEvents();
    TCRawClient other(m_bus.Address());
    other.Subscribe("type='signal',interface='com.norvale.Mavix.SignalIFace'");
    Answer(3, {}, "com.norvale.IAVControl");
    for (int event = 0; event < 10001; ++event) {
        ASSERT_TRUE(m_client.NextEvent()) << event;
    }
    EXPECT_FALSE(other.NextEvent(std::chrono::milliseconds(100))) << "others get none";
}

} // namespace

} // namespace MavixTest
