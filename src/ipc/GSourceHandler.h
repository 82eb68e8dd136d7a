#ifndef MAVIX_GSOURCE_HANDLER_H
#define MAVIX_GSOURCE_HANDLER_H

#include "Handles.h"
#include "IpcMessage.h"
#include "SignalSemaphore.h"

#include <glib.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <pthread.h>

namespace MavixApiLite {

// Moves raw messages from any thread to a main context and hands them there, one per dispatch, to a handler.
// Start and Stop belong to the owner and are not guarded against each other; Stop may come from any thread
// but the one inside the handler, and returns when a running handler has returned. PushMessage: any thread.
// The dispatch mutex is held while a message is handled; it and the semaphore are shared with the source, so
// that a dispatch outlives this object safely. The allocator must outlive the handler.
class MAVIX_API_EXPORT TCGSourceHandler {
public:
    explicit TCGSourceHandler(TIIpcMessageAllocator* allocator);
    ~TCGSourceHandler();
    TCGSourceHandler(const TCGSourceHandler&) = delete;
    TCGSourceHandler& operator=(const TCGSourceHandler&) = delete;

    // Attaches to the context and returns the queue (borrowed), into which raw messages may be pushed
    // directly, each with a reference, waking the context afterwards. Null when nothing could be created. A
    // null context is the default one. When already started, logs and returns the queue of the first start.
    GAsyncQueue* Start(GMainContext* context, std::function<void(TIIpcMessage&)> handler);
    // Queues the raw message with a reference of its own. The handler must be started.
    void PushMessage(TIIpcMessage& message);
    // Ends delivery; messages still queued are freed. From inside the handler it is refused by an assertion.
    void Stop();

private:
    friend struct TestAccess;
    struct HandlerSource;

    void m_CreateSource();
    void m_DeleteSource();
    void m_Notify(TIIpcMessage& message);
    bool m_StopDelivery();

    static gboolean m_GSourceHandlerPrepare(GSource* source, gint* timeout);
    static gboolean m_GSourceHandlerCheck(GSource* source);
    static gboolean m_GSourceHandlerDispatch(GSource* source, GSourceFunc callback, gpointer data);
    static void m_GSourceHandlerFinalize(GSource* source);

    TIIpcMessageAllocator* m_pAllocator;
    SourceHandle m_pGSource;
    AsyncQueueHandle m_pAsyncQueue;
    std::shared_ptr<std::mutex> m_pDispatchMutex;
    std::atomic<pthread_t> m_dispatchThread; // whose handler runs; 0 when none does
    std::shared_ptr<SignalSemaphore> m_pSemaphore;
    std::function<void(TIIpcMessage&)> m_messageHandler;
    MainContextHandle m_pGMainContext;
};

} // namespace MavixApiLite

#endif
