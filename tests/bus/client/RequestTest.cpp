#include "ClientBus.h"

#include "ChildProgram.h"
#include "TestScale.h"

#include <cerrno>
#include <numeric>
#include <thread>
#include <unistd.h>

// What the service received, as the service tells it.

using namespace MavixTest;
using testing::IsEmpty;

namespace {

constexpr std::size_t largestPayload = 16777216;

class RequestAtService : public ClientBusTest {
protected:
    // The one record since the latest look; the service must have found it without fault.
    nlohmann::json OnlyRecord(TCSimDriver& driver) {
        const std::vector<nlohmann::json> records = driver.WaitForRecords(1);
        EXPECT_EQ(1U, records.size());
        driver.ClearRecords();
        if (records.empty()) {
            return {};
        }
        EXPECT_TRUE(records[0].at("ok")) << records[0];
        EXPECT_EQ("/com/norvale/Object", records[0].at("path"));
        EXPECT_EQ("MethodCall", records[0].at("member"));
        EXPECT_EQ(getpid(), records[0].at("pid"));
        EXPECT_TRUE(records[0].at("pidVerified"));
        return records[0];
    }
    nlohmann::json OnlyRecord() { return OnlyRecord(m_bus.daemon); }
};

std::string Digest(const Bytes& bytes) {
    std::uint64_t digest = 0xcbf29ce484222325U;
    for (const std::uint8_t byte : bytes) {
        digest = (digest ^ byte) * 0x100000001b3U;
    }
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(digest));
    return text;
}

constexpr const char* interfaceName = "com.norvale.ITest";

TEST_F(RequestAtService, TheFirstCallOfABusHasTheProgramNameALaterOneHasNot) {
    ForgetBus();
    m_bus.daemon.ClearRecords();
    ASSERT_TRUE(Call(interfaceName, 5, {1, 2}).success);
    nlohmann::json record = OnlyRecord();
    EXPECT_EQ("iiisay", record.at("signature"));
    EXPECT_EQ(2, record.at("flags"));
    EXPECT_EQ(5, record.at("code"));
    EXPECT_EQ(program_invocation_short_name, record.at("programName"));
    EXPECT_FALSE(record.at("noReply"));

    ASSERT_TRUE(Call(interfaceName, 5, {1, 2}).success);
    record = OnlyRecord();
    EXPECT_EQ("iiiay", record.at("signature"));
    EXPECT_EQ(0, record.at("flags"));
    EXPECT_TRUE(record.at("programName").is_null());
}

TEST_F(RequestAtService, AnAsynchronousCallWantsNoReply) {
    ASSERT_TRUE(CallAsync(interfaceName, 7, {3}));
    nlohmann::json record = OnlyRecord();
    EXPECT_EQ(1, record.at("flags"));
    EXPECT_TRUE(record.at("noReply"));
    EXPECT_EQ("iiiay", record.at("signature"));

    ForgetBus();
    m_bus.daemon.ClearRecords();
    ASSERT_TRUE(CallAsync(interfaceName, 7));
    record = OnlyRecord();
    EXPECT_EQ(3, record.at("flags"));
    EXPECT_TRUE(record.at("noReply"));
    EXPECT_EQ(program_invocation_short_name, record.at("programName"));
}

TEST_F(RequestAtService, ANegativeCodeFillsTheFlags) {
    for (const short code : {short{-1}, short{-2}, short{-32768}}) {
        SCOPED_TRACE(code);
        ASSERT_TRUE(Call(interfaceName, code, {1}).success);
        nlohmann::json record = OnlyRecord();
        EXPECT_EQ(static_cast<std::uint32_t>(code), record.at("header"));
        EXPECT_EQ(static_cast<int>(code), record.at("code"));
        EXPECT_TRUE(record.at("flags").is_null());
        EXPECT_FALSE(record.at("noReply"));
        ASSERT_TRUE(CallAsync(interfaceName, code));
        record = OnlyRecord();
        EXPECT_EQ(static_cast<std::uint32_t>(code), record.at("header"));
        EXPECT_TRUE(record.at("noReply"));
    }
    ForgetBus();
    m_bus.daemon.ClearRecords();
    ASSERT_TRUE(Call(interfaceName, -1).success);
    EXPECT_EQ(program_invocation_short_name, OnlyRecord().at("programName"));
}

TEST_F(RequestAtService, PayloadsOfEverySizeArriveWholeAndComeBack) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{65537}, largestPayload}) {
        SCOPED_TRACE(size);
        Bytes payload(size);
        std::iota(payload.begin(), payload.end(), std::uint8_t{5});
        const CallResult result = Call(interfaceName, 1, payload);
        EXPECT_TRUE(result.success);
        EXPECT_EQ(size != 0, result.output.has_value());
        EXPECT_TRUE(result.output.value_or(Bytes()) == payload);
        const nlohmann::json record = OnlyRecord();
        EXPECT_EQ(size, record.at("size"));
        EXPECT_EQ(Digest(payload), record.at("digest"));
        EXPECT_EQ(size != 0 ? "iiiay" : "iii", record.at("signature"));
    }
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(RequestAtService, OneByteTooMuchNeverLeaves) {
    const CallResult result = Call(interfaceName, 1, Bytes(largestPayload + 1));
    EXPECT_FALSE(result.success);
    EXPECT_FALSE(result.output);
    EXPECT_FALSE(CallAsync(interfaceName, 1, Bytes(largestPayload + 1)));
    EXPECT_EQ(2U, m_platform.Count(6, "[API_LITE] Message exceeds allowed limit for message size "
                                      "(size: 16777217, limit: 16777216)"));
    EXPECT_EQ(2U, m_platform.Count(6, "[API_LITE] m_PrepareCall failed."));
    ASSERT_TRUE(Settle());
    EXPECT_EQ(MavixSim::testInterface, OnlyRecord().at("interface"));
}

