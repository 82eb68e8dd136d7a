#ifndef MAVIX_TEST_TRANSPORT_FIXTURE_H
#define MAVIX_TEST_TRANSPORT_FIXTURE_H

#include "GlibLog.h"
#include "PrivateBus.h"
#include "RawClient.h"
#include "RecordingOwner.h"
#include "RecordingPlatform.h"
#include "Transports.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace MavixTest {

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

    // How often the connection said that its owner left a message alone, those of the bus and replies to
    // nobody aside.
    std::size_t UnhandledLines() const {
        const std::size_t others =
            Row::row.saysUnhandledOfAll ? m_owner.BusSignals().size() + m_owner.Replies() : 0;
        return Lines(Row::row.unhandledPriority, Row::row.unhandledLine) - others;
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
