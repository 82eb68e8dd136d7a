#include "GdbusFixture.h"
#include "PlainMessage.h"
#include "Slots.h"

#include <memory>
#include <new>

using namespace MavixTest;
using MavixApiLite::TIIpcMessageAllocator;

namespace MavixApiLite {

struct TestAccess {
    static std::vector<std::size_t> Offsets(const TCGdbusMessage& message) {
        return {OffsetOf(message, message.m_rawMessage), OffsetOf(message, message.m_bodyBuilder),
                OffsetOf(message, message.m_body), OffsetOf(message, message.m_childIndex),
                OffsetOf(message, message.m_iteratorStatus)};
    }
    static int Status(const TCGdbusMessage& message) { return message.m_iteratorStatus; }
    static constexpr std::size_t statusSize = sizeof(TCGdbusMessage::IteratorStatus);
    static constexpr int none = TCGdbusMessage::None;
    static constexpr int reading = TCGdbusMessage::Reading;
    static constexpr int writing = TCGdbusMessage::Writing;
};

} // namespace MavixApiLite

using MavixApiLite::TestAccess;

TEST(MessageLayout, EveryOperationStandsInItsSlot) {
    using Text = const char*;
    std::vector<std::string> calls;
    PlainMessage message(calls);
    void* const object = static_cast<TIIpcMessage*>(&message);
    TIIpcMessage& request = message;
    TIIpcMessage::IpcMessageType type = TIIpcMessage::Signal;
    bool boolean = false;
    std::uint8_t byte = 0;
    std::int32_t integer = 0;
    std::uint32_t number = 0;
    std::string text;
    Bytes bytes;
    CallSlot<bool, TIIpcMessage::IpcMessageType, Text, Text, Text, Text>(object, 2, type, "", "", "", "");
    CallSlot<bool, TIIpcMessage&, Text, Text>(object, 3, request, "", "");
    CallSlot<bool, TIIpcMessage&>(object, 4, request);
    CallSlot<bool, TIIpcMessage::IpcMessageType*, Text, Text>(object, 5, &type, "", "");
    for (std::size_t slot = 6; slot <= 11; ++slot) {
        CallSlot<Text>(object, slot);
    }
    CallSlot<bool>(object, 12);
    CallSlot<bool, bool&>(object, 13, boolean);
    CallSlot<bool, std::uint8_t&>(object, 14, byte);
    CallSlot<bool, std::int32_t&>(object, 15, integer);
    CallSlot<bool, std::uint32_t&>(object, 16, number);
    CallSlot<bool, std::string&>(object, 17, text);
    CallSlot<bool, Bytes&>(object, 18, bytes);
    CallSlot<bool>(object, 19);
    CallSlot<bool>(object, 20);
    CallSlot<bool, bool>(object, 21, true);
    CallSlot<bool, std::uint8_t>(object, 22, byte);
    CallSlot<bool, std::int32_t>(object, 23, integer);
    CallSlot<bool, std::uint32_t>(object, 24, number);
    CallSlot<bool, const std::string&>(object, 25, text);
    CallSlot<bool, const Bytes&>(object, 26, bytes);
    CallSlot<bool>(object, 27);
    CallSlot<void*, bool>(object, 28, false);
    CallSlot<void, void*>(object, 29, nullptr);
    EXPECT_EQ((std::vector<std::string>{"Initialize",      "InitializeErrorReply",
                                        "InitializeReply", "IsOfType",
                                        "GetDestination",  "GetPath",
                                        "GetInterface",    "GetMember",
                                        "GetSender",       "GetError",
                                        "SetNoReply",      "PopBool",
                                        "PopByte",         "PopInt",
                                        "PopUint",         "PopString",
                                        "PopBytes",        "PopSkip",
                                        "PopEnd",          "PushBool",
                                        "PushByte",        "PushInt",
                                        "PushUint",        "PushString",
                                        "PushBytes",       "PushEnd",
                                        "GetRawMessage",   "SetRawMessage"}),
              calls);
    // The two operations over a range come after them and go through the byte operations.
    calls.clear();
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    CallSlot<bool, const void*, std::size_t>(object, 30, "ab", 2);
    CallSlot<bool, const std::uint8_t*&, std::size_t&, Bytes&>(object, 31, data, size, bytes);
    EXPECT_EQ((std::vector<std::string>{"PushBytes", "PopBytes"}), calls);
}

TEST(MessageLayout, TheDestructorsComeFirst) {
    std::vector<std::string> calls;
    alignas(PlainMessage) unsigned char storage[sizeof(PlainMessage)];
    CallSlot<void>(static_cast<TIIpcMessage*>(new (storage) PlainMessage(calls)), 0);
    EXPECT_EQ(std::vector<std::string>{"destructor"}, calls);
    // Frees its memory, too: a leak otherwise.
    CallSlot<void>(static_cast<TIIpcMessage*>(new PlainMessage(calls)), 1);
    EXPECT_EQ((std::vector<std::string>{"destructor", "destructor"}), calls);
}

TEST(MessageLayout, TheAllocatorsOperationsStandInTheirSlots) {
    class Allocator : public TIIpcMessageAllocator {
    public:
        std::vector<std::string> calls;
        std::unique_ptr<TIIpcMessage> NewMessage(void* raw) override {
            calls.emplace_back(raw == nullptr ? "NewMessage(null)" : "NewMessage");
            return std::make_unique<TCGdbusMessage>();
        }
        void DeleteRawMessage(void* /*raw*/) override { calls.emplace_back("DeleteRawMessage"); }
        void (*GetRawMessageDeleter())(void*) override {
            calls.emplace_back("GetRawMessageDeleter");
            return g_free;
        }
    } allocator;
    void* const object = static_cast<TIIpcMessageAllocator*>(&allocator);
    EXPECT_NE(nullptr, (CallSlot<std::unique_ptr<TIIpcMessage>, void*>(object, 2, nullptr)));
    CallSlot<void, void*>(object, 3, nullptr);
    using Free = void (*)(void*);
    EXPECT_EQ(static_cast<Free>(g_free), CallSlot<Free>(object, 4));
    EXPECT_EQ((std::vector<std::string>{"NewMessage(null)", "DeleteRawMessage", "GetRawMessageDeleter"}),
              allocator.calls);
}

TEST(MessageLayout, FieldsOfTheGioMessageStandInTheirOrder) {
    const TCGdbusMessage message;
    const std::vector<std::size_t> offsets = TestAccess::Offsets(message);
    EXPECT_EQ(sizeof(void*), offsets.front());
    EXPECT_TRUE(std::is_sorted(offsets.begin(), offsets.end())) << testing::PrintToString(offsets);
}

TEST(MessageLayout, TheCursorHasThreeStates) {
    EXPECT_EQ(4U, TestAccess::statusSize);
    EXPECT_EQ(0, TestAccess::none);
    EXPECT_EQ(1, TestAccess::reading);
    EXPECT_EQ(2, TestAccess::writing);
    TCGdbusMessage message;
    Adopt(message, Built("(1,)"));
    EXPECT_EQ(0, TestAccess::Status(message));
    ASSERT_TRUE(message.PopSkip());
    EXPECT_EQ(1, TestAccess::Status(message));
    ASSERT_TRUE(message.PopEnd());
    EXPECT_EQ(0, TestAccess::Status(message));
    ASSERT_TRUE(message.PushInt(1));
    EXPECT_EQ(2, TestAccess::Status(message));
    ASSERT_TRUE(message.PushEnd());
    EXPECT_EQ(0, TestAccess::Status(message));
}
