#include "DbusBusWrapper.h"
#include "FakeConnection.h"
#include "Handles.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

// What a wrapper remembers of its bus name, and how it tells bus messages from others.

namespace MavixTest {

namespace {

using MavixApiLite::DbusBusWrapper;
using MavixApiLite::ObjectHandle;
using MavixApiLite::TCGdbusMessage;
using MavixApiLite::TIIpcMessage;

constexpr const char* rulePrefix =
    "path='/org/freedesktop/DBus', type='signal', interface='org.freedesktop.DBus', "
    "member='NameOwnerChanged', arg0='";

class BusWrapper : public testing::Test {
protected:
    std::unique_ptr<DbusBusWrapper> NewWrapper(const std::string& busName = "com.norvale.MavixAPI") {
        return std::make_unique<DbusBusWrapper>(busName, m_connection);
    }

    std::shared_ptr<FakeConnection> m_connection = std::make_shared<FakeConnection>();
};

TEST_F(BusWrapper, ConstructionCausesNoTraffic) {
    const auto wrapper = NewWrapper();
    EXPECT_TRUE(m_connection->Calls().empty());
}

TEST_F(BusWrapper, TheRuleIsThePrefixTheBareNameAndAQuote) {
    EXPECT_EQ(112U, std::strlen(rulePrefix));
    for (const char* name : {"com.norvale.MavixAPI", "com.norvale.MavixAPI.Pipeline", "", "it's", "a,b"}) {
        m_connection->ClearCalls();
        const auto wrapper = NewWrapper(name);
        EXPECT_TRUE(wrapper->SubscribeForOwnerChanged()) << name;
        EXPECT_EQ(std::vector<std::string>{"AddMatch(" + (std::string(rulePrefix) + name) + "')"},
                  m_connection->Calls());
    }
}

TEST_F(BusWrapper, ASecondSubscriptionIsFalseAndSendsNothing) {
    const auto wrapper = NewWrapper();
    EXPECT_TRUE(wrapper->SubscribeForOwnerChanged());
    m_connection->ClearCalls();
    EXPECT_FALSE(wrapper->SubscribeForOwnerChanged());
    EXPECT_TRUE(m_connection->Calls().empty());
}

TEST_F(BusWrapper, ASubscriptionThatFailedMayBeTriedAgain) {
    const auto wrapper = NewWrapper();
    m_connection->addMatch = false;
    EXPECT_FALSE(wrapper->SubscribeForOwnerChanged());
    EXPECT_FALSE(wrapper->SubscribeForOwnerChanged());
    m_connection->addMatch = true;
    EXPECT_TRUE(wrapper->SubscribeForOwnerChanged());
    EXPECT_EQ(3U, m_connection->Calls().size());
}

TEST_F(BusWrapper, DestructionRemovesTheRuleThatWasAdded) {
    auto wrapper = NewWrapper();
    wrapper->SubscribeForOwnerChanged();
    m_connection->ClearCalls();
    wrapper.reset();
    EXPECT_EQ(std::vector<std::string>{std::string("RemoveMatch(") + rulePrefix + "com.norvale.MavixAPI')"},
              m_connection->Calls());
}

TEST_F(BusWrapper, DestructionRemovesNoRuleThatWasNotAdded) {
    NewWrapper();
    m_connection->addMatch = false;
    NewWrapper()->SubscribeForOwnerChanged();
    EXPECT_EQ(1U, m_connection->Calls().size());
}

TEST_F(BusWrapper, HoldsItsConnectionAsLongAsItLives) {
    auto wrapper = NewWrapper();
    EXPECT_EQ(2, m_connection.use_count());
    wrapper.reset();
    EXPECT_EQ(1, m_connection.use_count());
}

TEST_F(BusWrapper, TheGreetingIsDueOnce) {
    const auto wrapper = NewWrapper();
    EXPECT_FALSE(wrapper->CheckAndMarkHelloSent());
    EXPECT_TRUE(wrapper->CheckAndMarkHelloSent());
    EXPECT_TRUE(wrapper->CheckAndMarkHelloSent());
    EXPECT_TRUE(m_connection->Calls().empty());
}

TEST_F(BusWrapper, OfManyCallersOneGreets) {
    for (int round = 0; round < 50; ++round) {
        const auto wrapper = NewWrapper();
        std::atomic<int> greeters{0};
        std::vector<std::thread> threads;
        for (int at = 0; at < 8; ++at) {
            threads.emplace_back([&] { greeters += wrapper->CheckAndMarkHelloSent() ? 0 : 1; });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(1, greeters);
    }
}

TEST_F(BusWrapper, TellsBusMessagesFromOthers) {
    constexpr const char* bus = "org.freedesktop.DBus";
    constexpr const char* introspectable = "org.freedesktop.DBus.Introspectable";
    struct Row {
        TIIpcMessage::IpcMessageType type;
        const char* interface;
        const char* member;
        std::int32_t kind;
    };
    const Row rows[] = {
        {TIIpcMessage::Signal, bus, "NameOwnerChanged", 1},
        {TIIpcMessage::Signal, "org.freedesktop.DBus.Other", "NameOwnerChanged", 0},
        {TIIpcMessage::Signal, bus, "NameAcquired", 0},
        {TIIpcMessage::Signal, introspectable, "Introspect", 0},
        {TIIpcMessage::MethodCall, introspectable, "Introspect", 2},
        {TIIpcMessage::MethodCall, introspectable, "Other", 0},
        {TIIpcMessage::MethodCall, "com.norvale.IAVControl", "Introspect", 0},
        {TIIpcMessage::MethodCall, bus, "NameOwnerChanged", 0},
    };
    for (const Row& row : rows) {
        TCGdbusMessage message;
        ASSERT_TRUE(message.Initialize(row.type, ":1.7", "/path", row.interface, row.member));
        EXPECT_EQ(row.kind, DbusBusWrapper::IsBusMessage(message))
            << row.type << ' ' << row.interface << '.' << row.member;
    }
}

TEST_F(BusWrapper, RepliesAndEmptyMessagesAreNoBusMessages) {
    TCGdbusMessage message;
    EXPECT_EQ(0, DbusBusWrapper::IsBusMessage(message));
    const ObjectHandle<GDBusMessage> call(
        g_dbus_message_new_method_call(":1.7", "/path", "org.freedesktop.DBus.Introspectable", "Introspect"));
    g_dbus_message_set_serial(call.get(), 5);
    message.SetRawMessage(g_dbus_message_new_method_reply(call.get()));
    EXPECT_EQ(0, DbusBusWrapper::IsBusMessage(message));
    message.SetRawMessage(g_dbus_message_new_method_error_literal(call.get(), "org.example.Error", ""));
    EXPECT_EQ(0, DbusBusWrapper::IsBusMessage(message));
}

TEST_F(BusWrapper, AMethodCallWithoutInterfaceIsALogicError) {
    TCGdbusMessage message;
    message.SetRawMessage(g_dbus_message_new_method_call(":1.7", "/path", nullptr, "Introspect"));
    EXPECT_THROW(DbusBusWrapper::IsBusMessage(message), std::logic_error);
}

} // namespace

} // namespace MavixTest
