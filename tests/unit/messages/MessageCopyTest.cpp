#include "MessageFixture.h"

#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

using namespace MavixTest;

// How often the bytes of a payload are copied. This program counts its allocations that could hold one.

namespace {

constexpr std::size_t payloadSize = 1U << 20U;
std::atomic<int> large{0};
std::atomic<int> largeAlive{0};
std::atomic<void*> lastLarge{nullptr};

// The size stands in front of the block.
constexpr std::size_t header = alignof(std::max_align_t);

void* Allocate(std::size_t size) {
    auto* block = static_cast<char*>(std::malloc(size + header));
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    *reinterpret_cast<std::size_t*>(block) = size;
    if (size >= payloadSize) {
        ++large;
        ++largeAlive;
        lastLarge = block + header;
    }
    return block + header;
}

void Free(void* pointer) {
    if (pointer == nullptr) {
        return;
    }
    char* block = static_cast<char*>(pointer) - header;
    if (*reinterpret_cast<std::size_t*>(block) >= payloadSize) {
        --largeAlive;
    }
    std::free(block);
}

class MessageCopies : public MessageFixture<TCGdbusMessage> {
protected:
    void SetUp() override {
        ASSERT_TRUE(
            m_message.Initialize(TIIpcMessage::MethodCall, testBus, testPath, testInterface, testMember));
    }
    // That the body is the very block.
    void ExpectHolds(const void* block) {
        const std::uint8_t* data = nullptr;
        std::size_t size = 0;
        Bytes storage;
        ASSERT_TRUE(m_message.PopByteRange(data, size, storage));
        EXPECT_EQ(block, data);
        EXPECT_EQ(payloadSize, size);
    }
    // Large allocations since the last time.
    static int Count() { return large.exchange(0); }

    const Bytes m_payload = Bytes(payloadSize, 7);
};

} // namespace

void* operator new(std::size_t size) {
    return Allocate(size);
}
void* operator new[](std::size_t size) {
    return Allocate(size);
}
void operator delete(void* pointer) noexcept {
    Free(pointer);
}
void operator delete[](void* pointer) noexcept {
    Free(pointer);
}
void operator delete(void* pointer, std::size_t /*size*/) noexcept {
    Free(pointer);
}
void operator delete[](void* pointer, std::size_t /*size*/) noexcept {
    Free(pointer);
}

TEST_F(MessageCopies, ARangeIsCopiedOnceIntoTheBody) {
    Count();
    ASSERT_TRUE(m_message.PushByteRange(m_payload.data(), m_payload.size()));
    EXPECT_EQ(1, Count());
    const void* const copy = lastLarge;
    ASSERT_TRUE(m_message.PushEnd());
    EXPECT_EQ(0, Count());
    // The bus library has that very copy.
    ExpectHolds(copy);
    EXPECT_EQ(0, Count());
}

TEST_F(MessageCopies, BytesThatAreHandedOverAreNotCopied) {
    std::vector<char> bytes(payloadSize, 'b');
    const void* const before = bytes.data();
    Count();
    ASSERT_TRUE(m_message.PushOwnedBytes(std::move(bytes)));
    ASSERT_TRUE(m_message.PushEnd());
    EXPECT_EQ(0, Count());
    ExpectHolds(before);
}

TEST_F(MessageCopies, AVectorIsCopiedOnceIntoTheBodyAndOnceOutOfIt) {
    Count();
    ASSERT_TRUE(m_message.PushBytes(m_payload));
    ASSERT_TRUE(m_message.PushEnd());
    EXPECT_EQ(1, Count());
    Bytes value;
    ASSERT_TRUE(m_message.PopBytes(value));
    EXPECT_EQ(1, Count());
    EXPECT_TRUE(value == m_payload);
}

TEST_F(MessageCopies, NoneIsKeptWhenTheContentGoes) {
    const int before = largeAlive;
    for (const bool finished : {true, false}) {
        ASSERT_TRUE(m_message.PushByteRange(m_payload.data(), m_payload.size()));
        EXPECT_EQ(before + 1, largeAlive);
        if (finished) {
            ASSERT_TRUE(m_message.PushEnd());
        }
        ASSERT_TRUE(
            m_message.Initialize(TIIpcMessage::MethodCall, testBus, testPath, testInterface, testMember));
        EXPECT_EQ(before, largeAlive);
    }
    ASSERT_TRUE(m_message.PushByteRange(m_payload.data(), m_payload.size()));
    ASSERT_TRUE(m_message.PopEnd());
    ASSERT_TRUE(m_message.PushInt(1));
    EXPECT_EQ(before, largeAlive) << "arguments that were given up go when writing starts anew";
}

TEST_F(MessageCopies, ARefusedPushKeepsNone) {
    Hold(m_message, Built("(1,)"));
    ASSERT_TRUE(m_message.PopSkip());
    const int before = largeAlive;
    EXPECT_FALSE(m_message.PushByteRange(m_payload.data(), m_payload.size()));
    ExpectLines("m_SetupIterator", "Attempt to write while reading");
    EXPECT_FALSE(m_message.PushOwnedBytes(std::vector<char>(payloadSize, 'b')));
    ExpectLines("m_SetupIterator", "Attempt to write while reading");
    EXPECT_EQ(before, largeAlive);
}
