#include "Await.h"
#include "DbusBusWrapper.h"
#include "ProcessCounts.h"
#include "ReadInEveryWay.h"
#include "TestScale.h"
#include "TransportFixture.h"

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <unistd.h>
#include <utility>
#include <vector>

// Peers that send what nobody expects. GLib's complaints end the process here.

namespace MavixTest {

namespace {

using MavixApiLite::DbusBusWrapper;
using MavixApiLite::TIIpcMessage;
using MavixSim::Check;
using MavixSim::MessageHandle;

using Body = std::function<void(sd_bus_message*)>;

void AppendArray(sd_bus_message* message, char type, std::size_t size) {
    const std::vector<std::uint8_t> bytes(size, 0x5a);
    Check(sd_bus_message_append_array(message, type, bytes.data(), bytes.size()), "append an array");
}

void AppendTexts(sd_bus_message* message, const char* type, const std::string& text, std::size_t count) {
    Check(sd_bus_message_open_container(message, 'a', type), "open");
    for (std::size_t at = 0; at < count; ++at) {
        Check(sd_bus_message_append_basic(message, *type, text.c_str()), "append");
    }
    Check(sd_bus_message_close_container(message), "close");
}

// Variants in variants, as deep as the bus lets through.
void AppendNested(sd_bus_message* message, int depth) {
    for (int at = 0; at < depth; ++at) {
        Check(sd_bus_message_open_container(message, 'v', at + 1 < depth ? "v" : "y"), "open");
    }
    const std::uint8_t byte = 1;
    Check(sd_bus_message_append_basic(message, 'y', &byte), "append");
    for (int at = 0; at < depth; ++at) {
        Check(sd_bus_message_close_container(message), "close");
    }
}

void AppendDescriptors(sd_bus_message* message, int count) {
    for (int at = 0; at < count; ++at) {
        const int descriptor = STDERR_FILENO;
        Check(sd_bus_message_append_basic(message, 'h', &descriptor), "append a descriptor");
    }
}

const std::vector<std::pair<const char*, Body>>& Bodies() {
    static const std::vector<std::pair<const char*, Body>> bodies = {
        {"nothing", [](sd_bus_message*) {}},
        {"every basic type",
         [](sd_bus_message* message) {
             Check(sd_bus_message_append(message, "ybnqiuxtdsog", 1, 1, -2, 2, -3, 3U, int64_t{-4},
                                         uint64_t{4}, 0.5, "text", "/path", "a{sv}"),
                   "append");
         }},
        {"empty text", [](sd_bus_message* message) { Check(sd_bus_message_append(message, "s", ""), ""); }},
        {"long text",
         [](sd_bus_message* message) {
             Check(sd_bus_message_append(message, "s", std::string(1U << 20U, 'x').c_str()), "append");
         }},
        {"empty bytes", [](sd_bus_message* message) { AppendArray(message, 'y', 0); }},
        {"many bytes", [](sd_bus_message* message) { AppendArray(message, 'y', 8U << 20U); }},
        {"numbers", [](sd_bus_message* message) { AppendArray(message, 'i', 4000); }},
        {"wide numbers", [](sd_bus_message* message) { AppendArray(message, 't', 8000); }},
        {"no texts", [](sd_bus_message* message) { AppendTexts(message, "s", "", 0); }},
        {"empty texts", [](sd_bus_message* message) { AppendTexts(message, "s", "", 10000); }},
        {"texts", [](sd_bus_message* message) { AppendTexts(message, "s", "text", 10000); }},
        {"paths", [](sd_bus_message* message) { AppendTexts(message, "o", "/a/path", 100); }},
        {"signatures", [](sd_bus_message* message) { AppendTexts(message, "g", "a{sv}", 100); }},
        {"a dictionary",
         [](sd_bus_message* message) {
             Check(sd_bus_message_append(message, "a{sv}", 2, "one", "i", 1, "two", "s", "2"), "append");
         }},
        {"an empty dictionary",
         [](sd_bus_message* message) { Check(sd_bus_message_append(message, "a{sv}", 0), "append"); }},
        {"structures",
         [](sd_bus_message* message) {
             Check(sd_bus_message_append(message, "(i(sy))a(yy)", 1, "in", 2, 2, 1, 2, 3, 4), "append");
         }},
        {"arrays of arrays",
         [](sd_bus_message* message) {
             Check(sd_bus_message_append(message, "aaay", 2, 2, 1, 7, 0, 1, 2, 8, 9), "append");
         }},
        {"nested variants", [](sd_bus_message* message) { AppendNested(message, 60); }},
        {"descriptors", [](sd_bus_message* message) { AppendDescriptors(message, 8); }},
        {"200 arguments",
         [](sd_bus_message* message) {
             for (int at = 0; at < 200; ++at) {
                 Check(sd_bus_message_append_basic(message, 'i', &at), "append");
             }
         }},
    };
    return bodies;
}

template <class Connection>
class HostilePeerTest : public TransportTest<Connection> {
protected:
    RawCall NewCall(const Body& body, const char* member = "Ask") {
        RawCall call;
        call.destination = this->m_connection->GetUniqueName();
        call.path = peerPath;
        call.interface = peerInterface;
        call.member = member;
        call.body = body;
        return call;
    }

