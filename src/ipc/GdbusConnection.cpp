#include "GdbusConnection.h"

#include "ConnectingThread.h"
#include "GdbusError.h"
#include "GdbusFlush.h"
#include "GdbusMessage.h"
#include "Guard.h"
#include "Log.h"
#include "MavixAssert.h"
#include "MessageFilterContext.h"
#include "SpareDescriptor.h"

#include <cstring>
#include <stdexcept>
#include <utility>

namespace MavixApiLite {

namespace {

constexpr const char* busDriverName = "org.freedesktop.DBus";
constexpr const char* busDriverPath = "/org/freedesktop/DBus";
constexpr std::uint32_t requestNameDoNotQueue = 4;
constexpr std::uint32_t releaseNameReleased = 1;

std::string TextOf(const char* text) {
    if (text == nullptr) {
        throw std::logic_error("TCGdbusConnection: null match rule");
    }
    return text;
}

// Finishes a message and gives what GIO is to send; null when it cannot. GIO prints a critical for an empty
// message and for one that was sent before; of a signature that is too long it writes a wrong length, and the
// bus hangs up.
GDBusMessage* Finish(TIIpcMessage& message, const char* function) {
    constexpr std::size_t longestSignature = 255;
    message.PushEnd();
    auto* raw = static_cast<GDBusMessage*>(message.GetRawMessage(false));
    if (raw == nullptr || g_dbus_message_get_locked(raw) != FALSE) {
        return nullptr;
    }
    if (std::strlen(g_dbus_message_get_signature(raw)) > longestSignature) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function, "Too many arguments");
        return nullptr;
    }
    return raw;
}

// Whether an operation failed; if so its error is logged. The holder copies the operation's name, so it is
// made only then.
bool HasFailed(const char* operation, GError* rawError) {
    if (rawError == nullptr) {
        return false;
    }
    ErrorHandle owned(rawError);
    TCGdbusError error(operation);
    *error.GetRawError() = owned.release();
    return error.CheckErrorAndReset();
}

} // namespace

TCGdbusConnection::TCGdbusConnection()
    : m_connected(false), m_connectingThreadId{}, m_filterId(0), m_owner(nullptr) {}

TCGdbusConnection::~TCGdbusConnection() {
    t_CleanupConnection();
}

bool TCGdbusConnection::Connect(std::string name, TIIpcConnectionOwner* owner) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_connected && !m_connectingThread.joinable()) {
        t_SetConnectingThread(
            std::thread([this, name = std::move(name), owner] { m_RunConnect(name, owner); }));
    }
    return true;
}

bool TCGdbusConnection::WaitConnected() {
    return m_GetConnection() != nullptr;
}

bool TCGdbusConnection::Send(TIIpcMessage& message) {
    if (!m_ApiCallable()) {
        MAVIX_LOGE("[API_LITE] not connected!");
        return false;
    }
    GDBusMessage* raw = Finish(message, __FUNCTION__);
    if (raw == nullptr) {
        return false;
    }
    GError* error = nullptr;
    const gboolean accepted = g_dbus_connection_send_message(m_connection.get(), raw,
                                                             G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, &error);
    return !HasFailed("send_message", error) && accepted != FALSE;
}

bool TCGdbusConnection::SendWithReply(TIIpcMessage& message, int timeoutMs) {
    if (!m_ApiCallable()) {
        MAVIX_LOGE("[API_LITE] not connected!");
        return false;
    }
    GDBusMessage* raw = Finish(message, __FUNCTION__);
    if (raw == nullptr) {
        return false;
    }
    const TCDescriptorLender lender;
    if (!lender.HasLent()) {
        MAVIX_LOGE("[API_LITE] no file descriptor left for a call!");
        return false;
    }
    GError* error = nullptr;
    ObjectHandle<GDBusMessage> reply(g_dbus_connection_send_message_with_reply_sync(
        m_connection.get(), raw, G_DBUS_SEND_MESSAGE_FLAGS_NONE, timeoutMs, nullptr, nullptr, &error));
    if (HasFailed("send_message_with_reply", error)) {
        return false;
    }
    const bool replied = reply != nullptr;
    message.SetRawMessage(reply.release());
    return replied;
}

bool TCGdbusConnection::AddMatch(const char* rule) {
    return m_SendBusRequest("AddMatch", rule, nullptr);
}

bool TCGdbusConnection::RemoveMatch(const char* rule) {
    return m_SendBusRequest("RemoveMatch", rule, nullptr);
}

std::string TCGdbusConnection::GetUniqueName() {
    if (!m_ApiCallable()) {
        MAVIX_LOGE("[API_LITE] not connected!");
        return {};
    }
    const char* name = g_dbus_connection_get_unique_name(m_connection.get());
    if (name == nullptr) {
        MAVIX_LOGE("[API_LITE] no unique name!");
        return {};
    }
    return name;
}

bool TCGdbusConnection::RequestName(const std::string& name) {
    // The request is given a text that ends with the first zero byte.
    if (name.find('\0') != std::string::npos) {
        MAVIX_LOGE("Invalid string");
        return false;
    }
    return m_SendBusRequest("RequestName", name.c_str(), &requestNameDoNotQueue);
}

