#ifndef MAVIX_DBUS_FLUSH_H
#define MAVIX_DBUS_FLUSH_H

#include <dbus/dbus.h>

namespace MavixApiLite {

// Waits, for at most 1 s, until everything accepted for sending has left. Nobody dispatches the connection
// meanwhile.
void FlushBeforeClose(DBusConnection* connection);

} // namespace MavixApiLite

#endif
