#ifndef MAVIX_DBUS_UTILITY_H
#define MAVIX_DBUS_UTILITY_H

#include <dbus/dbus.h>

namespace MavixApiLite {

// Calls over a libdbus connection. May be used on any thread, except that those that wait must not be used
// on the thread that dispatches the connection: it is the one that wakes them. Time limits are in ms; -1 is
// libdbus's default.
namespace DbusUtility {

// The reply, an error reply included, with one reference for the caller; null, and a line, when there is
// none.
DBusMessage* SendWithReply(DBusConnection* connection, DBusMessage* message, int timeoutMs);
// Asks the bus; whether it has answered. The answer goes to `hasOwner`.
bool BusHasOwner(DBusConnection* connection, const char* name, int timeoutMs, bool& hasOwner);
// Asks the bus for a name and does not wait; whether the request was accepted for sending.
bool RequestNameAsync(DBusConnection* connection, const char* name, int flags);
// Wakes the caller that waits for this call; `data` is its SignalSemaphore.
void m_PendingCallCallback(DBusPendingCall* pending, void* data);

} // namespace DbusUtility

} // namespace MavixApiLite

#endif
