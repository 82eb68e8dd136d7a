#include "IpcClientInstance.h"

#include "GdbusConnection.h"
#include "IpcClient.h"
#include "IpcConfigurationMavix.h"
#include "Log.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <pthread.h>
#include <thread>

namespace MavixApiLite {

namespace {

// Never destroyed, because callers may come while the process exits; an exit handler releases the client.
struct Registry {
    std::shared_ptr<TCIpcClient> instance;
    std::mutex instanceMutex;
    std::atomic<bool> instanceInitialized{false};
    std::atomic<bool> exiting{false};
    std::atomic<bool> forkedChild{false};
    std::atomic<int> readers{0}; // callers that may be copying `instance`
};

Registry& TheRegistry() {
    static Registry& registry = *new Registry;
    return registry;
}

class ReaderMark final {
public:
    explicit ReaderMark(Registry& registry) : m_readers(registry.readers) { ++m_readers; }
    ~ReaderMark() { --m_readers; }
    ReaderMark(const ReaderMark&) = delete;
    ReaderMark& operator=(const ReaderMark&) = delete;

private:
    std::atomic<int>& m_readers;
};

void OnForkedChild() {
    TheRegistry().forkedChild = true;
}

// A forked child leaves the client alone: its threads do not exist there.
void OnExit() {
    Registry& registry = TheRegistry();
    if (registry.forkedChild) {
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(registry.instanceMutex);
        registry.exiting = true;
    }
    while (registry.readers != 0) {
        std::this_thread::yield();
    }
    registry.instance.reset();
}

std::shared_ptr<TCIpcClient> CreateClient() {
    auto configuration = std::make_unique<IpcConfigurationMavix>("com.norvale.Mavix.SignalIFace",
                                                                 "/com/norvale/Mavix/SignalObject");
    return std::make_shared<TCIpcClient>(std::move(configuration), g_main_context_default(),
                                         std::make_unique<TCGdbusConnection>());
}

void RegisterHandlersOnce() {
    static const bool registered = [] {
        pthread_atfork(nullptr, nullptr, OnForkedChild);
        std::atexit(OnExit);
        return true;
    }();
    static_cast<void>(registered);
}

// Empty when the process has begun to exit.
std::shared_ptr<TCIpcClient> CopyOrCreate(Registry& registry) {
    const ReaderMark mark(registry);
    if (registry.exiting) {
        return nullptr;
    }
    if (registry.instanceInitialized) {
        return registry.instance;
    }
    const std::lock_guard<std::mutex> lock(registry.instanceMutex);
    if (registry.exiting) {
        return nullptr;
    }
    if (!registry.instanceInitialized) {
        RegisterHandlersOnce();
        registry.instance = CreateClient();
        registry.instanceInitialized.exchange(true);
    }
    return registry.instance;
}

} // namespace

std::shared_ptr<TIIpcClient> TCIpcClientInstance::GetInstance() {
    Registry& registry = TheRegistry();
    // In a forked child the mutex and the counter are in an unknown state. After the exit has begun nobody
    // comes near the counter again, so that the exit handler is not kept waiting.
    std::shared_ptr<TCIpcClient> instance = IsGone() ? nullptr : CopyOrCreate(registry);
    if (!instance) {
        MAVIX_LOGE("[API_LITE] no client: %s", registry.forkedChild
                                                   ? "this process was forked after the client was created"
                                                   : "the process is exiting");
    }
    return instance;
}

bool TCIpcClientInstance::IsGone() {
    const Registry& registry = TheRegistry();
    return registry.forkedChild || registry.exiting;
}

} // namespace MavixApiLite
