#ifndef MAVIX_GDBUS_FLUSH_H
#define MAVIX_GDBUS_FLUSH_H

#include <gio/gio.h>

namespace MavixApiLite {

// Waits, for at most 1 s, until everything accepted for sending has left. A bus that has stopped reading is
// then cut off, so that closing the connection cannot wait for it either.
void FlushBeforeClose(GDBusConnection* connection);

// The same wait, after which the connection stays as it is.
void FlushBeforeExit(GDBusConnection* connection);

} // namespace MavixApiLite

#endif
