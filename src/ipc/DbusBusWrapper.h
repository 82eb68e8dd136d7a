#ifndef MAVIX_DBUS_BUS_WRAPPER_H
#define MAVIX_DBUS_BUS_WRAPPER_H

#include "IpcConnection.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace MavixApiLite {

// Watches one well-known bus name: whether it has an owner, when that changes, and whether it was greeted.
// Shared by the client's table and by those who just look at it. The greeting flag and the wait are for any
// thread; subscribing and destruction are serialised by the client.
class MAVIX_API_EXPORT DbusBusWrapper {
public:
    // What kind of bus message a message is.
    enum EBusMessage : std::int32_t { NotABusMessage = 0, OwnerChanged = 1, IntrospectionRequest = 2 };

    DbusBusWrapper(const std::string& busName, std::shared_ptr<TIIpcConnection> connection);
    // Takes the match rule back when it was added.
    ~DbusBusWrapper();
    DbusBusWrapper(const DbusBusWrapper&) = delete;
    DbusBusWrapper& operator=(const DbusBusWrapper&) = delete;

    // False for the first caller, who is to greet the bus; true for every later one.
    bool CheckAndMarkHelloSent();
    // Adds the match rule for owner changes of this name. False, without effect, when it was added before.
    bool SubscribeForOwnerChanged();
    // Waits until the name has an owner: 25 s at most, 50 s in the debug flavour, and the last
    // question. Makes synchronous requests. Without a connection: assertion.
    bool WaitForCreate();

    // One of EBusMessage. Throws what TIIpcMessage::IsOfType throws.
    static std::int32_t IsBusMessage(TIIpcMessage& message);

private:
    friend struct TestAccess;

    static std::string m_OwnerChangedRule(const std::string& busName);

    std::atomic<bool> m_helloSent;
    std::string m_busName;
    std::shared_ptr<TIIpcConnection> m_ipcConnection;
    bool m_subscribed;
};

} // namespace MavixApiLite

#endif
