#include "IpcClientInstance.h"

#include "GdbusConnection.h"
#include "IpcClient.h"
#include "IpcConfigurationMavix.h"
#include "Log.h"
#include "SpareDescriptor.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <pthread.h>
#include <system_error>
#include <thread>

namespace MavixApiLite {

namespace {

struct TCRegistry {
    std::shared_ptr<TCIpcClient> instance;
    TCGdbusConnection* connection = nullptr; // of `instance`
    std::mutex instanceMutex;
    std::atomic<bool> instanceInitialized{false};
    std::atomic<bool> handlersRegistered{false};
    std::atomic<bool> exiting{false};
    std::atomic<bool> forkedChild{false};
    std::atomic<int> readers{0}; // callers that may be creating or copying `instance`
};

// Never destroyed, because callers may come while the process exits; an exit handler releases the client.
// Ready when the process starts: a fork while another thread made it would leave it half made in the child.
union TCRegistryStorage {
    constexpr TCRegistryStorage() : registry{} {}
    ~TCRegistryStorage() {}
    TCRegistry registry;
};
TCRegistryStorage registryStorage;

TCRegistry& TheRegistry() {
    return registryStorage.registry;
}

class TCReaderMark final {
public:
    explicit TCReaderMark(TCRegistry& registry) : m_readers(registry.readers) { ++m_readers; }
    ~TCReaderMark() { --m_readers; }
    TCReaderMark(const TCReaderMark&) = delete;
    TCReaderMark& operator=(const TCReaderMark&) = delete;

private:
    std::atomic<int>& m_readers;
};

// A child that is forked while a caller creates the client inherits half of one.
void OnForkedChild() {
    TCRegistry& registry = TheRegistry();
    registry.forkedChild = registry.instanceInitialized || registry.readers != 0;
}

// A forked child leaves the client alone: its threads do not exist there. So does a process in which a caller
// still has a share: its event callback may be what runs on this very thread, or on one that waits for the
// client.
void OnExit() {
    TCRegistry& registry = TheRegistry();
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
    if (registry.instance.use_count() == 1) {
        registry.instance.reset();
    } else if (registry.instance) {
        // Nobody will close the connection; what was accepted for sending leaves all the same.
        registry.connection->Flush();
    }
}

void CreateClient(TCRegistry& registry) {
    auto configuration = std::make_unique<IpcConfigurationMavix>("com.norvale.Mavix.SignalIFace",
                                                                 "/com/norvale/Mavix/SignalObject");
    auto connection = std::make_unique<TCGdbusConnection>();
    registry.connection = connection.get();
    registry.instance = std::make_shared<TCIpcClient>(std::move(configuration), g_main_context_default(),
                                                      std::move(connection));
}

// Takes no lock, which a fork meanwhile would leave taken in the child. Registering twice does no harm.
void RegisterHandlers(TCRegistry& registry) {
    if (!registry.handlersRegistered) {
        pthread_atfork(nullptr, nullptr, OnForkedChild);
        std::atexit(OnExit);
        registry.handlersRegistered = true;
    }
}

// Empty when the process has begun to exit.
std::shared_ptr<TCIpcClient> CopyOrCreate(TCRegistry& registry) {
    RegisterHandlers(registry);
    const TCReaderMark mark(registry);
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
        // The first use of the default context would stop the process; a later call may find enough.
        if (!CanConnectWithDescriptors()) {
            throw std::system_error(EMFILE, std::generic_category(),
                                    "too few file descriptors are left for a client");
        }
        CreateClient(registry);
        registry.instanceInitialized.exchange(true);
    }
    return registry.instance;
}

} // namespace

std::shared_ptr<TIIpcClient> TCIpcClientInstance::GetInstance() {
    TCRegistry& registry = TheRegistry();
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
    const TCRegistry& registry = TheRegistry();
    return registry.forkedChild || registry.exiting;
}

bool TCIpcClientInstance::IsForkedChild() {
    return TheRegistry().forkedChild;
}

} // namespace MavixApiLite
