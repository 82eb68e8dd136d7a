#include "MessageFixture.h"

#include <stdexcept>

using namespace MavixTest;

namespace {

using Type = TIIpcMessage::IpcMessageType;

template <class Message>
class MessageIsOfType : public MessageFixture<Message> {
protected:
    bool m_Is(Type type, const char* interface = nullptr, const char* member = nullptr) {
        return this->m_message.IsOfType(&type, interface, member);
    }

    static GioMessage Of(Type type) {
        const GioMessage call = TCBlob(Built().get()).ForGio();
        switch (type) {
        case TIIpcMessage::Signal:
            return GioMessage(g_dbus_message_new_signal(testPath, testInterface, testMember));
        case TIIpcMessage::MethodCall:
            return Built();
        case TIIpcMessage::MethodReturn:
            return GioMessage(g_dbus_message_new_method_reply(call.get()));
        default:
            return GioMessage(g_dbus_message_new_method_error_literal(call.get(), "a.b", ""));
        }
    }
};

TYPED_TEST_SUITE(MessageIsOfType, MessageTypes, MessageNames);

} // namespace

TYPED_TEST(MessageIsOfType, WithoutAMessageIsFalse) {
    EXPECT_FALSE(this->m_message.IsOfType(nullptr, nullptr, nullptr));
    this->ExpectLines("IsOfType", TestFixture::Kit::row.typeOfEmptyObject);
    EXPECT_FALSE(this->m_Is(TIIpcMessage::Signal, testInterface, testMember));
    this->ExpectLines("IsOfType", TestFixture::Kit::row.typeOfEmptyObject);
}

TYPED_TEST(MessageIsOfType, TellsTheFourTypesApart) {
    for (int held = TIIpcMessage::Signal; held <= TIIpcMessage::Error; ++held) {
        this->Receive(this->m_message, this->Of(static_cast<Type>(held)));
        for (int asked = -1; asked <= 5; ++asked) {
            const bool named = held == TIIpcMessage::Signal || held == TIIpcMessage::MethodCall;
            EXPECT_EQ(held == asked, this->m_Is(static_cast<Type>(asked), named ? testInterface : nullptr,
                                                named ? testMember : nullptr))
                << held << " asked for " << asked;
        }
        EXPECT_EQ(TestFixture::Kit::row.nullTypeMatchesAll,
                  this->m_message.IsOfType(nullptr, nullptr, nullptr))
            << held;
    }
}

TYPED_TEST(MessageIsOfType, ComparesInterfaceAndMemberExactly) {
    this->Receive(this->m_message, this->Of(TIIpcMessage::Signal));
    const struct {
        const char* interface;
        const char* member;
        bool expected;
    } table[] = {
        {testInterface, testMember, true},
        {testInterface, nullptr, true},
        {nullptr, testMember, true},
        {nullptr, nullptr, true},
        {testInterface, "TestMembe", false},
        {testInterface, "TestMemberX", false},
        {testInterface, "testMember", false},
        {"com.norvale.ITes", testMember, false},
        {"com.norvale.ITestX", nullptr, false},
        {"", nullptr, false},
        {nullptr, "", false},
    };
    for (const auto& row : table) {
        const std::string text = std::string(row.interface != nullptr ? row.interface : "(null)") + ", " +
                                 (row.member != nullptr ? row.member : "(null)");
        const bool comparable =
            TestFixture::Kit::row.nullNameMatchesAll || (row.interface != nullptr && row.member != nullptr);
        EXPECT_EQ(row.expected && comparable, this->m_Is(TIIpcMessage::Signal, row.interface, row.member))
            << text;
        EXPECT_EQ(row.expected && TestFixture::Kit::row.nullTypeMatchesAll,
                  this->m_message.IsOfType(nullptr, row.interface, row.member))
            << text;
        EXPECT_FALSE(this->m_Is(TIIpcMessage::MethodCall, row.interface, row.member)) << text;
    }
}

// The names that are asked for count for every type over GDBus, for signals and calls over libdbus.
using GdbusIsOfType = MessageIsOfType<TCGdbusMessage>;

TEST_F(GdbusIsOfType, ThrowsWhenAFieldToCompareIsMissing) {
    Receive(m_message, Of(TIIpcMessage::MethodReturn));
    EXPECT_TRUE(m_Is(TIIpcMessage::MethodReturn));
    EXPECT_THROW(m_Is(TIIpcMessage::MethodReturn, testInterface), std::logic_error);
    EXPECT_THROW(m_Is(TIIpcMessage::MethodReturn, nullptr, testMember), std::logic_error);
    EXPECT_THROW(m_message.IsOfType(nullptr, testInterface, nullptr), std::logic_error);
    // The type is compared first.
    EXPECT_FALSE(m_Is(TIIpcMessage::Signal, testInterface, testMember));
}

TEST_F(GdbusIsOfType, ThrowsForACallWithoutInterface) {
    Receive(m_message, GioMessage(g_dbus_message_new_method_call(testBus, testPath, nullptr, testMember)));
    EXPECT_THROW(m_Is(TIIpcMessage::MethodCall, testInterface, testMember), std::logic_error);
    EXPECT_TRUE(m_Is(TIIpcMessage::MethodCall, nullptr, testMember));
}

using LibdbusIsOfType = MessageIsOfType<TCDbusMessage>;

TEST_F(LibdbusIsOfType, IgnoresNamesForRepliesAndErrors) {
    for (const Type held : {TIIpcMessage::MethodReturn, TIIpcMessage::Error}) {
        Receive(m_message, Of(held));
        EXPECT_TRUE(m_Is(held));
        EXPECT_TRUE(m_Is(held, testInterface, testMember));
        EXPECT_FALSE(m_Is(TIIpcMessage::Signal, testInterface, testMember));
    }
}

TEST_F(LibdbusIsOfType, ACallWithoutInterfaceIsOneOfAnyInterface) {
    Receive(m_message, GioMessage(g_dbus_message_new_method_call(testBus, testPath, nullptr, testMember)));
    EXPECT_TRUE(m_Is(TIIpcMessage::MethodCall, testInterface, testMember));
    EXPECT_TRUE(m_Is(TIIpcMessage::MethodCall, "a.b", testMember));
    EXPECT_FALSE(m_Is(TIIpcMessage::MethodCall, testInterface, "Other"));
}
