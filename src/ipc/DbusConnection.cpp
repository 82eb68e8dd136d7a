#include "DbusConnection.h"

#include "ConnectingThread.h"
#include "DbusDispatchSource.h"
#include "DbusErrorWrapper.h"
#include "DbusFlush.h"
#include "DbusMessage.h"
#include "DbusUtility.h"
#include "Guard.h"
#include "LiteUtility.h"
#include "Log.h"
#include "MavixAssert.h"
#include "SpareDescriptor.h"

#include <climits>
#include <new>
#include <stdexcept>
#include <utility>

namespace MavixApiLite {

namespace {

// The number whose failure stops the process, whatever the connection's own maximum is.
constexpr int MAX_DBUS_CONNECTION_ATTEMPTS = 60;
constexpr int requestNameReplaceExisting = 2;

// Whether a name is what libdbus will take for it: that ends with the first zero byte.
bool IsCText(const std::string& name, const char* function) {
    if (name.find('\0') != std::string::npos) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function, "Invalid string");
        return false;
    }
    return true;
}

// A rule that D-Bus can carry; libdbus ends the process of who hands it another.
bool IsMatchRule(const char* rule, const char* function) {
    if (rule == nullptr) {
        throw std::logic_error("TCDbusConnection: null match rule");
    }
    if (dbus_validate_utf8(rule, nullptr) == FALSE) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function, "Invalid string");
        return false;
    }
    return true;
}

} // namespace

TCDbusConnection::TCDbusConnection(int maxAttempts, bool useDefaultContext)
    : m_maxAttempts(maxAttempts), m_connectingThreadId{}, m_connected(false),
      m_useDefaultContext(useDefaultContext), m_owner(nullptr) {
    dbus_threads_init_default();
}

TCDbusConnection::~TCDbusConnection() {
    t_CleanupConnection();
}

bool TCDbusConnection::Connect(std::string name, TIIpcConnectionOwner* owner) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_connected && !m_connectingThread.joinable()) {
        m_connectingThread =
            std::thread([this, name = std::move(name), owner] { m_RunConnect(name, owner); });
    }
    return true;
}

bool TCDbusConnection::WaitConnected() {
    return m_GetConnection() != nullptr;
}

bool TCDbusConnection::Send(TIIpcMessage& message) {
    MAVIX_LOGD("[API_LITE] called");
    if (!m_ApiCallable()) {
        MAVIX_LOGE("[API_LITE] not connected!");
        return false;
    }
    message.PushEnd();
    auto* raw = static_cast<DBusMessage*>(message.GetRawMessage(false));
    if (raw == nullptr) {
        return false;
    }
    TCDbusMessage::m_MarkSent(raw);
    const TCDbusSendLock lock(m_connection.get());
    return dbus_connection_send(m_connection.get(), raw, nullptr) != FALSE;
}

bool TCDbusConnection::SendWithReply(TIIpcMessage& message, int timeoutMs) {
    MAVIX_LOGD("[API_LITE] called");
    if (!m_ApiCallable()) {
        MAVIX_LOGE("[API_LITE] not connected!");
        return false;
    }
    message.PushEnd();
    auto* raw = static_cast<DBusMessage*>(message.GetRawMessage(false));
    if (raw == nullptr) {
        return false;
    }
    DBusMessage* reply = DbusUtility::SendWithReply(m_connection.get(), raw, timeoutMs);
    message.SetRawMessage(reply);
    return reply != nullptr;
}

bool TCDbusConnection::AddMatch(const char* rule) {
    MAVIX_LOGD("[API_LITE] called");
    if (!m_ApiCallable()) {
        MAVIX_LOGE("[API_LITE] not connected!");
        return false;
    }
    if (!IsMatchRule(rule, __FUNCTION__)) {
        return false;
    }
    const TCDbusSendLock lock(m_connection.get());
    dbus_bus_add_match(m_connection.get(), rule, nullptr);
    return true;
}

bool TCDbusConnection::RemoveMatch(const char* rule) {
    MAVIX_LOGD("[API_LITE] called");
    if (!m_ApiCallable()) {
        MAVIX_LOGE("[API_LITE] not connected!");
        return false;
    }
    if (!IsMatchRule(rule, __FUNCTION__)) {
        return false;
    }
    DbusErrorWrapper error("dbus_bus_remove_match");
    {
        const TCDbusSendLock lock(m_connection.get());
        dbus_bus_remove_match(m_connection.get(), rule, error.GetDbusHandle());
    }
    return !error.CheckErrorAndReset();
}

