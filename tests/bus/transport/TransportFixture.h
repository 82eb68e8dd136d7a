#ifndef MAVIX_TEST_TRANSPORT_FIXTURE_H
#define MAVIX_TEST_TRANSPORT_FIXTURE_H

#include "GdbusConnection.h"
#include "GlibLog.h"
#include "LogPriorities.h"
#include "PrivateBus.h"
#include "RawClient.h"
#include "RecordingOwner.h"
#include "RecordingPlatform.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace MavixTest {

// What the transports do or say differently.
struct TransportRow {
    const char* name;
    const char* source;               // in the prefix of the connection's lines
    const char* withoutConnect;       // of a request before Connect
    const char* connectedLine;        // at the end of a successful connect
    int connectedPriority;            //
    const char* initializerLine;      // when the owner's initialiser fails
    const char* unhandledLine;        // of a method call that the owner leaves alone
    int unhandledPriority;            //
    const char* unknownMethodText;    // of the answer to it
    bool readsRequestsAtPushEnd;      // "Pushing not started!" for messages without arguments
    bool releasesUnownedNames;        // the result of ReleaseName
    bool emptiesMessageWithoutReply;  // what SendWithReply leaves behind when it fails
    const char* requestNameOnTheWire; // signature, flags argument and no-reply mark
    const char* addMatchOnTheWire;    // signature and no-reply mark
    const char* removeMatchOnTheWire; // the same
};

// How a test makes a connection of a transport, and its row.
template <class Connection>
struct Transport;

template <>
struct Transport<MavixApiLite::TCGdbusConnection> {
    static std::unique_ptr<MavixApiLite::TIIpcConnection> Make() {
        return std::make_unique<MavixApiLite::TCGdbusConnection>();
    }
    static constexpr TransportRow row = {
        "Gdbus",
        "GdbusConnection",
        "[API_LITE] called without prior Connect",
        "[API_LITE][END] Connect",
        debugLine,
        "Owner initialization failed!",
        "Unhandled method",
        errorLine,
        "",
        true,
        false,
        false,
        "su 4 no-reply",
        "s no-reply",
        "s no-reply",
    };
};

using Transports = testing::Types<MavixApiLite::TCGdbusConnection>;

struct TransportNames {
    template <class Connection>
    static std::string GetName(int /*index*/) {
        return Transport<Connection>::row.name;
    }
};

// A private bus and one connection of the transport, not yet connected. What GLib complains about fails the
// test.
template <class Connection>
class TransportTest : public testing::Test {
protected:
    using Row = Transport<Connection>;

    // Connects and waits.
    bool Connect(MavixApiLite::TIIpcConnectionOwner* owner = nullptr) {
        return m_connection->Connect("TransportTest", owner) && m_connection->WaitConnected();
    }

    std::unique_ptr<MavixApiLite::TIIpcMessage> NewMessage() {
        return m_connection->GetMessageAllocatorInstance()->NewMessage(nullptr);
    }

    // A method call to the bus itself.
    std::unique_ptr<MavixApiLite::TIIpcMessage> NewBusCall(const char* member) {
        auto message = NewMessage();
        EXPECT_TRUE(message->Initialize(MavixApiLite::TIIpcMessage::MethodCall, "org.freedesktop.DBus",
                                        "/org/freedesktop/DBus", "org.freedesktop.DBus", member));
        return message;
    }

    // A method call to a peer.
    std::unique_ptr<MavixApiLite::TIIpcMessage> NewPeerCall(const std::string& destination,
                                                            const char* member = "Ask") {
        auto message = NewMessage();
        EXPECT_TRUE(message->Initialize(MavixApiLite::TIIpcMessage::MethodCall, destination.c_str(), peerPath,
                                        peerInterface, member));
        return message;
    }

    // How often a line of this priority was written.
    std::size_t Lines(int priority, const char* text) const {
        return TCRecordingPlatform::Get().Count(priority, text);
    }

    TCGlibLog m_complaints;
    TCPrivateBus m_bus;
    TCRecordingOwner m_owner;
    std::unique_ptr<MavixApiLite::TIIpcConnection> m_connection = Row::Make();
};

} // namespace MavixTest

#endif
