#include "DbusFlush.h"

#include <chrono>

namespace MavixApiLite {

void FlushBeforeClose(DBusConnection* connection) {
    using Clock = std::chrono::steady_clock;
    using std::chrono::milliseconds;
    const Clock::time_point limit = Clock::now() + milliseconds(1000);
    while (dbus_connection_get_is_connected(connection) != FALSE &&
           dbus_connection_has_messages_to_send(connection) != FALSE) {
        const auto left = std::chrono::duration_cast<milliseconds>(limit - Clock::now());
        if (left <= milliseconds::zero()) {
            return;
        }
        dbus_connection_read_write(connection, static_cast<int>(left.count()));
    }
}

} // namespace MavixApiLite
