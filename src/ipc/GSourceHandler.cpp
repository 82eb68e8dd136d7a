#include "GSourceHandler.h"

#include "Guard.h"
#include "Log.h"
#include "MavixAssert.h"
#include "MessageFilterContext.h"

#include <new>
#include <utility>

void MessageFilterContext::Destroy(void* data) {
    auto* record = static_cast<MessageFilterContext*>(data);
    if (record == nullptr) {
        return;
    }
    const MavixApiLite::MainContextHandle context(record->context);
    const MavixApiLite::AsyncQueueHandle queue(record->queue);
    delete record;
}

namespace MavixApiLite {

// What GLib allocates for the source. The fields keep what a dispatch on the stack touches alive by
// themselves.
struct TCGSourceHandler::HandlerSource {
    GSource source;
    GAsyncQueue* queue;
    std::shared_ptr<std::mutex> dispatchMutex;
    std::shared_ptr<SignalSemaphore> semaphore;
};

namespace {

// Holds a mutex that pthread_mutex_trylock took. std::mutex::try_lock is undefined on the thread that owns
// the mutex, the native call is not.
class TCTryLock final {
public:
    explicit TCTryLock(std::mutex& mutex)
        : m_mutex(mutex.native_handle()), m_locked(pthread_mutex_trylock(m_mutex) == 0) {}
    ~TCTryLock() {
        if (m_locked) {
            pthread_mutex_unlock(m_mutex);
        }
    }
    TCTryLock(const TCTryLock&) = delete;
    TCTryLock& operator=(const TCTryLock&) = delete;

    explicit operator bool() const { return m_locked; }

private:
    pthread_mutex_t* m_mutex;
    const bool m_locked;
};

// The handler that was destroyed from inside its own callback on this thread, against its contract.
thread_local const void* destroyedInCallback = nullptr;

gboolean HasMessages(GAsyncQueue* queue) {
    return g_async_queue_length(queue) > 0 ? TRUE : FALSE;
}

} // namespace

TCGSourceHandler::TCGSourceHandler(TIIpcMessageAllocator* allocator)
    : m_pAllocator(allocator), m_dispatchThread{} {}

TCGSourceHandler::~TCGSourceHandler() {
    if (m_StopDelivery()) {
        return;
    }
    // A callback of this handler is on the stack below us: leak what it still uses.
    destroyedInCallback = this;
    static_cast<void>(m_pGSource.release());
    static_cast<void>(m_pAsyncQueue.release());
    static_cast<void>(m_pGMainContext.release());
}

GAsyncQueue* TCGSourceHandler::Start(GMainContext* context, std::function<void(TIIpcMessage&)> handler) {
    if (m_pGSource) {
        MAVIX_LOGE("Already started");
        return m_pAsyncQueue.get();
    }
    m_CreateSource();
    m_messageHandler = std::move(handler);
    m_pGMainContext = RefMainContext(context);
    g_source_attach(m_pGSource.get(), context);
    m_pSemaphore->Signal();
    return m_pAsyncQueue.get();
}

void TCGSourceHandler::PushMessage(TIIpcMessage& message) {
    g_async_queue_push(m_pAsyncQueue.get(), message.GetRawMessage(true));
    g_main_context_wakeup(m_pGMainContext.get());
}

void TCGSourceHandler::Stop() {
    m_StopDelivery();
}

// False when it was refused because the caller is the handler itself.
bool TCGSourceHandler::m_StopDelivery() {
    constexpr const char* function = "Stop";
    if (!m_pGSource) {
        MAVIX_LOG_AS(MAVIX_LOG_INFO, MAVIX_LOG_SOURCE_NAME, function, "Already stopped");
        return true;
    }
    g_source_destroy(m_pGSource.get());
    // The last use of the mutex is after the handles are gone.
    const std::shared_ptr<std::mutex> dispatchMutex = m_pDispatchMutex;
    std::unique_lock<std::mutex> lock(*dispatchMutex, std::defer_lock);
    if (pthread_mutex_trylock(dispatchMutex->native_handle()) == 0) {
        lock = std::unique_lock<std::mutex>(*dispatchMutex, std::adopt_lock);
    } else {
        m_pSemaphore->Wait();
        if (pthread_equal(m_dispatchThread.load(), pthread_self()) != 0) {
            MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function,
                         "Stopping from signal callback! Aborting..");
            MAVIX_ASSERT_FAIL("0");
            return false;
        }
        lock.lock();
        m_pSemaphore->Signal();
    }
    while (void* raw = g_async_queue_try_pop(m_pAsyncQueue.get())) {
        m_pAllocator->DeleteRawMessage(raw);
    }
    m_DeleteSource();
    m_pGMainContext.reset();
    return true;
}