std::string TCDbusConnection::GetUniqueName() {
    MAVIX_LOGD("[API_LITE] called");
    if (!m_ApiCallable()) {
        MAVIX_LOGE("[API_LITE] not connected!");
        return {};
    }
    const char* name = dbus_bus_get_unique_name(m_connection.get());
    if (name == nullptr) {
        throw std::logic_error("TCDbusConnection: no unique name");
    }
    return name;
}

bool TCDbusConnection::RequestName(const std::string& name) {
    MAVIX_LOGD("[API_LITE] called");
    if (!m_ApiCallable()) {
        MAVIX_LOGE("[API_LITE] not connected!");
        return false;
    }
    return IsCText(name, __FUNCTION__) &&
           DbusUtility::RequestNameAsync(m_connection.get(), name.c_str(), requestNameReplaceExisting);
}

bool TCDbusConnection::ReleaseName(const std::string& name) {
    MAVIX_LOGD("[API_LITE] called");
    if (!m_ApiCallable()) {
        MAVIX_LOGE("[API_LITE] not connected!");
        return false;
    }
    if (!IsCText(name, __FUNCTION__)) {
        return false;
    }
    DbusErrorWrapper error("dbus_bus_release_name");
    int answer = -1;
    // libdbus ends the process of who hands it something else than a name.
    if (dbus_validate_bus_name(name.c_str(), error.GetDbusHandle()) != FALSE) {
        const TCDbusSendLock lock(m_connection.get());
        answer = dbus_bus_release_name(m_connection.get(), name.c_str(), error.GetDbusHandle());
    }
    if (error.CheckErrorAndReset()) {
        return false;
    }
    if (answer < 0) {
        MAVIX_LOGE("[API_LITE] request failed!");
        return false;
    }
    return true;
}

bool TCDbusConnection::BusHasOwner(const std::string& name, int timeoutMs, bool& hasOwner) {
    MAVIX_LOGD("[API_LITE] called %d", timeoutMs);
    if (!m_ApiCallable()) {
        MAVIX_LOGE("[API_LITE] not connected!");
        return false;
    }
    return IsCText(name, __FUNCTION__) &&
           DbusUtility::BusHasOwner(m_connection.get(), name.c_str(), timeoutMs, hasOwner);
}

TIIpcMessageAllocator* TCDbusConnection::GetMessageAllocatorInstance() {
    return this;
}

std::unique_ptr<TIIpcMessage> TCDbusConnection::NewMessage(void* raw) {
    MAVIX_LOGD("[API_LITE] called");
    DbusMessageHandle adopted(static_cast<DBusMessage*>(raw));
    // The dispatch thread, which is in C frames, comes here, too.
    std::unique_ptr<TIIpcMessage> message(new (std::nothrow) TCDbusMessage);
    if (message && adopted) {
        message->SetRawMessage(adopted.release());
    }
    return message;
}

void TCDbusConnection::DeleteRawMessage(void* raw) {
    const DbusMessageHandle message(static_cast<DBusMessage*>(raw));
}

void (*TCDbusConnection::GetRawMessageDeleter())(void*) {
    return reinterpret_cast<void (*)(void*)>(dbus_message_unref);
}

void TCDbusConnection::t_CleanupConnection() {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_connectingThread.joinable()) {
        m_connectingThread.join();
    }
    // A message that is dispatched right now may make a request that waits for the connect, and so for the
    // lock.
    lock.unlock();
    m_mainLoopHandler.reset();
    if (!m_connection) {
        return;
    }
    TCDbusDispatchSource::Detach(m_connection.get());
    lock.lock();
    if (m_owner != nullptr) {
        dbus_connection_remove_filter(m_connection.get(), m_MessageHandlerHelper, this);
        m_owner = nullptr;
    }
    m_Close();
    m_connected = false;
}

// Body of the connecting thread.
void TCDbusConnection::m_RunConnect(const std::string& name, TIIpcConnectionOwner* owner) {
    constexpr unsigned long pauseMs = 1000;
    const TCConnectingThreadId connectingThreadId(m_connectingThreadId);
    int attempts = 0;
    while (!GuardedCall(MAVIX_LOG_SOURCE_NAME, "m_Connect", __LINE__, false,
                        [this, &name, owner] { return m_Connect(name, owner); })) {
        // What the attempt has left, however it ended: by an exception, too.
        m_mainLoopHandler.reset();
        if (m_connection) {
            TCDbusDispatchSource::Detach(m_connection.get());
            m_Close();
        }
        ++attempts;
        if (attempts >= m_maxAttempts) {
            MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, "Connect", "Connection failed!");
            break;
        }
        LiteUtility::SleepMs(pauseMs);
    }
    MAVIX_ASSERT(attempts != MAX_DBUS_CONNECTION_ATTEMPTS);
}

