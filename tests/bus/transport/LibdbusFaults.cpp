#include "LibdbusFaults.h"

#include <cerrno>
#include <dbus/dbus.h>
#include <dlfcn.h>
#include <pthread.h>

namespace MavixTest {

std::atomic<const char*> TCLibdbusFault::m_failing{nullptr};

} // namespace MavixTest

using MavixTest::TCLibdbusFault;

// Defines a function that stands before libdbus's own of the same name.
#define FAULTY(result, function, parameters, arguments, failure)                                             \
    result function parameters {                                                                             \
        static const auto real = reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function));         \
        return TCLibdbusFault::Fails(#function) ? (failure) : real arguments;                                \
    }

extern "C" {

FAULTY(DBusConnection*, dbus_bus_get_private, (DBusBusType type, DBusError* error), (type, error), nullptr)
FAULTY(const char*, dbus_bus_get_unique_name, (DBusConnection * connection), (connection), nullptr)
FAULTY(int, dbus_bus_release_name, (DBusConnection * connection, const char* name, DBusError* error),
       (connection, name, error), -1)
FAULTY(dbus_bool_t, dbus_connection_add_filter,
       (DBusConnection * connection, DBusHandleMessageFunction filter, void* data, DBusFreeFunction free),
       (connection, filter, data, free), FALSE)
FAULTY(dbus_bool_t, dbus_connection_send,
       (DBusConnection * connection, DBusMessage* message, dbus_uint32_t* serial),
       (connection, message, serial), FALSE)
FAULTY(dbus_bool_t, dbus_connection_send_with_reply,
       (DBusConnection * connection, DBusMessage* message, DBusPendingCall** pending, int timeoutMs),
       (connection, message, pending, timeoutMs), FALSE)
FAULTY(dbus_bool_t, dbus_connection_set_data,
       (DBusConnection * connection, dbus_int32_t slot, void* data, DBusFreeFunction free),
       (connection, slot, data, free), FALSE)
FAULTY(dbus_bool_t, dbus_pending_call_set_notify,
       (DBusPendingCall * pending, DBusPendingCallNotifyFunction notify, void* data, DBusFreeFunction free),
       (pending, notify, data, free), FALSE)
FAULTY(DBusMessage*, dbus_message_new_error, (DBusMessage * request, const char* name, const char* text),
       (request, name, text), nullptr)
FAULTY(DBusMessage*, dbus_message_new_method_return, (DBusMessage * request), (request), nullptr)
FAULTY(DBusMessage*, dbus_message_new_method_call,
       (const char* bus, const char* path, const char* interface, const char* member),
       (bus, path, interface, member), nullptr)
FAULTY(DBusMessage*, dbus_message_new_signal, (const char* path, const char* interface, const char* member),
       (path, interface, member), nullptr)
FAULTY(dbus_bool_t, dbus_message_set_destination, (DBusMessage * message, const char* destination),
       (message, destination), FALSE)
FAULTY(dbus_bool_t, dbus_message_iter_append_basic, (DBusMessageIter * iterator, int type, const void* value),
       (iterator, type, value), FALSE)
FAULTY(dbus_bool_t, dbus_message_iter_append_fixed_array,
       (DBusMessageIter * iterator, int type, const void* values, int count), (iterator, type, values, count),
       FALSE)
FAULTY(dbus_bool_t, dbus_message_iter_open_container,
       (DBusMessageIter * iterator, int type, const char* contents, DBusMessageIter* inner),
       (iterator, type, contents, inner), FALSE)

// The standard library names it, so the linker wants to show it.
__attribute__((visibility("default")))
FAULTY(int, pthread_create,
       (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* data),
       (thread, attributes, body, data), EAGAIN)

} // extern "C"