bool TCGdbusConnection::ReleaseName(const std::string& name) {
    if (!m_ApiCallable()) {
        MAVIX_LOGE("[API_LITE] not connected!");
        return false;
    }
    TCGdbusMessage request;
    if (!m_InitializeBusRequest(request, "ReleaseName", name) || !SendWithReply(request, -1)) {
        MAVIX_LOGE("No reply!");
        return false;
    }
    std::uint32_t answer = 0;
    if (!request.PopUint(answer)) {
        MAVIX_LOGE("Expected Uint!");
        return false;
    }
    if (answer != releaseNameReleased) {
        MAVIX_LOGE("Not an owner %u", answer);
        return false;
    }
    return true;
}

bool TCGdbusConnection::BusHasOwner(const std::string& name, int timeoutMs, bool& hasOwner) {
    if (!m_ApiCallable()) {
        MAVIX_LOGE("[API_LITE] not connected!");
        return false;
    }
    TCGdbusMessage request;
    if (!m_InitializeBusRequest(request, "NameHasOwner", name) || !SendWithReply(request, timeoutMs)) {
        MAVIX_LOGE("Send with reply failed!");
        return false;
    }
    if (!request.PopBool(hasOwner)) {
        MAVIX_LOGE("Expected boolean!");
        return false;
    }
    return true;
}

TIIpcMessageAllocator* TCGdbusConnection::GetMessageAllocatorInstance() {
    return this;
}

std::unique_ptr<TIIpcMessage> TCGdbusConnection::NewMessage(void* raw) {
    auto message = std::make_unique<TCGdbusMessage>();
    if (raw != nullptr) {
        message->SetRawMessage(raw);
    }
    return message;
}

void TCGdbusConnection::DeleteRawMessage(void* raw) {
    const ObjectHandle<GDBusMessage> message(static_cast<GDBusMessage*>(raw));
}

void (*TCGdbusConnection::GetRawMessageDeleter())(void*) {
    return g_object_unref;
}

void TCGdbusConnection::t_SetConnectingThread(std::thread thread) {
    m_connectingThread = std::move(thread);
}

void TCGdbusConnection::t_ConnectErrorHandler() {
    MAVIX_ASSERT_FAIL("false");
}

void TCGdbusConnection::t_CleanupConnection() {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_connectingThread.joinable()) {
        m_connectingThread.join();
    }
    // A message that is dispatched right now may make a request that waits for the connect, and so for the
    // lock.
    lock.unlock();
    m_mainLoopHandler.reset();
    m_sourceHandler.reset();
    lock.lock();
    if (!m_connection) {
        return;
    }
    if (m_owner != nullptr) {
        g_dbus_connection_remove_filter(m_connection.get(), m_filterId);
        m_owner = nullptr;
    }
    if (const TCDescriptorLender lender; lender.HasLent()) {
        FlushBeforeClose(m_connection.get());
        TCGdbusError error("t_CleanupConnection");
        g_dbus_connection_close_sync(m_connection.get(), nullptr, error.GetRawError());
    } else {
        MAVIX_LOGE("[API_LITE] no file descriptor left to flush and close!");
    }
    m_connection.reset();
    m_connected = false;
}

void TCGdbusConnection::Flush() {
    const TCDescriptorLender lender;
    if (m_connected && lender.HasLent()) {
        FlushBeforeExit(m_connection.get());
    }
}

// Body of the connecting thread.
void TCGdbusConnection::m_RunConnect(const std::string& name, TIIpcConnectionOwner* owner) {
    const TCConnectingThreadId connectingThreadId(m_connectingThreadId);
    const bool connected = GuardedCall(MAVIX_LOG_SOURCE_NAME, "m_Connect", __LINE__, false,
                                       [this, &name, owner] { return m_Connect(name, owner); });
    if (!connected) {
        m_connection.reset();
        t_ConnectErrorHandler();
    }
}

bool TCGdbusConnection::m_Connect(const std::string& name, TIIpcConnectionOwner* owner) {
    constexpr int busReadyTimeoutMs = 10000;
    MAVIX_LOGD("[API_LITE][START] %s, m_Connect", name.c_str());
    if (!CanConnectWithDescriptors()) {
        MAVIX_LOGE("[API_LITE] too few file descriptors left to connect!");
        return false;
    }
    if (LwipcWaitEvent("/tmp/dbus_launch", busReadyTimeoutMs) < 0) {
        MAVIX_LOGE("dbus not ready!");
        return false;
    }
    TCGdbusError error("m_Connect");
    const TextHandle address(
        g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, error.GetRawError()));
    if (error.CheckErrorAndReset()) {
        return false;
    }
    MAVIX_ASSERT_RETURN(address, "address", false);
    ObjectHandle<GDBusConnection> connection(g_dbus_connection_new_for_address_sync(
        address.get(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, error.GetRawError()));
    if (error.CheckErrorAndReset()) {
        return false;
    }
    if (!connection) {
        MAVIX_LOGE("Connect failed");
        return false;
    }
    m_connection = std::move(connection);
    g_dbus_connection_set_exit_on_close(m_connection.get(), FALSE);
    if (owner != nullptr && !m_StartDispatching(name, owner)) {
        return false;
    }
    m_connected = true;
    MAVIX_LOGD("[API_LITE][END] Connect");
    return true;
}

