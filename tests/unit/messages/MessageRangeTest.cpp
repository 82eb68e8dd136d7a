#include "PlainMessage.h"

#include <gtest/gtest.h>

using namespace MavixTest;

// A transport that does not know the operations over byte ranges gets them through its own byte operations.

namespace {

using Bytes = std::vector<std::uint8_t>;

class MessageRange : public testing::Test {
protected:
    std::vector<std::string> m_calls;
    PlainMessage m_message{m_calls};
};

} // namespace

TEST_F(MessageRange, PushGoesThroughPushBytes) {
    const Bytes sent{1, 0, 255};
    EXPECT_TRUE(m_message.PushByteRange(sent.data(), sent.size()));
    EXPECT_EQ(sent, m_message.bytes);
    EXPECT_TRUE(m_message.PushByteRange(nullptr, 0));
    EXPECT_TRUE(m_message.bytes.empty());
    EXPECT_EQ((std::vector<std::string>{"PushBytes", "PushBytes"}), m_calls);
    m_message.result = false;
    EXPECT_FALSE(m_message.PushByteRange(sent.data(), sent.size()));
}

TEST_F(MessageRange, PopReadsIntoTheStorageThroughPopBytes) {
    m_message.bytes = {1, 0, 255};
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    Bytes storage{77};
    EXPECT_TRUE(m_message.PopByteRange(data, size, storage));
    EXPECT_EQ(storage.data(), data);
    EXPECT_EQ(3U, size);
    EXPECT_EQ(m_message.bytes, storage);
    EXPECT_EQ(std::vector<std::string>{"PopBytes"}, m_calls);
}

TEST_F(MessageRange, PopOfNothingGivesNoBytes) {
    const std::uint8_t other = 0;
    const std::uint8_t* data = &other;
    std::size_t size = 99;
    Bytes storage{77};
    EXPECT_TRUE(m_message.PopByteRange(data, size, storage));
    EXPECT_EQ(0U, size);
}

TEST_F(MessageRange, PopThatFailsLeavesItsOutputs) {
    m_message.result = false;
    const std::uint8_t other = 0;
    const std::uint8_t* data = &other;
    std::size_t size = 99;
    Bytes storage{77};
    EXPECT_FALSE(m_message.PopByteRange(data, size, storage));
    EXPECT_EQ(&other, data);
    EXPECT_EQ(99U, size);
    EXPECT_EQ(Bytes{77}, storage);
}