    void SendSignal(const Body& body, const char* member = "Happened") {
        sd_bus_message* created = nullptr;
        Check(sd_bus_message_new_signal(m_peer.Bus(), &created, peerPath, peerInterface, member), "signal");
        const MessageHandle message(created);
        Check(sd_bus_message_set_destination(created, this->m_connection->GetUniqueName().c_str()), "to");
        body(created);
        Check(sd_bus_send(m_peer.Bus(), created, nullptr), "send");
        Check(sd_bus_flush(m_peer.Bus()), "flush");
    }

    TCRawClient m_peer{this->m_bus.Address()};
};

TYPED_TEST_SUITE(HostilePeerTest, Transports, TransportNames);

TYPED_TEST(HostilePeerTest, EveryKindOfBodyIsSurvivedHoweverItIsRead) {
    std::atomic<unsigned int> round{0};
    this->m_owner.onMessage = [&](TIIpcMessage& message) {
        message.GetDestination();
        message.GetPath();
        message.GetError();
        ReadInEveryWay(message, round);
        // Throws for a method call without interface.
        return DbusBusWrapper::IsBusMessage(message) != DbusBusWrapper::NotABusMessage;
    };
    ASSERT_TRUE(this->Connect(&this->m_owner));
    this->m_peer.Call(this->NewCall([](sd_bus_message*) {}));
    const std::size_t descriptors = Descriptors();
    std::size_t expected = 1;
    for (; round < Scaled(8); ++round) {
        for (const auto& [name, body] : Bodies()) {
            this->SendSignal(body);
            RawCall call = this->NewCall(body);
            EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod", this->m_peer.Call(call).errorName) << name;
            call.interface.reset();
            EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod", this->m_peer.Call(call).errorName) << name;
            expected += 3;
            EXPECT_EQ(expected, this->m_owner.Messages().size()) << name;
        }
    }
    EXPECT_TRUE(Await([&] { return Descriptors() <= descriptors; }));
}

TYPED_TEST(HostilePeerTest, NothingOfAFloodIsLostOrReordered) {
    std::atomic<int> next{0};
    std::atomic<bool> inOrder{true};
    this->m_owner.onMessage = [&](TIIpcMessage& message) {
        std::int32_t number = -1;
        if (!message.PopInt(number) || number != next++) {
            inOrder = false;
        }
        return true;
    };
    ASSERT_TRUE(this->Connect(&this->m_owner));
    const int count = static_cast<int>(Scaled(20000));
    for (int at = 0; at < count; ++at) {
        const Body body = [at](sd_bus_message* message) {
            Check(sd_bus_message_append_basic(message, 'i', &at), "append");
        };
        if (at % 2 == 0) {
            this->SendSignal(body);
        } else {
            RawCall call = this->NewCall(body);
            call.noReply = true;
            this->m_peer.Send(call);
        }
    }
    EXPECT_TRUE(this->m_owner.WaitForMessages(static_cast<std::size_t>(count)));
    this->m_connection.reset();
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(count, next);
}

TYPED_TEST(HostilePeerTest, AnOwnerThatAlwaysThrowsIsSurvivedByAFloodToo) {
    this->m_owner.onMessage = [](TIIpcMessage&) -> bool { throw std::runtime_error("never"); };
    ASSERT_TRUE(this->Connect(&this->m_owner));
    const std::size_t count = Scaled(1000);
    for (std::size_t at = 0; at < count; ++at) {
        this->SendSignal([](sd_bus_message*) {});
    }
    const RawReply reply = this->m_peer.Call(this->NewCall([](sd_bus_message*) {}));
    EXPECT_EQ("org.freedesktop.DBus.Error.UnknownMethod", reply.errorName);
    EXPECT_EQ(count + 1, this->Lines(errorLine, "[API_LITE] exception: never"));
}

} // namespace

} // namespace MavixTest
