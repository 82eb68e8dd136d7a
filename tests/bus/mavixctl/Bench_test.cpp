#include "ControlBus.h"

#include <regex>

namespace MavixTest {

namespace {

using nlohmann::json;

const char* const interface = "com.norvale.IAVControl";

class ControlBench : public ControlBus {};

TEST_F(ControlBench, PrintsRateQuantilesAndHistogram) {
    const ControlResult result =
        RunControl({"bench", interface, "66", "--seconds", "0.2", "--size", "100", "--threads", "2"});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.errors, "");
    const std::regex expected("com\\.norvale\\.IAVControl 66 at com\\.norvale\\.MavixAPI\\.HyperFast, 100 "
                              "bytes, 2 threads, 0\\.\\d+ s\n"
                              "calls     [1-9]\\d*, 0 failed\n"
                              "rate      [1-9]\\d* calls a second, \\d+\\.\\d\\d MB/s each way\n"
                              "least     [\\d.]+ us\n"
                              "median    [\\d.]+ us\n"
                              "90 %      [\\d.]+ us\n"
                              "99 %      [\\d.]+ us\n"
                              "99\\.9 %    [\\d.]+ us\n"
                              "most      [\\d.]+ us\n"
                              "    up to us      calls\n"
                              "( +[\\d.]+ +\\d+(  #{1,40})?\n)+");
    EXPECT_TRUE(std::regex_match(result.output, expected)) << result.output;
}

TEST_F(ControlBench, GivesTheSameAsAnObject) {
    const json object =
        RunControl({"bench", interface, "1", "--seconds", "0.2", "--size", "10", "--threads", "3", "--json"})
            .Object();
    EXPECT_EQ(object.at("interface"), interface);
    EXPECT_EQ(object.at("code"), 1);
    EXPECT_EQ(object.at("bus"), "com.norvale.MavixAPI");
    EXPECT_EQ(object.at("size"), 10);
    EXPECT_EQ(object.at("threads"), 3);
    EXPECT_EQ(object.at("failed"), 0);
    EXPECT_GE(object.at("seconds"), 0.2);
    const std::uint64_t calls = object.at("calls");
    EXPECT_GE(calls, 3u);
    EXPECT_NEAR(object.at("callsPerSecond"), static_cast<double>(calls) / object.at("seconds").get<double>(),
                1);
    std::uint64_t counted = 0;
    double end = 0;
    for (const json& bucket : object.at("histogram")) {
        EXPECT_TRUE(end == 0 || bucket.at("from") == end);
        end = bucket.at("to");
        counted += bucket.at("calls").get<std::uint64_t>();
    }
    EXPECT_EQ(counted, calls);
    const json& times = object.at("microseconds");
    double last = 0;
    for (const char* name : {"least", "median", "p90", "p99", "p99.9", "most"}) {
        EXPECT_GE(times.at(name), last) << name;
        last = times.at(name);
    }
    EXPECT_LE(last, end);
    EXPECT_GE(times.at("mean"), times.at("least"));
    EXPECT_LE(times.at("mean"), times.at("most"));
    // One call more, which is not measured, finds the service.
    EXPECT_EQ(m_daemon.Stats().at("calls"), calls + 1);
    EXPECT_EQ(m_daemon.Stats().at("payloadBytes"), calls * 10);
}

TEST_F(ControlBench, MeasuresTheServicesTime) {
    m_daemon.SetDelay(std::chrono::milliseconds(20));
    const json object = RunControl({"bench", interface, "1", "--seconds", "0.2", "--json"}).Object();
    EXPECT_GE(object.at("microseconds").at("least"), 20'000);
    EXPECT_GE(object.at("microseconds").at("median"), 20'000);
    EXPECT_LE(object.at("calls"), 11);
}

TEST_F(ControlBench, BeginsOnlyWithAServiceThatAnswers) {
    m_daemon.SetReply(interface, 1, MavixSim::Behaviour::Error);
    const ControlResult result = RunControl({"bench", interface, "1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors,
              "mavixctl: com.norvale.IAVControl 1 failed: com.norvale.Error.Refused: Refused on request.\n");
    m_daemon.DropName("com.norvale.MavixAPI");
    EXPECT_EQ(RunControl({"bench", interface, "1", "--wait", "0.01"}).status, 3);
}

TEST_F(ControlBench, CountsFailures) {
    TCControlProgram program({"bench", interface, "1", "--seconds", "3", "--json"});
    ASSERT_GE(m_daemon.WaitForRecords(20).size(), 20u);
    m_daemon.SetReply(interface, 1, MavixSim::Behaviour::Error);
    const ControlResult result = program.Wait();
    EXPECT_EQ(result.status, 1);
    EXPECT_GT(result.Object().at("failed"), 0);
    EXPECT_LT(result.Object().at("failed"), result.Object().at("calls"));
    EXPECT_NE(result.errors.find("calls failed, first: com.norvale.Error.Refused: Refused on request.\n"),
              std::string::npos)
        << result.errors;
}

TEST_F(ControlBench, SaysThatItGetsNoMoreThreads) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers need more memory than the limit leaves";
#endif
    // Room for a few threads of half a gigabyte, of which none is used.
    const ControlResult result =
        RunControl({"bench", interface, "1", "--threads", "64", "--seconds", "1000"},
                   TCControlProgram::Options::Behind("ulimit -s 524288; ulimit -v 4194304; exec \"$@\""));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_TRUE(std::regex_match(
        result.errors,
        std::regex("mavixctl: --threads: thread [2-8] of 64 cannot be started: Resource temporarily "
                   "unavailable\n")))
        << result.errors;
}

TEST_F(ControlBench, EndsWithTheBus) {
    TCControlProgram program({"bench", interface, "1", "--seconds", "1000"});
    ASSERT_GE(m_daemon.WaitForRecords(20).size(), 20u);
    m_bus.Kill();
    const ControlResult result = program.Wait();
    EXPECT_EQ(result.status, 3);
    EXPECT_NE(result.errors.find("mavixctl: the bus has gone away\n"), std::string::npos) << result.errors;
}

} // namespace

} // namespace MavixTest
