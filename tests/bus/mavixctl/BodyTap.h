#ifndef MAVIX_TEST_BODY_TAP_H
#define MAVIX_TEST_BODY_TAP_H

#include <dbus/dbus.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace MavixTest {

// A call to the service and what answered it, with the bodies as they stood in the messages, byte for byte.
struct TappedCall {
    std::string interface;
    std::string body;
    int answerType = DBUS_MESSAGE_TYPE_INVALID; // until it is answered
    std::string errorName;
    std::string signature; // of the answer
    std::string answer;
};

// A monitor of a bus that interprets nothing. Owner: the test; one thread.
class TCBodyTap final {
public:
    // Returns when it monitors. Throws std::runtime_error.
    explicit TCBodyTap(const std::string& address);

    // All calls so far, in their order, up to the answered one of an interface that ends them. Throws
    // std::runtime_error when that does not come in time.
    std::vector<TappedCall> CallsUpTo(const std::string& lastInterface);

private:
    struct Close {
        void operator()(DBusConnection* connection) const;
    };

    std::unique_ptr<DBusConnection, Close> m_connection;
};

} // namespace MavixTest

#endif
