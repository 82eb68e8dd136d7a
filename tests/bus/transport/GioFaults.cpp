#include "GioFaults.h"

#include <dlfcn.h>
#include <gio/gio.h>

namespace MavixTest {

std::atomic<bool> GioFaults::withoutAddress{false};
std::atomic<bool> GioFaults::withoutConnection{false};
std::atomic<int> GioFaults::usedFlags{-1};
std::function<void()> GioFaults::afterFilter;

} // namespace MavixTest

using MavixTest::GioFaults;

// These stand before GIO's functions of the same name.
extern "C" {

gchar* g_dbus_address_get_for_bus_sync(GBusType type, GCancellable* cancellable, GError** error) {
    if (GioFaults::withoutAddress) {
        return nullptr;
    }
    const auto real = reinterpret_cast<decltype(&g_dbus_address_get_for_bus_sync)>(
        dlsym(RTLD_NEXT, "g_dbus_address_get_for_bus_sync"));
    return real(type, cancellable, error);
}

GDBusConnection* g_dbus_connection_new_for_address_sync(const gchar* address, GDBusConnectionFlags flags,
                                                        GDBusAuthObserver* observer,
                                                        GCancellable* cancellable, GError** error) {
    GioFaults::usedFlags = flags;
    if (GioFaults::withoutConnection) {
        return nullptr;
    }
    const auto real = reinterpret_cast<decltype(&g_dbus_connection_new_for_address_sync)>(
        dlsym(RTLD_NEXT, "g_dbus_connection_new_for_address_sync"));
    return real(address, flags, observer, cancellable, error);
}

guint g_dbus_connection_add_filter(GDBusConnection* connection, GDBusMessageFilterFunction filter,
                                   gpointer data, GDestroyNotify destroy) {
    const auto real = reinterpret_cast<decltype(&g_dbus_connection_add_filter)>(
        dlsym(RTLD_NEXT, "g_dbus_connection_add_filter"));
    const guint id = real(connection, filter, data, destroy);
    if (GioFaults::afterFilter) {
        GioFaults::afterFilter();
    }
    return id;
}

} // extern "C"
