#include "ClientBus.h"

#include "ChildProgram.h"
#include "IpcClientInstance.h"

#include <glib.h>
#include <new>
#include <set>
#include <thread>
#include <utility>

// The one client of a process. Its creation is looked at in child programs, which have none yet.

using namespace MavixTest;
using MavixApiLite::TCIpcClientInstance;
using MavixApiLite::TIIpcClient;

namespace {

bool nextCreationFails = false;

} // namespace

// The linker puts this between the library and GLib: the client is made for the default context.
extern "C" {

GMainContext* RealDefaultContext() asm("__real_g_main_context_default");
GMainContext* FakeDefaultContext() asm("__wrap_g_main_context_default");

// GIO names it, too, so the linker wants to show it.
__attribute__((visibility("default"))) GMainContext* FakeDefaultContext() {
    if (std::exchange(nextCreationFails, false)) {
        throw std::bad_alloc();
    }
    return RealDefaultContext();
}

} // extern "C"

namespace {

MAVIX_CHILD(CreateInManyThreads) {
    constexpr int threadCount = 16;
    const ServiceBus bus;
    std::atomic<int> missing{threadCount};
    std::vector<std::shared_ptr<TIIpcClient>> instances(threadCount);
    std::vector<std::thread> threads;
    for (std::shared_ptr<TIIpcClient>& instance : instances) {
        threads.emplace_back([&missing, &instance] {
            --missing;
            while (missing != 0) {
                std::this_thread::yield();
            }
            instance = TCIpcClientInstance::GetInstance();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::set<TIIpcClient*> different = [&instances] {
        std::set<TIIpcClient*> all;
        for (const std::shared_ptr<TIIpcClient>& instance : instances) {
            all.insert(instance.get());
        }
        return all;
    }();
    const bool worked = Settle();
    const TCRecordingPlatform& platform = TCRecordingPlatform::Get();
    std::printf("different %zu, null %zu, connects %zu, waits %zu, worked %d\n", different.size(),
                different.count(nullptr), platform.Count("[API_LITE][START] DbusThread, m_Connect"),
                platform.CountCalls("LwipcWaitEvent(/tmp/dbus_launch, 10000)"), worked ? 1 : 0);
    return 0;
}

TEST(Instance, IsOneForAllThreadsAndConnectsOnce) {
    const ChildResult result = RunChildProgram("CreateInManyThreads");
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_EQ("different 1, null 0, connects 1, waits 1, worked 1\n", result.output) << result.errors;
}

MAVIX_CHILD(CreateOnly) {
    const ServiceBus bus;
    const bool first = IPCConnection__Create();
    IPCConnection__Destroy();
    return first && IPCConnection__Create() && Settle() ? 0 : 1;
}

TEST(Instance, EndsWithTheProcess) {
    const ChildResult result = RunChildProgram("CreateOnly");
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_EQ(1U, result.CountLines(3, "[API_LITE] Closing connection for "
                                       "interfaceName:com.norvale.Mavix.SignalIFace, "
                                       "objectName:/com/norvale/Mavix/SignalObject"))
        << result.errors;
}

MAVIX_CHILD(CreateAfterFailures) {
    const ServiceBus bus;
    nextCreationFails = true;
    try {
        TCIpcClientInstance::GetInstance();
        return 1;
    } catch (const std::bad_alloc&) {
        std::printf("thrown, ");
    }
    nextCreationFails = true;
    const bool flat = IPCConnection__Create();
    const bool instance = TCIpcClientInstance::GetInstance() != nullptr;
    const bool worked = Settle();
    std::printf("flat %d, then %d, worked %d, connects %zu\n", flat, instance, worked,
                TCRecordingPlatform::Get().Count("[API_LITE][START] DbusThread, m_Connect"));
    return 0;
}

TEST(Instance, IsTriedAgainByTheNextCallerWhenItsCreationThrows) {
    const ChildResult result = RunChildProgram("CreateAfterFailures");
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_EQ("thrown, flat 0, then 1, worked 1, connects 1\n", result.output) << result.errors;
    EXPECT_EQ(1U, result.CountLines(6, "[API_LITE] exception: std::bad_alloc")) << result.errors;
}

class InstanceShare : public ClientBusTest {};

TEST_F(InstanceShare, IsTheSameEveryTimeAndNoCallKeepsOne) {
    const std::shared_ptr<TIIpcClient> instance = TCIpcClientInstance::GetInstance();
    EXPECT_EQ(instance, TCIpcClientInstance::GetInstance());
    const long shares = instance.use_count();
    EXPECT_TRUE(Settle());
    EXPECT_TRUE(CallAsync("com.norvale.ITest", 1));
    EXPECT_TRUE(IPCConnection__AddMatchRule(IPC_MESSAGE_DATA, 1, 0, 0));
    EXPECT_TRUE(IPCConnection__RemoveMatchRule(IPC_MESSAGE_DATA, 1, 0, 0));
    IPCConnection__SetCallbackFunction(IPC_MESSAGE_DATA, [](int, const char*, int) {});
    EXPECT_EQ(shares, instance.use_count());
}

MAVIX_CHILD(UseWithoutTheService) {
    const TCPrivateBus bus;
    const auto start = std::chrono::steady_clock::now();
    const bool worked =
        IPCConnection__Create() && IPCConnection__WaitForCreateInterface("com.norvale.IAVControl") &&
        !IPCConnection__WaitForCreateInterface(nullptr) &&
        IPCConnection__AddMatchRule(IPC_MESSAGE_DATA, 1, 0, 0) &&
        IPCConnection__RemoveMatchRule(IPC_MESSAGE_DATA, 1, 0, 0) && IPCConnection__UseBoostingInheritance(1);
    return worked && std::chrono::steady_clock::now() - start < std::chrono::seconds(5) ? 0 : 1;
}

TEST(Instance, WithoutTheServiceOnlyCallsWait) {
    const ChildResult result = RunChildProgram("UseWithoutTheService");
    EXPECT_EQ(0, result.exitCode) << result.errors;
}

} // namespace