bool TCGdbusConnection::m_StartDispatching(const std::string& name, TIIpcConnectionOwner* owner) {
    constexpr int watchdogPeriodSeconds = 30;
    using FilterContextHandle = Handle<MessageFilterContext, MessageFilterContext::Destroy>;
    auto mainLoopHandler = std::make_unique<TCGMainLoopHandler>(std::make_unique<TCWatchdogHandler>());
    auto sourceHandler = std::make_unique<TCGSourceHandler>(this);
    GMainContext* context = mainLoopHandler->Start(name, watchdogPeriodSeconds);
    GAsyncQueue* queue =
        sourceHandler->Start(context, [this](TIIpcMessage& message) { m_MessageHandler(message); });
    FilterContextHandle filterContext(
        new MessageFilterContext{RefMainContext(context).release(), RefAsyncQueue(queue).release()});
    if (!owner->InitializeIpcConnection(this)) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, "m_Connect", "Owner initialization failed!");
        filterContext.reset();
        FlushBeforeClose(m_connection.get());
        TCGdbusError error("m_Connect");
        g_dbus_connection_close_sync(m_connection.get(), nullptr, error.GetRawError());
        m_connection.reset();
        sourceHandler.reset();
        mainLoopHandler.reset();
        return false;
    }
    m_owner = owner;
    m_mainLoopHandler = std::move(mainLoopHandler);
    m_sourceHandler = std::move(sourceHandler);
    m_filterId = g_dbus_connection_add_filter(m_connection.get(), m_MessageHandlerHelper,
                                              filterContext.release(), MessageFilterContext::Destroy);
    return true;
}

GDBusConnection* TCGdbusConnection::m_GetConnection() {
    return AwaitConnection(m_mutex, m_connectingThread, m_connected, m_connection, MAVIX_LOG_SOURCE_NAME);
}

bool TCGdbusConnection::m_ApiCallable() {
    return m_connected || IsConnectingThread(m_connectingThreadId, MAVIX_LOG_SOURCE_NAME) || WaitConnected();
}

bool TCGdbusConnection::m_InitializeBusRequest(TIIpcMessage& request, const char* member,
                                               const std::string& argument) {
    return request.Initialize(TIIpcMessage::MethodCall, busDriverName, busDriverPath, busDriverName,
                              member) &&
           request.PushString(argument);
}

// Fire and forget: success says only that the request left.
bool TCGdbusConnection::m_SendBusRequest(const char* member, const char* argument,
                                         const std::uint32_t* flags) {
    if (!m_ApiCallable()) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, member, "[API_LITE] not connected!");
        return false;
    }
    TCGdbusMessage request;
    if (!m_InitializeBusRequest(request, member, TextOf(argument))) {
        return false;
    }
    if (flags != nullptr) {
        request.PushUint(*flags);
    }
    request.SetNoReply();
    return Send(request);
}

// The one place where GLib's dispatching enters the owner: whatever it throws counts as not handled.
void TCGdbusConnection::m_MessageHandler(TIIpcMessage& message) {
    const bool handled = GuardedCall(MAVIX_LOG_SOURCE_NAME, __FUNCTION__, __LINE__, false, [this, &message] {
        return m_owner != nullptr && m_owner->FilterIpcMessage(message);
    });
    if (!handled) {
        m_AnswerUnhandled(message);
    }
}

void TCGdbusConnection::m_AnswerUnhandled(TIIpcMessage& message) {
    TIIpcMessage::IpcMessageType methodCall = TIIpcMessage::MethodCall;
    if (!message.IsOfType(&methodCall, nullptr, nullptr)) {
        return;
    }
    MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, "m_MessageHandler", "Unhandled method");
    if (message.InitializeErrorReply(message, "org.freedesktop.DBus.Error.UnknownMethod", "")) {
        Send(message);
    }
}

// Runs in GIO's worker, which all connections of the process share: it queues, wakes and touches nothing
// else.
GDBusMessage* TCGdbusConnection::m_MessageHandlerHelper(GDBusConnection* /*connection*/,
                                                        GDBusMessage* message, gboolean incoming,
                                                        gpointer data) {
    if (incoming == FALSE) {
        return message;
    }
    const auto* filterContext = static_cast<const MessageFilterContext*>(data);
    if (filterContext == nullptr || filterContext->queue == nullptr) {
        MAVIX_LOGE("No context or queue!");
        return message;
    }
    const GDBusMessageType type = g_dbus_message_get_message_type(message);
    if (type != G_DBUS_MESSAGE_TYPE_METHOD_CALL && type != G_DBUS_MESSAGE_TYPE_SIGNAL) {
        return message;
    }
    g_async_queue_push(filterContext->queue, message);
    g_main_context_wakeup(filterContext->context);
    return nullptr;
}

} // namespace MavixApiLite
