#include "DbusDispatchSource.h"

#include "SignalSemaphore.h"

#include <dbus/dbus-glib-lowlevel.h>

#include <algorithm>
#include <climits>
#include <utility>

namespace MavixApiLite {

namespace {

// Shorter than libdbus's default time limit of a call, so that ordinary calls need not wake the poll.
constexpr gint longestPollMs = 20000;
constexpr gint64 defaultTimeoutMs = 25000;
constexpr gint64 microsecondsPerMs = 1000;

dbus_int32_t SourceSlot() {
    static const dbus_int32_t slot = [] {
        dbus_int32_t allocated = -1;
        dbus_connection_allocate_data_slot(&allocated);
        return allocated;
    }();
    return slot;
}

void UnrefSource(void* source) {
    g_source_unref(static_cast<GSource*>(source));
}

// A main context is iterated by the thread that has acquired it.
class TCAcquired final {
public:
    explicit TCAcquired(GMainContext* context) : m_context(context) { g_main_context_acquire(context); }
    ~TCAcquired() { g_main_context_release(m_context); }
    TCAcquired(const TCAcquired&) = delete;
    TCAcquired& operator=(const TCAcquired&) = delete;

private:
    GMainContext* const m_context;
};

} // namespace

struct TCDbusDispatchSource::Record {
    GSource source;
    TCDbusDispatchSource* self;
};

bool TCDbusDispatchSource::Attach(DBusConnection* connection, GMainContext* context) {
    static GSourceFuncs functions = {m_Prepare, m_Check, m_Dispatch, m_Finalize, nullptr, nullptr};
    SourceHandle source(g_source_new(&functions, sizeof(Record)));
    g_source_set_static_name(source.get(), "mavix-libdbus");
    // Otherwise GLib takes the descriptors out of the poll for every dispatch, and wakes the poll for each.
    g_source_set_can_recurse(source.get(), TRUE);
    auto* self = new TCDbusDispatchSource(source.get());
    reinterpret_cast<Record*>(source.get())->self = self;
    dbus_connection_setup_with_g_main(connection, self->m_inner.get());
    if (dbus_connection_add_filter(connection, m_TakeLostReply, self, nullptr) == FALSE ||
        dbus_connection_set_data(connection, SourceSlot(), source.get(), UnrefSource) == FALSE) {
        return false;
    }
    g_source_attach(source.release(), context);
    return true;
}

void TCDbusDispatchSource::Detach(DBusConnection* connection) {
    TCDbusDispatchSource* self = m_Of(connection);
    if (self == nullptr) {
        return;
    }
    {
        std::unique_lock<std::mutex> lock(self->m_lock);
        self->m_detached = true;
        self->m_dispatched.wait(lock, [self] {
            return self->m_dispatchingThread == std::thread::id() ||
                   self->m_dispatchingThread == std::this_thread::get_id();
        });
    }
    g_source_destroy(self->m_source);
}

TCDbusDispatchSource::TCDbusDispatchSource(GSource* source)
    : m_source(source), m_inner(g_main_context_new()) {}

TCDbusDispatchSource* TCDbusDispatchSource::m_Of(DBusConnection* connection) {
    auto* source = static_cast<GSource*>(dbus_connection_get_data(connection, SourceSlot()));
    return source != nullptr ? &m_Self(source) : nullptr;
}

TCDbusDispatchSource& TCDbusDispatchSource::m_Self(GSource* source) {
    return *reinterpret_cast<Record*>(source)->self;
}

gboolean TCDbusDispatchSource::m_Prepare(GSource* source, gint* timeout) noexcept {
    TCDbusDispatchSource& self = m_Self(source);
    const std::lock_guard<std::mutex> lock(self.m_lock);
    *timeout = self.m_detached ? -1 : self.m_PrepareInner();
    // Whether the inner context is ready is known when it has been checked.
    return FALSE;
}

gint TCDbusDispatchSource::m_PrepareInner() {
    const TCAcquired acquired(m_inner.get());
    g_main_context_prepare(m_inner.get(), &m_priority);
    gint timeout = -1;
    for (std::size_t needed = m_polled.size();;) {
        m_polled.resize(needed);
        needed = static_cast<std::size_t>(g_main_context_query(
            m_inner.get(), m_priority, &timeout, m_polled.data(), static_cast<gint>(m_polled.size())));
        if (needed <= m_polled.size()) {
            m_polled.resize(needed);
            break;
        }
    }
    m_WatchWhatInnerPolls();
    timeout = timeout < 0 ? longestPollMs : std::min(timeout, longestPollMs);
    m_pollEnd = g_get_monotonic_time() + timeout * microsecondsPerMs;
    return timeout;
}

void TCDbusDispatchSource::m_WatchWhatInnerPolls() {
    const auto isWatched = [](const Watched& watched, const GPollFD& polled) {
        return watched.fd == polled.fd && watched.events == polled.events;
    };
    if (std::equal(m_watched.begin(), m_watched.end(), m_polled.begin(), m_polled.end(), isWatched)) {
        return;
    }
    for (const Watched& watched : m_watched) {
        g_source_remove_unix_fd(m_source, watched.tag);
    }
    m_watched.clear();
    for (const GPollFD& polled : m_polled) {
        const auto condition = static_cast<GIOCondition>(polled.events);
        m_watched.push_back({polled.fd, polled.events, g_source_add_unix_fd(m_source, polled.fd, condition)});
    }
}

gboolean TCDbusDispatchSource::m_Check(GSource* source) noexcept {
    TCDbusDispatchSource& self = m_Self(source);
    const std::lock_guard<std::mutex> lock(self.m_lock);
    if (self.m_detached) {
        return FALSE;
    }
    for (std::size_t at = 0; at < self.m_polled.size(); ++at) {
        self.m_polled[at].revents =
            static_cast<gushort>(g_source_query_unix_fd(source, self.m_watched[at].tag));
    }
    const TCAcquired acquired(self.m_inner.get());
    return g_main_context_check(self.m_inner.get(), self.m_priority, self.m_polled.data(),
                                static_cast<gint>(self.m_polled.size()));
}

gboolean TCDbusDispatchSource::m_Dispatch(GSource* source, GSourceFunc /*callback*/,
                                          gpointer /*data*/) noexcept {
    TCDbusDispatchSource& self = m_Self(source);
    const std::lock_guard<std::mutex> lock(self.m_lock);
    if (self.m_detached) {
        return G_SOURCE_REMOVE;
    }
    // A handler may iterate the context: then the outer dispatch goes on after this one.
    const std::thread::id outer = std::exchange(self.m_dispatchingThread, std::this_thread::get_id());
    {
        const TCAcquired acquired(self.m_inner.get());
        g_main_context_dispatch(self.m_inner.get());
    }
    self.m_dispatchingThread = outer;
    self.m_dispatched.notify_all();
    return G_SOURCE_CONTINUE;
}

void TCDbusDispatchSource::m_Finalize(GSource* source) noexcept {
    delete &m_Self(source);
}

DBusHandlerResult TCDbusDispatchSource::m_TakeLostReply(DBusConnection* /*connection*/, DBusMessage* message,
                                                        void* data) {
    auto* self = static_cast<TCDbusDispatchSource*>(data);
    const auto waiting = dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_ERROR
                             ? self->m_waitingCalls.find(dbus_message_get_reply_serial(message))
                             : self->m_waitingCalls.end();
    if (waiting == self->m_waitingCalls.end()) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    waiting->second->m_lostReply.reset(dbus_message_ref(message));
    waiting->second->m_semaphore.Signal();
    return DBUS_HANDLER_RESULT_HANDLED;
}

TCDbusSendLock::TCDbusSendLock(DBusConnection* connection)
    : m_dispatchSource(TCDbusDispatchSource::m_Of(connection)) {
    if (m_dispatchSource != nullptr) {
        m_lock = std::unique_lock<std::mutex>(m_dispatchSource->m_lock);
    }
}

TCDbusWaitingCall::TCDbusWaitingCall(DBusConnection* connection, SignalSemaphore& semaphore)
    : m_dispatchSource(TCDbusDispatchSource::m_Of(connection)), m_semaphore(semaphore) {}

TCDbusWaitingCall::~TCDbusWaitingCall() {
    const DbusMessageHandle unused(TakeLostReply());
}

void TCDbusWaitingCall::Begin(dbus_uint32_t number, int timeoutMs) {
    if (m_dispatchSource == nullptr) {
        return;
    }
    m_number = number;
    m_dispatchSource->m_waitingCalls[number] = this;
    const gint64 limitMs = timeoutMs < 0 ? defaultTimeoutMs : timeoutMs;
    if (timeoutMs != INT_MAX &&
        g_get_monotonic_time() + limitMs * microsecondsPerMs < m_dispatchSource->m_pollEnd) {
        g_main_context_wakeup(m_dispatchSource->m_inner.get());
    }
}

DBusMessage* TCDbusWaitingCall::TakeLostReply() {
    if (m_number == 0) {
        return nullptr;
    }
    const std::lock_guard<std::mutex> lock(m_dispatchSource->m_lock);
    m_dispatchSource->m_waitingCalls.erase(m_number);
    m_number = 0;
    return m_lostReply.release();
}

TCDbusDispatchUnlock::TCDbusDispatchUnlock(DBusConnection* connection)
    : m_dispatchSource(TCDbusDispatchSource::m_Of(connection)) {
    if (m_dispatchSource != nullptr) {
        m_dispatchSource->m_lock.unlock();
    }
}

TCDbusDispatchUnlock::~TCDbusDispatchUnlock() {
    if (m_dispatchSource != nullptr) {
        m_dispatchSource->m_lock.lock();
    }
}

} // namespace MavixApiLite
