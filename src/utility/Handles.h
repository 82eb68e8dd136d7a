#ifndef MAVIX_HANDLES_H
#define MAVIX_HANDLES_H

#include <dbus/dbus.h>
#include <gio/gio.h>

#include <memory>
#include <unistd.h>
#include <utility>

namespace MavixApiLite {

// Deletes through a plain function; stateless, so that a handle is as small as a pointer.
template <auto Free>
struct Deleter {
    template <class T>
    void operator()(T* pointer) const noexcept {
        Free(pointer);
    }
};

// Owns one reference of a C object. A handle made from a pointer adopts the caller's reference; the Ref*
// functions below take a new one.
template <class T, auto Free>
using Handle = std::unique_ptr<T, Deleter<Free>>;

template <class T>
using ObjectHandle = Handle<T, g_object_unref>;
using MainContextHandle = Handle<GMainContext, g_main_context_unref>;
using MainLoopHandle = Handle<GMainLoop, g_main_loop_unref>;
using SourceHandle = Handle<GSource, g_source_unref>;
using AsyncQueueHandle = Handle<GAsyncQueue, g_async_queue_unref>;
using VariantHandle = Handle<GVariant, g_variant_unref>;
using ErrorHandle = Handle<GError, g_error_free>;
using TextHandle = Handle<char, g_free>;
using DbusMessageHandle = Handle<DBusMessage, dbus_message_unref>;
using PendingCallHandle = Handle<DBusPendingCall, dbus_pending_call_unref>;

// A private connection of libdbus must be closed before its last reference is dropped.
inline void CloseDbusConnection(DBusConnection* connection) {
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
}
using DbusConnectionHandle = Handle<DBusConnection, CloseDbusConnection>;

static_assert(sizeof(MainContextHandle) == sizeof(GMainContext*), "a handle costs no more than a pointer");

inline MainContextHandle RefMainContext(GMainContext* context) {
    return MainContextHandle(context != nullptr ? g_main_context_ref(context) : nullptr);
}

inline AsyncQueueHandle RefAsyncQueue(GAsyncQueue* queue) {
    return AsyncQueueHandle(queue != nullptr ? g_async_queue_ref(queue) : nullptr);
}

template <class T>
ObjectHandle<T> RefObject(T* object) {
    return ObjectHandle<T>(object != nullptr ? static_cast<T*>(g_object_ref(object)) : nullptr);
}

// Turns a floating variant into an owned one.
inline VariantHandle SinkVariant(GVariant* variant) {
    return VariantHandle(variant != nullptr ? g_variant_ref_sink(variant) : nullptr);
}

// Owns a file descriptor; negative is empty.
class TCFileDescriptor final {
public:
    TCFileDescriptor() = default;
    explicit TCFileDescriptor(int descriptor) : m_descriptor(descriptor) {}
    TCFileDescriptor(TCFileDescriptor&& other) noexcept : m_descriptor(other.Release()) {}
    TCFileDescriptor& operator=(TCFileDescriptor&& other) noexcept {
        if (this != &other) {
            Close();
            m_descriptor = other.Release();
        }
        return *this;
    }
    TCFileDescriptor(const TCFileDescriptor&) = delete;
    TCFileDescriptor& operator=(const TCFileDescriptor&) = delete;
    ~TCFileDescriptor() { Close(); }

    int Get() const { return m_descriptor; }
    explicit operator bool() const { return m_descriptor >= 0; }
    int Release() { return std::exchange(m_descriptor, -1); }
    void Close() {
        if (m_descriptor >= 0) {
            ::close(m_descriptor);
            m_descriptor = -1;
        }
    }

private:
    int m_descriptor = -1;
};

} // namespace MavixApiLite

#endif
