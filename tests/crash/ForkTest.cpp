#include "ChildProgram.h"
#include "IPCConnection_C.h"
#include "IPCUtility.h"
#include "PrivateBus.h"
#include "SessionControl_C.h"
#include "SimProcess.h"
#include "SleepingFork.h"
#include "TestScale.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <functional>
#include <future>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

// Processes that fork without exec.

using namespace MavixTest;

// A forked child has lost the threads that refer to the client's memory: to the leak check it would look
// lost.
static bool isForkedChild = false;
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off();
extern "C" int __lsan_is_turned_off() {
    return isForkedChild ? 1 : 0;
}

// Where the first use registers its exit handler, which is in the middle of it.
static std::function<void()> atRegistration;
extern "C" __attribute__((visibility("default"))) int __cxa_atexit(void (*handler)(void*), void* data,
                                                                   void* module) {
    const auto real = reinterpret_cast<decltype(&__cxa_atexit)>(dlsym(RTLD_NEXT, "__cxa_atexit"));
    if (atRegistration) {
        std::exchange(atRegistration, nullptr)();
    }
    return real(handler, data, module);
}

namespace {

constexpr const char* interfaceName = "com.norvale.ISimTest";
constexpr short echo = 0;

bool EchoWorks() {
    void* output = nullptr;
    unsigned int length = 0;
    const bool called = IPCConnection__Call(interfaceName, echo, "fork", 4, &output, &length);
    const bool right = called && length == 4 && std::memcmp(output, "fork", 4) == 0;
    IPCConnection__CallDisposeOutputBuffer(output);
    return right;
}

bool SessionFunctionsFail() {
    SessionControlDebugInfo info{24, "fork", 0};
    char* text = nullptr;
    int isTerminated = 7;
    return SessionControl__Open() == -1 && SessionControl__Close() == -1 &&
           SessionControl__OpenDebugTrace(1, &info) == -1 && SessionControl__CloseDebugTrace(1) == -1 &&
           SessionControl__GetSessionsDebugInfo(&text) == -1 && text == nullptr &&
           SessionControl__IsMavixTerminated(&isTerminated) == -1 && isTerminated == 7;
}

// Every entry point that needs the client fails, those that need none work, and none of it takes time.
bool EverythingFailsAtOnce() {
    const auto start = std::chrono::steady_clock::now();
    void* output = &output;
    unsigned int length = 7;
    const bool refused =
        !IPCConnection__Create() && !IPCConnection__Call(interfaceName, echo, "fork", 4, &output, &length) &&
        output == nullptr && length == 0 && !IPCConnection__CallAsync(interfaceName, echo, "fork", 4) &&
        !IPCConnection__WaitForCreateInterface(interfaceName) &&
        !IPCConnection__AddMatchRule(IPC_MESSAGE_DATA, 1, 0, 0) &&
        !IPCConnection__RemoveMatchRule(IPC_MESSAGE_DATA, 1, 0, 0) &&
        !IPCConnection__UseBoostingInheritance(1) && SessionFunctionsFail();
    IPCConnection__SetCallbackFunction(IPC_MESSAGE_DATA, [](int, const char*, int) {});
    IPCConnection__UnsetCallbackFunction(IPC_MESSAGE_DATA);
    IPCConnection__Destroy();
    IPCConnection__CallDisposeOutputBuffer(new char[3]);
    const bool named = MavixApiLite::TCIPCUtility::GenerateSubConnectionName(":1.42") ==
                       "com.norvale.Mavix.Signal.mavix1.mavix42";
    return refused && named && std::chrono::steady_clock::now() - start < std::chrono::seconds(1);
}

// Of a child that could not be forked: 99.
int ExitStatusOf(pid_t child) {
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) {
        return 99;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

} // namespace

// Argument: how many other threads call while the process forks.
MAVIX_CHILD(ForkAfterUse) {
    const int threads = std::stoi(arguments.at(0));
    if (!EchoWorks()) {
        return 1;
    }
    for (int at = 0; at < threads; ++at) {
        std::thread([] {
            while (true) {
                EchoWorks();
            }
        }).detach();
    }
    const pid_t child = ForkWhileOthersSleep();
    if (child == 0) {
        isForkedChild = true;
        // Through the exit handlers: they leave the parent's client alone.
        std::exit(EverythingFailsAtOnce() ? 0 : 2);
    }
    const int childStatus = ExitStatusOf(child);
    if (childStatus != 0) {
        return 100 + childStatus;
    }
    return EchoWorks() ? 0 : 3;
}

namespace {

// Under AddressSanitizer the process forks while its other threads sleep, and such ones never do.
#ifdef __SANITIZE_ADDRESS__
constexpr unsigned int otherThreads = 0;
#else
constexpr unsigned int otherThreads = 4;
#endif

// Runs the child program again and again, every other time with other threads; each time it forks, its
// children's functions fail with so many lines in all.
void ExpectAtOnce(const char* program, unsigned int rounds, std::size_t lines) {
    if (otherThreads == 0) {
        std::puts(
            "without other threads: AddressSanitizer's allocator does not bear a fork while they use it");
    }
    for (unsigned int at = 0; at < rounds; ++at) {
        const std::string threads = std::to_string(at % 2 * otherThreads);
        const ChildResult result = RunChildProgram(program, plainFlavour, {threads});
        ASSERT_EQ(0, result.exitCode) << "threads: " << threads << ", signal " << result.signal << '\n'
                                      << result.errors;
        EXPECT_EQ(lines, result.CountLines(
                             6, "[API_LITE] no client: this process was forked after the client was created"))
            << result.errors;
        EXPECT_EQ(std::string::npos, result.errors.find("Assertion failed")) << result.errors;
    }
}

} // namespace

TEST(Fork, AfterUseEverythingInTheChildFailsAtOnceAndTheParentGoesOn) {
    const TCPrivateBus bus;
    const TCSimProcess service(bus);
    ExpectAtOnce("ForkAfterUse", Scaled(100), 15);
}

namespace {

// Threads that hold the session's locks more often than not.
void OpenAndCloseWithoutEnd() {
    while (true) {
        SessionControl__Open();
        SessionControl__Close();
    }
}

} // namespace

// Argument: how many other threads open and close while the process forks.
MAVIX_CHILD(ForkInASession) {
    if (SessionControl__Open() != 0) {
        return 1;
    }
    const int threads = std::stoi(arguments.at(0));
    if (threads != 0 && SessionControl__Close() != 0) {
        return 4;
    }
    for (int at = 0; at < threads; ++at) {
        std::thread(OpenAndCloseWithoutEnd).detach();
    }
    for (int at = 0; at < 10; ++at) {
        const pid_t child = ForkWhileOthersSleep();
        if (child == 0) {
            isForkedChild = true;
            std::exit(EverythingFailsAtOnce() ? 0 : 2);
        }
        const int childStatus = ExitStatusOf(child);
        if (childStatus != 0) {
            return 100 + childStatus;
        }
    }
    char* text = nullptr;
    const bool works = SessionControl__GetSessionsDebugInfo(&text) == 0 && EchoWorks();
    std::free(text);
    return works && (threads != 0 || SessionControl__Close() == 0) ? 0 : 3;
}

TEST(Fork, InASessionTheChildFailsAtOnceWhoeverHeldTheLocksAndTheParentGoesOn) {
    const TCPrivateBus bus;
    const TCSimProcess service(bus);
    ExpectAtOnce("ForkInASession", Scaled(40), 150);
}

// A daemon's way: closes what it inherited, opens its own, and leaves writing it to the end of the process.
MAVIX_CHILD(ForkAndOpenOwnFiles) {
    constexpr int ownFiles = 100;
    int ends[2] = {-1, -1};
    if (!EchoWorks() || pipe2(ends, O_CLOEXEC) != 0) {
        return 1;
    }
    const pid_t child = fork();
    if (child == 0) {
        isForkedChild = true;
        constexpr int first = STDERR_FILENO + 1;
        dup2(ends[1], first);
        close_range(first + 1, ~0U, 0);
        for (int at = 0; at < ownFiles; ++at) {
            std::fputc('x', fdopen(dup(first), "w"));
        }
        close(first);
        std::exit(0);
    }
    close(ends[1]);
    int written = 0;
    for (char byte = 0; read(ends[0], &byte, 1) == 1;) {
        ++written;
    }
    close(ends[0]);
    std::printf("%d of %d", written, ownFiles);
    return ExitStatusOf(child);
}

TEST(Fork, AfterUseTheEndOfTheChildLeavesItsOwnFilesAlone) {
    const TCPrivateBus bus;
    const TCSimProcess service(bus);
    const ChildResult result = RunChildProgram("ForkAndOpenOwnFiles");
    EXPECT_EQ(0, result.exitCode) << "signal " << result.signal << '\n' << result.errors;
    EXPECT_EQ("100 of 100", result.output);
}

MAVIX_CHILD(ForkBeforeUse) {
    const pid_t child = ForkWhileOthersSleep();
    if (child == 0) {
        isForkedChild = true;
        std::exit(EchoWorks() && SessionControl__Open() == 0 && SessionControl__Close() == 0 ? 0 : 2);
    }
    const bool works = EchoWorks() && SessionControl__Open() == 0 && SessionControl__Close() == 0;
    return ExitStatusOf(child) == 0 && works ? 0 : 1;
}

TEST(Fork, BeforeTheFirstUseBothProcessesWork) {
    const TCPrivateBus bus;
    const TCSimProcess service(bus);
    const ChildResult result = RunChildProgram("ForkBeforeUse");
    EXPECT_EQ(0, result.exitCode) << result.errors;
}

MAVIX_CHILD(ForkDuringFirstUse) {
    std::promise<void> registering;
    std::promise<void> forked;
    atRegistration = [&] {
        registering.set_value();
        forked.get_future().wait();
    };
    std::thread firstUser([] { EchoWorks(); });
    registering.get_future().wait();
    const pid_t child = ForkWhileOthersSleep();
    if (child == 0) {
        isForkedChild = true;
        alarm(20);
        std::exit(EchoWorks() ? 0 : 2);
    }
    forked.set_value();
    firstUser.join();
    const int childStatus = ExitStatusOf(child);
    return childStatus != 0 ? 100 + childStatus : EchoWorks() ? 0 : 3;
}

TEST(Fork, InTheMiddleOfTheFirstUseBothProcessesWork) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer allows no new threads after a process of several threads has forked";
#endif
    const TCPrivateBus bus;
    const TCSimProcess service(bus);
    const ChildResult result = RunChildProgram("ForkDuringFirstUse");
    EXPECT_EQ(0, result.exitCode) << "signal " << result.signal << '\n' << result.errors;
}
