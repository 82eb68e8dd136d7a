#include "ClientBus.h"

#include "FlavourFixture.h"

#include <future>

// The long waits. Each runs in a child program with a bus of its own, so that all can run side by side.

using namespace MavixTest;
using MavixSim::Behaviour;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr const char* timeout =
    "[API_LITE][END] TIMEOUT, Cannot connect to the com.norvale.MavixAPI bus name";
constexpr milliseconds childLimit = seconds(150);

template <class Body>
milliseconds TimeOf(const Body& body) {
    const auto start = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
}

// Argument: the seconds that the wait is to take.
int ExitCodeFor(milliseconds duration, const std::vector<std::string>& arguments) {
    const seconds expected(std::stoi(arguments.at(0)));
    std::printf("took %lld ms\n", static_cast<long long>(duration.count()));
    return duration >= expected && duration < expected + seconds(15) ? 0 : 1;
}

MAVIX_CHILD(CallWithoutTheService) {
    const TCPrivateBus bus;
    bool success = true;
    const milliseconds duration = TimeOf([&success] {
        std::future<bool> oversized = std::async(
            std::launch::async, [] { return Call("com.norvale.ITest", 1, Bytes(16777217)).success; });
        std::future<bool> async =
            std::async(std::launch::async, [] { return CallAsync("com.norvale.ITest", 1); });
        const CallResult result = Call("com.norvale.ITest", 1, {1});
        success = result.success || result.output || oversized.get() || async.get();
    });
    return success ? 2 : ExitCodeFor(duration, arguments);
}

using AbsentService = FlavourFixture;

void ExpectNobodyFoundTheService(const ChildResult& result) {
    EXPECT_EQ(0, result.exitCode) << result.output << result.errors;
    EXPECT_EQ(3U, result.CountLines(6, timeout));
    EXPECT_EQ(3U, result.CountLines(6, "[API_LITE] Bus not owned"));
    EXPECT_EQ(3U, result.CountLines(6, "[API_LITE] m_PrepareCall failed."));
    EXPECT_EQ(std::string::npos, result.errors.find("[API_LITE] Message exceeds"));
    EXPECT_THAT(result.errors, testing::ContainsRegex(
                                   R"(3\|MAVIX_API\|DbusBusWrapper: WaitForCreate\|\[API_LITE\] Waiting )"
                                   R"(for connection, duration: [0-9]+ms, busName: com\.norvale\.MavixAPI)"));
}

TEST_F(AbsentService, FailsEveryCallAfter25Seconds) {
    ExpectNobodyFoundTheService(RunChildProgram("CallWithoutTheService", plainFlavour, {"25"}, childLimit));
}

TEST_F(AbsentService, InDebugFailsEveryCallAfter50Seconds) {
    ExpectNobodyFoundTheService(RunChildProgram("CallWithoutTheService", debugFlavour, {"50"}, childLimit));
}

MAVIX_CHILD(CallThatIsNeverAnswered) {
    ServiceBus bus;
    bool success = !Settle();
    const milliseconds duration = TimeOf([&success] {
        const CallResult result = Call(Behaviour::Never);
        success = success || result.success || result.output;
    });
    return !success && Settle() ? ExitCodeFor(duration, arguments) : 2;
}

TEST(SilentService, FailsTheCallAfter25SecondsAndServesTheNext) {
    const ChildResult result = RunChildProgram("CallThatIsNeverAnswered", plainFlavour, {"25"}, childLimit);
    EXPECT_EQ(0, result.exitCode) << result.output << result.errors;
    const bool replied = ClientRow().timeoutIsAReply;
    const std::size_t failed = replied ? 0 : 1;
    EXPECT_EQ(failed, result.CountLines(6, "[API_LITE] send_message_with_reply failed!"));
    EXPECT_EQ(failed, result.CountLines(6, "[API_LITE] 'Timeout was reached'"));
    EXPECT_EQ(failed, result.CountLines(6, "[API_LITE] Cannot create reply message. Out of memory."));
    EXPECT_EQ(1 - failed, result.CountLines(6, "[IPC][Error name: org.freedesktop.DBus.Error.NoReply]"));
}

MAVIX_CHILD(CallAfterTheBusHasDied) {
    ServiceBus bus;
    if (!Settle()) {
        return 2;
    }
    bus.bus.Kill();
    // Of a bus name that is known: at once, there is no new connection.
    const milliseconds known = TimeOf([] { EXPECT_FALSE(Settle()); });
    if (known > seconds(5)) {
        return 3;
    }
    bool success = true;
    const milliseconds unknown = TimeOf([&success] { success = Call(sessionBus, 1).success; });
    return success ? 4 : ExitCodeFor(unknown, arguments);
}

TEST(DeadBus, IsNotConnectedToAgainAndABusNameThatWasNotKnownIsWaitedFor) {
    const ChildResult result = RunChildProgram("CallAfterTheBusHasDied", plainFlavour, {"25"}, childLimit);
    EXPECT_EQ(0, result.exitCode) << result.output << result.errors;
    EXPECT_EQ(1U, result.CountLines(6, "[API_LITE][END] TIMEOUT, Cannot connect to the "
                                       "com.norvale.ISessionControl bus name"));
    EXPECT_EQ(1U, result.CountLines(6, "[API_LITE] Bus not owned"));
}

} // namespace
