#include "CSharp_IPCConnection.h"
#include "ChildProgram.h"
#include "MessageBuffer.h"
#include "PrivateBus.h"
#include "SimProcess.h"
#include "SleepingFork.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

// Processes that fork or exit while they have a handle.

using namespace MavixTest;
using MavixApiLite::TCMessageBuffer;

// A forked child has lost the threads that refer to the client's memory: to the leak check it would look
// lost.
static bool isForkedChild = false;
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off();
extern "C" int __lsan_is_turned_off() {
    return isForkedChild ? 1 : 0;
}

namespace {

constexpr const char* interfaceName = "com.norvale.ITest";

bool CallWorks(void* handle) {
    TCMessageBuffer in;
    TCMessageBuffer out;
    in.PushInt(5);
    return TCIPCConnection_Call(handle, interfaceName, 1, &in, &out) && out.PayloadSize() == 4;
}

bool EverythingFailsAtOnce(void* handle) {
    const auto start = std::chrono::steady_clock::now();
    TCMessageBuffer in;
    const bool refused = !CallWorks(handle) && !TCIPCConnection_CallAsync(handle, interfaceName, 1, &in) &&
                         !TCIPCConnection_WaitForCreateInterface(handle, interfaceName) &&
                         !TCIPCConnection_AddMatchRule(handle, 2, 1, 0, 0) &&
                         !TCIPCConnection_RemoveMatchRule(handle, 2, 1, 0, 0) &&
                         TCIPCConnection_Create("", "", false) == nullptr;
    TCPIConnection_SetCallbackFunction(handle, 2, [](int, MavixMessageBuffer*) {});
    TCPIConnection_UnsetCallbackFunction(handle, 2);
    TCIPCConnection_Destroy(handle);
    return refused && std::chrono::steady_clock::now() - start < std::chrono::seconds(1);
}

} // namespace

MAVIX_CHILD(ForkWithHandle) {
    void* handle = TCIPCConnection_Create("", "", false);
    if (!CallWorks(handle)) {
        return 1;
    }
    const pid_t child = ForkWhileOthersSleep();
    if (child == 0) {
        isForkedChild = true;
        std::exit(EverythingFailsAtOnce(handle) ? 0 : 2);
    }
    int status = 0;
    waitpid(child, &status, 0);
    const bool parentGoesOn = CallWorks(handle);
    TCIPCConnection_Destroy(handle);
    if (!WIFEXITED(status)) {
        return 4;
    }
    return parentGoesOn ? WEXITSTATUS(status) : 3;
}

TEST(ManagedProcess, AHandleFromBeforeAForkFailsAtOnceInTheChildAndGoesOnInTheParent) {
    const TCPrivateBus bus;
    const TCSimProcess service(bus);
    const ChildResult result = RunChildProgram("ForkWithHandle");
    EXPECT_EQ(0, result.exitCode) << "signal " << result.signal << '\n' << result.errors;
    EXPECT_EQ(8U, result.CountLines(
                      6, "[API_LITE] no client: this process was forked after the client was created"))
        << result.errors;
}

// Argument: "kept" or "destroyed".
MAVIX_CHILD(ExitWithHandle) {
    static void* handle; // found by the leak check
    handle = TCIPCConnection_Create("", "", false);
    const bool works = CallWorks(handle);
    if (arguments.at(0) == "destroyed") {
        TCIPCConnection_Destroy(handle);
    }
    return works ? 17 : 1;
}

TEST(ManagedProcess, ExitsWithAHandleOrWithout) {
    const TCPrivateBus bus;
    const TCSimProcess service(bus);
    for (const char* handle : {"kept", "destroyed"}) {
        const ChildResult result = RunChildProgram("ExitWithHandle", plainFlavour, {handle});
        EXPECT_EQ(17, result.exitCode) << handle << ", signal " << result.signal << '\n' << result.errors;
    }
}