// The name by value belongs to the exported signature.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
bool TCDbusConnection::m_Connect(std::string name, TIIpcConnectionOwner* owner) {
    MAVIX_LOGD("[API_LITE][START] %s, m_Connect", name.c_str());
    // GLib stops a process that has no descriptor left for a main context.
    if (!AreDescriptorsLeftToConnect()) {
        MAVIX_LOGE("[API_LITE] too few file descriptors left to connect!");
        return false;
    }
    DbusErrorWrapper error("dbus_bus_get_private");
    DbusConnectionHandle connection(dbus_bus_get_private(DBUS_BUS_SYSTEM, error.GetDbusHandle()));
    if (error.CheckErrorAndReset()) {
        return false;
    }
    if (!connection) {
        MAVIX_LOGE("[API_LITE][END] %s, dbus_bus_get_private failed", name.c_str());
        return false;
    }
    m_connection = std::move(connection);
    dbus_connection_set_exit_on_disconnect(m_connection.get(), FALSE);
    // Messages that wait for the application must not keep the answers to calls from being read. Without a
    // limit libdbus also does not touch its watches when a message is freed.
    dbus_connection_set_max_received_size(m_connection.get(), LONG_MAX);
    dbus_connection_set_max_received_unix_fds(m_connection.get(), LONG_MAX);
    if (!m_StartDispatching(name, owner)) {
        return false;
    }
    m_connected = true;
    MAVIX_LOGI("[API_LITE][END] %s, m_Connect", name.c_str());
    return true;
}

bool TCDbusConnection::m_StartDispatching(const std::string& name, TIIpcConnectionOwner* owner) {
    constexpr int watchdogPeriodSeconds = 30;
    GMainContext* context = nullptr;
    if (!m_useDefaultContext) {
        m_mainLoopHandler = std::make_unique<TCGMainLoopHandler>(std::make_unique<TCWatchdogHandler>());
        context = m_mainLoopHandler->Start(name, watchdogPeriodSeconds);
    }
    if (!TCDbusDispatchSource::Attach(m_connection.get(), context)) {
        return false;
    }
    if (owner == nullptr) {
        return true;
    }
    const bool initialized = GuardedCall(MAVIX_LOG_SOURCE_NAME, "m_Connect", __LINE__, false,
                                         [this, owner] { return owner->InitializeIpcConnection(this); });
    if (!initialized) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, "m_Connect",
                     "[API_LITE][END] %s, initializer failed", name.c_str());
        return false;
    }
    // No message is dispatched between the two.
    const TCDbusSendLock lock(m_connection.get());
    if (dbus_connection_add_filter(m_connection.get(), m_MessageHandlerHelper, this, nullptr) == FALSE) {
        return false;
    }
    m_owner = owner;
    return true;
}

void TCDbusConnection::m_Close() {
    FlushBeforeClose(m_connection.get());
    m_connection.reset();
}

DBusConnection* TCDbusConnection::m_GetConnection() {
    return AwaitConnection(m_mutex, m_connectingThread, m_connected, m_connection, MAVIX_LOG_SOURCE_NAME);
}

bool TCDbusConnection::m_ApiCallable() {
    if (m_connected || IsConnectingThread(m_connectingThreadId, MAVIX_LOG_SOURCE_NAME)) {
        return true;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_connected && !m_connectingThread.joinable()) {
            MAVIX_LOGE("No connection thread!");
            return false;
        }
    }
    return WaitConnected();
}

// The one place where dispatching enters the owner: whatever it throws counts as not handled.
bool TCDbusConnection::m_HandleMessage(DBusMessage* raw) {
    constexpr const char* function = "m_MessageHandlerHelper";
    TIIpcConnectionOwner* owner = m_owner;
    if (owner == nullptr) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function, "No owner!");
        return false;
    }
    // Not through the table, which destruction may be changing at the moment.
    const std::unique_ptr<TIIpcMessage> message = TCDbusConnection::NewMessage(dbus_message_ref(raw));
    if (!message) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function, "No message!");
        return false;
    }
    const bool handled = GuardedCall(MAVIX_LOG_SOURCE_NAME, function, __LINE__, false,
                                     [owner, &message] { return owner->FilterIpcMessage(*message); });
    if (!handled) {
        MAVIX_LOG_AS(MAVIX_LOG_DEBUG, MAVIX_LOG_SOURCE_NAME, function, "Not handled!");
    }
    return handled;
}

DBusHandlerResult TCDbusConnection::m_MessageHandlerHelper(DBusConnection* connection, DBusMessage* message,
                                                           void* data) {
    const TCDbusDispatchUnlock unlock(connection);
    const bool handled = static_cast<TCDbusConnection*>(data)->m_HandleMessage(message);
    return handled ? DBUS_HANDLER_RESULT_HANDLED : DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

} // namespace MavixApiLite
