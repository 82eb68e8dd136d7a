#include "CSharp_IPCConnection.h"
#include "ChildProgram.h"
#include "DbusConnection.h"
#include "IPCConnection_C.h"
#include "PrivateBus.h"
#include "SessionControl_C.h"
#include "SimProcess.h"
#include "TestScale.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

// Processes that run out of file descriptors: GLib stops a process that has none left for a main context.

using namespace MavixTest;

namespace {

constexpr const char* interfaceName = "com.norvale.ISimTest";
constexpr short echo = 0;
constexpr int errorPriority = 6;
constexpr rlim_t roomForFillers = 400;

// The checks of addresses and types make pipes now and then.
#ifdef __SANITIZE_ADDRESS__
constexpr bool canDoWithoutDescriptors = false;
#else
constexpr bool canDoWithoutDescriptors = true;
#endif
constexpr const char* needsDescriptorsReason = "the sanitizer takes descriptors for checks of its own";

bool CallOnce() {
    void* output = nullptr;
    unsigned int length = 0;
    const bool answered =
        IPCConnection__Call(interfaceName, echo, "sync", 4, &output, &length) && length == 4;
    IPCConnection__CallDisposeOutputBuffer(output);
    return answered;
}

int CallsAnswered(int count) {
    int answered = 0;
    for (int at = 0; at < count; ++at) {
        answered += CallOnce() ? 1 : 0;
    }
    return answered;
}

int CallsOfThreadsAnswered(int threadCount, int count) {
    std::atomic<int> answered{0};
    std::vector<std::thread> threads;
    threads.reserve(static_cast<std::size_t>(threadCount));
    for (int at = 0; at < threadCount; ++at) {
        threads.emplace_back([&answered, count] { answered += CallsAnswered(count); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return answered;
}

// Takes all descriptors of this process but some.
class TCFillers final {
public:
    explicit TCFillers(int left) {
        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = std::min(limit.rlim_cur, roomForFillers);
        setrlimit(RLIMIT_NOFILE, &limit);
        for (int filler = dup(STDIN_FILENO); filler >= 0; filler = dup(STDIN_FILENO)) {
            m_fillers.push_back(filler);
        }
        for (int at = 0; at < left; ++at) {
            close(m_fillers.back());
            m_fillers.pop_back();
        }
    }
    ~TCFillers() {
        for (const int filler : m_fillers) {
            close(filler);
        }
    }
    TCFillers(const TCFillers&) = delete;
    TCFillers& operator=(const TCFillers&) = delete;

private:
    std::vector<int> m_fillers;
};

class Descriptors : public testing::Test {
protected:
    const TCPrivateBus m_bus;
    const TCSimProcess m_service{m_bus};

    // That a child program, which is told a number, ends by itself and well.
    static ChildResult RunToItsEnd(const std::string& name, int number) {
        const ChildResult result = RunChildProgram(name, plainFlavour, {std::to_string(number)});
        EXPECT_EQ(0, result.signal) << name << " " << number << ": " << result.errors;
        EXPECT_EQ(0, result.exitCode) << name << " " << number << ": " << result.output << result.errors;
        return result;
    }
};

} // namespace

// Argument: how many descriptors are left once the client is connected.
MAVIX_CHILD(CallWithFewDescriptors) {
    constexpr int calls = 10;
    constexpr int threads = 12;
    if (!CallOnce()) {
        return 1;
    }
    int ofOneThread = 0;
    int ofThreads = 0;
    {
        const TCFillers fillers(std::stoi(arguments.at(0)));
        ofOneThread = CallsAnswered(calls);
        ofThreads = CallsOfThreadsAnswered(threads, calls);
    }
    std::printf("%d %d\n", ofOneThread, ofThreads);
    return ofOneThread == calls && ofThreads == threads * calls && CallOnce() ? 0 : 2;
}

// Argument: how many threads call, more than descriptors are kept for.
MAVIX_CHILD(CallFromManyThreadsWithoutDescriptors) {
    const int threads = std::stoi(arguments.at(0));
    if (!CallOnce()) {
        return 1;
    }
    {
        const TCFillers fillers(threads);
        CallsOfThreadsAnswered(threads, 20);
    }
    return CallOnce() ? 0 : 2;
}

bool EverythingIsRefused() {
    return !IPCConnection__Create() && SessionControl__Open() == -1 &&
           TCIPCConnection_Create("", "", false) == nullptr;
}

bool EverythingWorks() {
    void* handle = TCIPCConnection_Create("", "", false);
    const bool works =
        handle != nullptr && CallOnce() && SessionControl__Open() == 0 && SessionControl__Close() == 0;
    TCIPCConnection_Destroy(handle);
    return works;
}

// Argument: how many descriptors are left before the client is made.
MAVIX_CHILD(StartWithFewDescriptors) {
    bool answered = false;
    bool refused = false;
    {
        const TCFillers fillers(std::stoi(arguments.at(0)));
        answered = CallOnce();
        refused = !answered && EverythingIsRefused();
    }
    std::printf("%s\n", answered ? "answered" : refused ? "refused" : "half refused");
    return EverythingWorks() ? 0 : 2;
}

// Arguments: how many descriptors are left before a connection over libdbus is made, and whether it uses the
// default context.
MAVIX_CHILD(ConnectOverLibdbusWithFewDescriptors) {
    MavixApiLite::TCDbusConnection connection(1, arguments.at(1) == "default");
    bool connected = false;
    {
        const TCFillers fillers(std::stoi(arguments.at(0)));
        connection.Connect("Few", nullptr);
        connected = connection.WaitConnected();
    }
    std::printf("%s\n", connected ? "connected" : "refused");
    if (!connected) {
        connection.Connect("Enough", nullptr);
    }
    return connection.WaitConnected() ? 0 : 2;
}

// Argument: how many descriptors are left when the process ends.
MAVIX_CHILD(ExitWithFewDescriptors) {
    if (!CallOnce()) {
        return 1;
    }
    static const TCFillers* const fillers = new TCFillers(std::stoi(arguments.at(0)));
    return fillers != nullptr ? 0 : 1;
}

TEST_F(Descriptors, ACallGetsItsAnswerHoweverFewDescriptorsAreLeft) {
    if (!canDoWithoutDescriptors) {
        GTEST_SKIP() << needsDescriptorsReason;
    }
    for (int left = 0; left <= 24; ++left) {
        RunToItsEnd("CallWithFewDescriptors", left);
    }
}

TEST_F(Descriptors, CallsOfManyThreadsFailAtWorstAndLaterOnesSucceed) {
    if (!canDoWithoutDescriptors) {
        GTEST_SKIP() << needsDescriptorsReason;
    }
    for (const int threads : {17, 32, 64}) {
        RunToItsEnd("CallFromManyThreadsWithoutDescriptors", threads);
    }
}

TEST_F(Descriptors, AClientThatCannotBeMadeIsRefusedAndALaterCallMakesIt) {
    // Two of the sanitizer's pipes.
    const int fewest = canDoWithoutDescriptors ? 0 : 4;
    if (fewest != 0) {
        std::printf("from %d on: %s\n", fewest, needsDescriptorsReason);
    }
    int refused = 0;
    int answered = 0;
    for (int left = fewest; left <= 40; ++left) {
        const ChildResult result = RunToItsEnd("StartWithFewDescriptors", left);
        EXPECT_TRUE(result.output == "refused\n" || result.output == "answered\n") << left << result.output;
        const bool isRefused = result.output == "refused\n";
        (isRefused ? refused : answered) += 1;
        // One for each function that was refused.
        EXPECT_EQ(isRefused ? 4U : 0U,
                  result.CountLines(errorPriority, "[API_LITE] exception: too few file descriptors are left "
                                                   "for a client: Too many open files"))
            << left << " left: " << result.errors;
        EXPECT_EQ(std::string::npos, result.errors.find("Assertion failed")) << left << result.errors;
    }
    EXPECT_GT(refused, 0);
    EXPECT_GT(answered, 0);
}

TEST_F(Descriptors, AConnectionOverLibdbusThatCannotBeMadeIsRefusedAndALaterOneIsMade) {
    if (!canDoWithoutDescriptors) {
        GTEST_SKIP() << needsDescriptorsReason;
    }
    for (const char* context : {"own", "default"}) {
        int refused = 0;
        int connected = 0;
        for (int left = 0; left <= 24; ++left) {
            const std::vector<std::string> arguments{std::to_string(left), context};
            const ChildResult result =
                RunChildProgram("ConnectOverLibdbusWithFewDescriptors", plainFlavour, arguments);
            EXPECT_EQ(0, result.signal) << left << ' ' << context << ": " << result.errors;
            EXPECT_EQ(0, result.exitCode) << left << ' ' << context << ": " << result.output << result.errors;
            (result.output == "refused\n" ? refused : connected) += 1;
        }
        EXPECT_GT(refused, 0) << context;
        EXPECT_GT(connected, 0) << context;
    }
}

TEST_F(Descriptors, AProcessEndsByItselfHoweverFewDescriptorsAreLeft) {
    if (!canDoWithoutDescriptors) {
        GTEST_SKIP() << needsDescriptorsReason;
    }
    for (int left = 0; left <= 8; ++left) {
        RunToItsEnd("ExitWithFewDescriptors", left);
    }
}