TEST_F(RequestAtService, EachFunctionOfTheRoutingGoesToItsBus) {
    for (const RoutingRow& row : RoutingRows()) {
        for (const short code : row.codes) {
            SCOPED_TRACE(testing::Message() << row.interfaceName << ' ' << code);
            ASSERT_TRUE(Call(row.interfaceName, code).success);
            const nlohmann::json record = OnlyRecord();
            EXPECT_EQ(row.servedBy, record.at("destination"));
            EXPECT_EQ(row.interfaceName, record.at("interface"));
            EXPECT_EQ("mavix-daemon", record.at("process"));
        }
    }
}

TEST_F(RequestAtService, EverythingElseGoesToTheDefaultBus) {
    const std::pair<const char*, short> functions[] = {{"com.norvale.IAVControl", 7},
                                                       {"com.norvale.IAVControl", -8},
                                                       {"com.norvale.IUtil", 0},
                                                       {"com.norvale.INoSuchInterface", 8}};
    for (const auto& [interface, code] : functions) {
        SCOPED_TRACE(testing::Message() << interface << ' ' << code);
        ASSERT_TRUE(Call(interface, code).success);
        EXPECT_EQ(defaultBus, OnlyRecord().at("destination"));
    }
}

TEST_F(RequestAtService, SessionControlIsAnotherProcess) {
    ASSERT_TRUE(Call(sessionBus, 5).success);
    const nlohmann::json record = OnlyRecord(m_bus.lite);
    EXPECT_EQ(sessionBus, record.at("destination"));
    EXPECT_EQ("mavix-lite", record.at("process"));
    EXPECT_THAT(m_bus.daemon.Records(), IsEmpty());
    EXPECT_EQ(1U, m_platform.CountCalls("resource_set_cpu_inheritance(0, mavix-lite, 1999)"));
    EXPECT_EQ(1U, m_platform.CountCalls("resource_clear_cpu_inheritance(0, mavix-lite)"));
}

TEST_F(RequestAtService, FiveFunctionsCarryTheTimeOfSending) {
    const struct {
        const char* interface;
        short code;
        bool timestamp;
    } rows[] = {
        {"com.norvale.IAVControl", 66, true},    {"com.norvale.IAVControl", 73, true},
        {"com.norvale.IVideoControl", 46, true}, {"com.norvale.IVideoControl", 60, true},
        {"com.norvale.IVideoControl", 81, true}, {"com.norvale.IAVControl", 67, false},
        {"com.norvale.ITest", 66, false},
    };
    for (const auto& row : rows) {
        for (const bool async : {false, true}) {
            SCOPED_TRACE(testing::Message() << row.interface << ' ' << row.code << " async " << async);
            ASSERT_TRUE(async ? CallAsync(row.interface, row.code) : Call(row.interface, row.code).success);
            const nlohmann::json record = OnlyRecord();
            EXPECT_EQ(row.timestamp, record.at("timestampSent").is_number());
            EXPECT_EQ(row.timestamp, (record.at("flags").get<int>() & 4) != 0);
        }
    }
}

// Calls the bus of the test that runs it.
MAVIX_CHILD(CallInDebug) {
    const bool first = Call(interfaceName, 1, {1}).success;
    const bool second = Call(interfaceName, 1, {1}).success;
    // The answer to the last call says that the service has had all of them.
    return first && second && CallAsync(interfaceName, 1) && Call(interfaceName, -1).success ? 0 : 1;
}

TEST_F(RequestAtService, InDebugEverySynchronousCallCarriesItsTime) {
    if (!CanChooseFlavour()) {
        GTEST_SKIP() << noFlavourReason;
    }
    const ChildResult result = RunChildProgram("CallInDebug", debugFlavour);
    ASSERT_EQ(0, result.exitCode) << result.errors;
    const std::vector<nlohmann::json> records = Records(4);
    ASSERT_EQ(4U, records.size());
    const char* const signatures[] = {"iiisayiay", "iiiayiay", "iii", "iiiiay"};
    for (std::size_t at = 0; at < records.size(); ++at) {
        SCOPED_TRACE(records[at]);
        EXPECT_TRUE(records[at].at("ok"));
        EXPECT_EQ(signatures[at], records[at].at("signature"));
        EXPECT_EQ(at != 2, records[at].at("timestampSent").is_number());
    }
    EXPECT_EQ(6, records[0].at("flags"));
    EXPECT_EQ(4, records[1].at("flags"));
    EXPECT_EQ(1, records[2].at("flags"));
}

TEST_F(RequestAtService, CallsOfManyThreadsArriveWithoutFault) {
    ForgetBus();
    m_bus.daemon.ClearRecords();
    constexpr unsigned int threadCount = 8;
    const unsigned int callCount = Scaled(200);
    std::vector<std::thread> threads;
    for (unsigned int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([thread, callCount] {
            for (unsigned int at = 0; at < callCount; ++at) {
                const Bytes payload = IntBytes(static_cast<int>(thread * callCount + at));
                const CallResult result = Call(interfaceName, 1, payload);
                EXPECT_TRUE(result.success);
                EXPECT_EQ(payload, result.output);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::vector<nlohmann::json> records = Records(threadCount * callCount);
    EXPECT_EQ(threadCount * callCount, records.size());
    int greetings = 0;
    for (const nlohmann::json& record : records) {
        EXPECT_TRUE(record.at("ok")) << record;
        greetings += record.at("programName").is_null() ? 0 : 1;
    }
    EXPECT_EQ(1, greetings);
}

} // namespace
