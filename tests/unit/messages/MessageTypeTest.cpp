#include "GdbusFixture.h"

#include <stdexcept>

using namespace MavixTest;

namespace {

using Type = TIIpcMessage::IpcMessageType;

class GdbusIsOfType : public GdbusMessageFixture {
protected:
    bool m_Is(Type type, const char* interface = nullptr, const char* member = nullptr) {
        return m_message.IsOfType(&type, interface, member);
    }

    static RawMessage Of(Type type) {
        const RawMessage call = Received(Built());
        switch (type) {
        case TIIpcMessage::Signal:
            return RawMessage(g_dbus_message_new_signal(testPath, testInterface, testMember));
        case TIIpcMessage::MethodCall:
            return Built();
        case TIIpcMessage::MethodReturn:
            return RawMessage(g_dbus_message_new_method_reply(call.get()));
        default:
            return RawMessage(g_dbus_message_new_method_error_literal(call.get(), "a.b", ""));
        }
    }
};

} // namespace

TEST_F(GdbusIsOfType, WithoutAMessageIsFalse) {
    EXPECT_FALSE(m_message.IsOfType(nullptr, nullptr, nullptr));
    ExpectLines("IsOfType", "No message");
    EXPECT_FALSE(m_Is(TIIpcMessage::Signal, testInterface, testMember));
    ExpectLines("IsOfType", "No message");
}

TEST_F(GdbusIsOfType, TellsTheFourTypesApart) {
    for (int held = TIIpcMessage::Signal; held <= TIIpcMessage::Error; ++held) {
        Adopt(m_message, Received(Of(static_cast<Type>(held))));
        for (int asked = -1; asked <= 5; ++asked) {
            EXPECT_EQ(held == asked, m_Is(static_cast<Type>(asked))) << held << " asked for " << asked;
        }
        EXPECT_TRUE(m_message.IsOfType(nullptr, nullptr, nullptr)) << held;
    }
}

TEST_F(GdbusIsOfType, ComparesInterfaceAndMemberExactly) {
    Adopt(m_message, Received(Of(TIIpcMessage::Signal)));
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
        EXPECT_EQ(row.expected, m_Is(TIIpcMessage::Signal, row.interface, row.member)) << text;
        EXPECT_EQ(row.expected, m_message.IsOfType(nullptr, row.interface, row.member)) << text;
        EXPECT_FALSE(m_Is(TIIpcMessage::MethodCall, row.interface, row.member)) << text;
    }
}

TEST_F(GdbusIsOfType, ThrowsWhenAFieldToCompareIsMissing) {
    Adopt(m_message, Received(Of(TIIpcMessage::MethodReturn)));
    EXPECT_TRUE(m_Is(TIIpcMessage::MethodReturn));
    EXPECT_THROW(m_Is(TIIpcMessage::MethodReturn, testInterface), std::logic_error);
    EXPECT_THROW(m_Is(TIIpcMessage::MethodReturn, nullptr, testMember), std::logic_error);
    EXPECT_THROW(m_message.IsOfType(nullptr, testInterface, nullptr), std::logic_error);
    // The type is compared first.
    EXPECT_FALSE(m_Is(TIIpcMessage::Signal, testInterface, testMember));
}

TEST_F(GdbusIsOfType, ThrowsForACallWithoutInterface) {
    Adopt(m_message,
          Received(RawMessage(g_dbus_message_new_method_call(testBus, testPath, nullptr, testMember))));
    EXPECT_THROW(m_Is(TIIpcMessage::MethodCall, testInterface, testMember), std::logic_error);
    EXPECT_TRUE(m_Is(TIIpcMessage::MethodCall, nullptr, testMember));
}
