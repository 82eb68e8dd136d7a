#include "Await.h"
#include "ChildProgram.h"
#include "IPCConnection_C.h"
#include "PrivateBus.h"
#include "SessionControl_C.h"
#include "SimDriver.h"
#include "SimProcess.h"
#include "TestScale.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

// Processes that exit at a random moment of the client's life.

using namespace MavixTest;
using std::chrono::milliseconds;

namespace {

constexpr int exitStatus = 17;
constexpr const char* interfaceName = "com.norvale.ISimTest";
constexpr short echo = 0;
constexpr short delay = 1;
constexpr short never = 6;

enum class Caller { None, Synchronous, Asynchronous, NeverAnswered, Session };
constexpr unsigned int callerCount = 5;

long long MillisecondsNow() {
    return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void CallWithoutEnd(Caller caller) {
    do {
        void* output = nullptr;
        unsigned int length = 0;
        if (caller == Caller::Asynchronous) {
            IPCConnection__CallAsync(interfaceName, echo, "async", 5);
        } else if (caller == Caller::Session) {
            SessionControl__Open();
            SessionControl__Close();
        } else {
            IPCConnection__Call(interfaceName, caller == Caller::NeverAnswered ? never : echo, "sync", 4,
                                &output, &length);
            IPCConnection__CallDisposeOutputBuffer(output);
        }
    } while (true);
}

} // namespace

// Arguments: caller, "main" or "thread", microseconds until the exit.
MAVIX_CHILD(ExitAtAMoment) {
    const auto caller = static_cast<Caller>(std::stoi(arguments.at(0)));
    const bool fromThread = arguments.at(1) == "thread";
    const auto wait = std::chrono::microseconds(std::stol(arguments.at(2)));
    IPCConnection__Create();
    for (int at = 0; at < 2 && caller != Caller::None; ++at) {
        std::thread(CallWithoutEnd, caller).detach();
    }
    std::this_thread::sleep_for(wait);
    // From here on time counts.
    std::printf("%lld\n", MillisecondsNow());
    std::fflush(stdout);
    if (!fromThread) {
        return exitStatus;
    }
    std::thread([] { std::exit(exitStatus); }).detach();
    for (;;) {
        pause();
    }
}

TEST(Exit, AtAnyMomentNeitherCrashesNorTakesMoreThanASecond) {
    const TCPrivateBus bus;
    const TCSimProcess service(bus);
    const unsigned int count = Scaled(1000);
    std::atomic<unsigned int> next{0};
    std::atomic<unsigned int> ran{0};
    const auto work = [&](unsigned int seed) {
        std::mt19937 random(seed);
        for (unsigned int at = next++; at < count; at = next++) {
            // Short delays are the interesting ones: the client is still connecting.
            const long longest = at % 3 == 0 ? 2000 : 30000;
            const std::string caller = std::to_string(at % callerCount);
            const std::string from = (at / callerCount) % 2 == 0 ? "main" : "thread";
            const std::string wait = std::to_string(std::uniform_int_distribution<long>(0, longest)(random));
            const ChildResult result = RunChildProgram("ExitAtAMoment", plainFlavour, {caller, from, wait},
                                                       std::chrono::seconds(30));
            ++ran;
            const std::string row = "caller " + caller + ", from " + from + ", after " + wait + " us: ";
            EXPECT_FALSE(result.timedOut) << row << result.errors;
            EXPECT_EQ(0, result.signal) << row << result.errors;
            EXPECT_EQ(exitStatus, result.exitCode) << row << result.errors;
            EXPECT_LT(MillisecondsNow() - std::atoll(result.output.c_str()), 1000 * MAVIX_TEST_SCALE_DIVISOR)
                << row << result.errors;
        }
    };
    std::thread other(work, 1U);
    work(2U);
    other.join();
    EXPECT_EQ(count, ran);
}

namespace {

GMainLoop* loop = nullptr;
std::atomic<bool> inCallback{false};

void CallTheService(int /*id*/, const char* /*data*/, int /*length*/) {
    constexpr std::int32_t delayMs = 300;
    void* output = nullptr;
    unsigned int length = 0;
    inCallback = true;
    IPCConnection__Call(interfaceName, delay, &delayMs, sizeof delayMs, &output, &length);
    IPCConnection__CallDisposeOutputBuffer(output);
}

// Runs after the client's exit handler, and longer than the call.
void KeepExiting() {
    std::this_thread::sleep_for(milliseconds(600));
}

} // namespace

MAVIX_CHILD(ExitWhileACallbackCalls) {
    std::atexit(KeepExiting);
    IPCConnection__SetCallbackFunction(IPC_MESSAGE_DATA, CallTheService);
    if (!IPCConnection__AddMatchRule(IPC_MESSAGE_DATA, 1, 0, 0)) {
        return 1;
    }
    std::thread([] {
        loop = g_main_loop_new(nullptr, FALSE);
        g_main_loop_run(loop);
    }).detach();
    // The answer comes after the rule is in place.
    void* output = nullptr;
    unsigned int length = 0;
    if (!IPCConnection__Call(interfaceName, echo, "ready", 5, &output, &length)) {
        return 2;
    }
    IPCConnection__CallDisposeOutputBuffer(output);
    return Await([] { return inCallback.load(); }) ? exitStatus : 3;
}

TEST(Exit, WhileAnEventCallbackCallsTheServiceKeepsItsStatus) {
    const TCPrivateBus bus;
    const TCSimProcess service(bus);
    std::atomic<bool> stop{false};
    std::thread emitter([&] {
        TCSimDriver own(bus);
        while (!stop) {
            own.Emit(IPC_MESSAGE_DATA, 1, {});
            std::this_thread::sleep_for(milliseconds(5));
        }
    });
    const ChildResult result = RunChildProgram("ExitWhileACallbackCalls");
    stop = true;
    emitter.join();
    EXPECT_EQ(0, result.signal) << result.errors;
    EXPECT_EQ(exitStatus, result.exitCode) << result.errors;
}

// Calls that were accepted leave before the process does. Argument: whether a session keeps the client.
MAVIX_CHILD(ExitRightAfterAsynchronousCalls) {
    if (arguments.at(0) == "session" && SessionControl__Open() != 0) {
        return 2;
    }
    for (int at = 0; at < 100; ++at) {
        if (!IPCConnection__CallAsync(interfaceName, echo, &at, sizeof at)) {
            return 1;
        }
    }
    return exitStatus;
}

TEST(Exit, SendsWhatWasAccepted) {
    const TCPrivateBus bus;
    const TCSimProcess service(bus);
    TCSimDriver driver(bus);
    for (const char* keeper : {"nobody", "session"}) {
        SCOPED_TRACE(keeper);
        driver.ClearRecords();
        const ChildResult result = RunChildProgram("ExitRightAfterAsynchronousCalls", plainFlavour, {keeper});
        EXPECT_EQ(exitStatus, result.exitCode) << result.errors;
        EXPECT_EQ(100U, driver.WaitForRecords(100).size());
    }
}

namespace {

// What an exit handler that runs after the client is gone gets.
void CallDuringExit() {
    void* output = &output;
    unsigned int length = 7;
    const bool called = IPCConnection__Call(interfaceName, echo, "late", 4, &output, &length);
    const bool refused = !called && output == nullptr && length == 0 && !IPCConnection__Create() &&
                         !IPCConnection__CallAsync(interfaceName, echo, "late", 4) &&
                         !IPCConnection__WaitForCreateInterface(interfaceName) &&
                         !IPCConnection__AddMatchRule(IPC_MESSAGE_DATA, 1, 0, 0) &&
                         !IPCConnection__RemoveMatchRule(IPC_MESSAGE_DATA, 1, 0, 0) &&
                         !IPCConnection__UseBoostingInheritance(1);
    IPCConnection__SetCallbackFunction(IPC_MESSAGE_DATA, [](int, const char*, int) {});
    IPCConnection__UnsetCallbackFunction(IPC_MESSAGE_DATA);
    IPCConnection__Destroy();
    IPCConnection__CallDisposeOutputBuffer(nullptr);
    _exit(refused ? exitStatus : 1);
}

} // namespace

MAVIX_CHILD(CallsFromALaterExitHandler) {
    std::atexit(CallDuringExit);
    return IPCConnection__Create() ? 2 : 3;
}

TEST(Exit, RefusesCallersOnceItHasBegun) {
    const TCPrivateBus bus;
    const TCSimProcess service(bus);
    const ChildResult result = RunChildProgram("CallsFromALaterExitHandler");
    EXPECT_EQ(exitStatus, result.exitCode) << result.errors;
    EXPECT_EQ(9U, result.CountLines(6, "[API_LITE] no client: the process is exiting")) << result.errors;
    EXPECT_EQ(std::string::npos, result.errors.find("Assertion failed")) << result.errors;
}
