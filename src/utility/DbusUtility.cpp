#include "DbusUtility.h"

#include "DbusDispatchSource.h"
#include "DbusErrorWrapper.h"
#include "Handles.h"
#include "Log.h"
#include "SignalSemaphore.h"

#include <algorithm>
#include <cstdint>
#include <memory>

namespace MavixApiLite {

namespace DbusUtility {

namespace {

void DeleteSemaphore(void* semaphore) {
    delete static_cast<SignalSemaphore*>(semaphore);
}

// A method call to the bus with one text, and a number where one is given; null when that cannot be built.
DbusMessageHandle NewBusRequest(const char* member, const char* name, const std::uint32_t* number,
                                const char* function) {
    DbusMessageHandle request(
        dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, member));
    if (!request) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function,
                     "[API_LITE] dbus_message_new_method_call failed");
        return nullptr;
    }
    DBusMessageIter arguments;
    dbus_message_iter_init_append(request.get(), &arguments);
    // libdbus ends the process of who hands it a text that is not UTF-8.
    if (name == nullptr || dbus_validate_utf8(name, nullptr) == FALSE ||
        dbus_message_iter_append_basic(&arguments, DBUS_TYPE_STRING, &name) == FALSE ||
        (number != nullptr &&
         dbus_message_iter_append_basic(&arguments, DBUS_TYPE_UINT32, number) == FALSE)) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function,
                     "[API_LITE] dbus_message_append_args failed");
        return nullptr;
    }
    return request;
}

} // namespace

DBusMessage* SendWithReply(DBusConnection* connection, DBusMessage* message, int timeoutMs) {
    constexpr int defaultTimeout = -1;
    auto owned = std::make_unique<SignalSemaphore>();
    SignalSemaphore& semaphore = *owned;
    PendingCallHandle pending;
    TCDbusWaitingCall call(connection, semaphore);
    {
        const TCDbusSendLock lock(connection);
        DBusPendingCall* created = nullptr;
        if (dbus_connection_send_with_reply(connection, message, &created,
                                            std::max(timeoutMs, defaultTimeout)) == FALSE) {
            MAVIX_LOGE("[API_LITE] Cannot send call message. Out of memory.");
            return nullptr;
        }
        pending.reset(created);
        if (pending) {
            call.Begin(dbus_message_get_serial(message), timeoutMs);
        }
    }
    if (!pending) {
        MAVIX_LOGE("[API_LITE] Pending call error. Probably connection is broken.");
        return nullptr;
    }
    if (dbus_pending_call_set_notify(pending.get(), m_PendingCallCallback, &semaphore, DeleteSemaphore) ==
        FALSE) {
        MAVIX_LOGE("[API_LITE] Cannot set notify callback. Out of memory.");
        return nullptr;
    }
    // From now on the pending call destroys it: the notification may come after the wait has ended.
    static_cast<void>(owned.release());
    if (dbus_pending_call_get_completed(pending.get()) == FALSE) {
        semaphore.Wait();
    }
    if (dbus_pending_call_get_completed(pending.get()) == FALSE) {
        return call.TakeLostReply();
    }
    return dbus_pending_call_steal_reply(pending.get());
}

void m_PendingCallCallback(DBusPendingCall* pending, void* data) {
    if (dbus_pending_call_get_completed(pending) == FALSE) {
        MAVIX_LOGE("[API_LITE] Pending not completed!");
        return;
    }
    static_cast<SignalSemaphore*>(data)->Signal();
}

bool BusHasOwner(DBusConnection* connection, const char* name, int timeoutMs, bool& hasOwner) {
    const DbusMessageHandle request = NewBusRequest("NameHasOwner", name, nullptr, __FUNCTION__);
    if (!request) {
        return false;
    }
    const DbusMessageHandle reply(SendWithReply(connection, request.get(), timeoutMs));
    if (!reply) {
        MAVIX_LOGE("[API_LITE] Cannot create reply message. Out of memory.");
        return false;
    }
    if (dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_ERROR) {
        const char* errorName = dbus_message_get_error_name(reply.get());
        MAVIX_LOGE("[API_LITE] reply error: '%s'", errorName != nullptr ? errorName : "");
        return false;
    }
    DbusErrorWrapper error("dbus_message_get_args");
    dbus_bool_t answer = FALSE;
    const bool isRead = dbus_message_get_args(reply.get(), error.GetDbusHandle(), DBUS_TYPE_BOOLEAN, &answer,
                                              DBUS_TYPE_INVALID) != FALSE;
    // The cause is logged first.
    if (error.CheckErrorAndReset() || !isRead) {
        MAVIX_LOGE("[API_LITE] dbus_message_get_args failed.");
        return false;
    }
    hasOwner = answer == 1;
    return true;
}

bool RequestNameAsync(DBusConnection* connection, const char* name, int flags) {
    const auto number = static_cast<std::uint32_t>(flags);
    const DbusMessageHandle request = NewBusRequest("RequestName", name, &number, __FUNCTION__);
    if (!request) {
        return false;
    }
    const TCDbusSendLock lock(connection);
    return dbus_connection_send(connection, request.get(), nullptr) != FALSE;
}

} // namespace DbusUtility

} // namespace MavixApiLite