void TCGSourceHandler::m_CreateSource() {
    static GSourceFuncs gSourceHandlerFuncs = {m_GSourceHandlerPrepare,
                                               m_GSourceHandlerCheck,
                                               m_GSourceHandlerDispatch,
                                               m_GSourceHandlerFinalize,
                                               nullptr,
                                               nullptr};
    m_pDispatchMutex = std::make_shared<std::mutex>();
    m_pSemaphore = std::make_shared<SignalSemaphore>();
    m_pAsyncQueue.reset(g_async_queue_new_full(m_pAllocator->GetRawMessageDeleter()));
    if (!m_pAsyncQueue) {
        MAVIX_LOGE("g_async_queue_new_full failed");
        return;
    }
    m_pGSource.reset(g_source_new(&gSourceHandlerFuncs, sizeof(HandlerSource)));
    if (!m_pGSource) {
        MAVIX_LOGE("g_source_new failed!");
        // Nobody would take what is queued: a null queue tells the caller of Start so.
        m_pAsyncQueue.reset();
        return;
    }
    g_source_set_callback(m_pGSource.get(), nullptr, this, nullptr);
    auto* record = reinterpret_cast<HandlerSource*>(m_pGSource.get());
    record->queue = RefAsyncQueue(m_pAsyncQueue.get()).release();
    new (&record->dispatchMutex) std::shared_ptr<std::mutex>(m_pDispatchMutex);
    new (&record->semaphore) std::shared_ptr<SignalSemaphore>(m_pSemaphore);
}

void TCGSourceHandler::m_DeleteSource() {
    m_pAsyncQueue.reset();
    m_pGSource.reset();
}

// The identity is stored before the token is given back, so that a stopper that has taken the token can tell
// whether it runs inside the handler. It is cleared afterwards, exception or not, for the next stopper. The
// function that runs is kept on the stack: it outlives this object even when it destroys it.
void TCGSourceHandler::m_Notify(TIIpcMessage& message) {
    struct TCRunningHandler {
        TCGSourceHandler* handler;
        std::function<void(TIIpcMessage&)> function;
        ~TCRunningHandler() {
            if (destroyedInCallback == handler) {
                destroyedInCallback = nullptr;
                return;
            }
            handler->m_messageHandler = std::move(function);
            handler->m_dispatchThread.store(pthread_t{});
        }
    };
    m_dispatchThread.store(pthread_self());
    const TCRunningHandler running{this, std::move(m_messageHandler)};
    m_pSemaphore->Signal();
    running.function(message);
}

gboolean TCGSourceHandler::m_GSourceHandlerPrepare(GSource* source, gint* /*timeout*/) {
    return HasMessages(reinterpret_cast<HandlerSource*>(source)->queue);
}

gboolean TCGSourceHandler::m_GSourceHandlerCheck(GSource* source) {
    return HasMessages(reinterpret_cast<HandlerSource*>(source)->queue);
}

gboolean TCGSourceHandler::m_GSourceHandlerDispatch(GSource* source, GSourceFunc /*callback*/,
                                                    gpointer data) {
    auto* record = reinterpret_cast<HandlerSource*>(source);
    record->semaphore->Wait();
    const TCTryLock lock(*record->dispatchMutex);
    if (!lock) {
        MAVIX_LOGE("Stopping in progress! Quiting..");
        return FALSE;
    }
    if (g_source_is_destroyed(source) != FALSE) {
        // A whole Stop ran between GLib's decision to dispatch and our lock: the handler may be gone. Another
        // Stop may wait for the token.
        MAVIX_LOGE("Stopping in progress! Quiting..");
        record->semaphore->Signal();
        return FALSE;
    }
    void* raw = g_async_queue_try_pop(record->queue);
    if (raw == nullptr) {
        MAVIX_LOGE("No message! Quiting..");
        record->semaphore->Signal();
        return FALSE;
    }
    auto* handler = static_cast<TCGSourceHandler*>(data);
    bool tokenTaken = true;
    GuardedRun(MAVIX_LOG_SOURCE_NAME, __FUNCTION__, __LINE__, [&] {
        const std::unique_ptr<TIIpcMessage> message = handler->m_pAllocator->NewMessage(raw);
        if (message) {
            tokenTaken = false;
            handler->m_Notify(*message);
        }
    });
    if (tokenTaken) {
        MAVIX_LOGE("No message! Quiting..");
        record->semaphore->Signal();
        return FALSE;
    }
    return TRUE;
}

void TCGSourceHandler::m_GSourceHandlerFinalize(GSource* source) {
    auto* record = reinterpret_cast<HandlerSource*>(source);
    const AsyncQueueHandle queue(std::exchange(record->queue, nullptr));
    record->dispatchMutex.~shared_ptr();
    record->semaphore.~shared_ptr();
}

} // namespace MavixApiLite
