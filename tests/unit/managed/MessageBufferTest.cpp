#include "CSharp_MessageBuffer.h"

#include "../client/MockClient.h"
#include "RecordingPlatform.h"

#include <gtest/gtest.h>

#include <climits>
#include <memory>

// The flat functions over a message buffer: what they do, and what they refuse where the class would stop.

using namespace MavixTest;
using MavixApiLite::TCMessageBuffer;

namespace {

class FlatBuffer : public testing::Test {
protected:
    ~FlatBuffer() override {
        // No assertion and no exception but those that a test names.
        EXPECT_EQ(m_expectedErrors, TCRecordingPlatform::Get().Lines().size());
        TCMessageBuffer_Destroy(m_buffer);
    }

    std::string Text() const { return TextOf(*m_buffer); }

    MavixMessageBuffer* m_buffer = TCMessageBuffer_Create();
    std::size_t m_expectedErrors = 0;
};

TEST_F(FlatBuffer, IsEmptyAtFirst) {
    ASSERT_NE(nullptr, m_buffer);
    EXPECT_EQ(0U, TCMessageBuffer_PayloadSize(m_buffer));
    EXPECT_EQ(nullptr, TCMessageBuffer_Payload(m_buffer));
    EXPECT_STREQ("", TCMessageBuffer_Sender(m_buffer));
    EXPECT_STREQ("", TCMessageBuffer_SenderAppName(m_buffer));
}

TEST_F(FlatBuffer, AppendsEveryKindOfValueWithoutGaps) {
    EXPECT_TRUE(TCMessageBuffer_PushChar(m_buffer, 'a'));
    EXPECT_TRUE(TCMessageBuffer_PushShort(m_buffer, 0x1234));
    EXPECT_TRUE(TCMessageBuffer_PushInt(m_buffer, -2));
    EXPECT_TRUE(TCMessageBuffer_PushLongLong(m_buffer, 3));
    EXPECT_TRUE(TCMessageBuffer_PushConcatenated(m_buffer, 3, "b\0c"));
    EXPECT_EQ(std::string("a\x34\x12\xFE\xFF\xFF\xFF\x03\0\0\0\0\0\0\0b\0c", 18), Text());
    EXPECT_EQ(18U, TCMessageBuffer_PayloadSize(m_buffer));
    EXPECT_EQ('a', *static_cast<const char*>(TCMessageBuffer_Payload(m_buffer)));
}

TEST_F(FlatBuffer, AppendsNothingForNoBytes) {
    EXPECT_TRUE(TCMessageBuffer_PushConcatenated(m_buffer, 5, nullptr));
    EXPECT_TRUE(TCMessageBuffer_PushConcatenated(m_buffer, 0, "abc"));
    EXPECT_EQ("", Text());
}

TEST_F(FlatBuffer, AppendsAnotherBufferAndItself) {
    const std::unique_ptr<TCMessageBuffer> other(TCMessageBuffer_Create());
    TCMessageBuffer_PushConcatenated(other.get(), 2, "bc");
    TCMessageBuffer_PushChar(m_buffer, 'a');
    EXPECT_TRUE(TCMessageBuffer_PushBuffer(m_buffer, other.get()));
    EXPECT_TRUE(TCMessageBuffer_PushBuffer(m_buffer, m_buffer));
    EXPECT_EQ("abcabc", Text());
    EXPECT_FALSE(TCMessageBuffer_PushBuffer(m_buffer, nullptr));
    EXPECT_EQ("abcabc", Text());
}

TEST_F(FlatBuffer, GrowsByZeroBytesAndIsEmptied) {
    TCMessageBuffer_PushConcatenated(m_buffer, 2, "ab");
    EXPECT_TRUE(TCMessageBuffer_Reserve(m_buffer, 100));
    EXPECT_EQ("ab", Text());
    EXPECT_TRUE(TCMessageBuffer_Resize(m_buffer, 3));
    EXPECT_EQ(std::string("ab\0\0\0", 5), Text());
    EXPECT_TRUE(TCMessageBuffer_Resize(m_buffer, 0));
    EXPECT_EQ(5U, TCMessageBuffer_PayloadSize(m_buffer));
    EXPECT_TRUE(TCMessageBuffer_Clean(m_buffer));
    EXPECT_EQ(0U, TCMessageBuffer_PayloadSize(m_buffer));
}

TEST_F(FlatBuffer, ReadsWhatIsThereWholeAndNothingElse) {
    TCMessageBuffer_PushLongLong(m_buffer, 0x0807060504030201);
    const struct {
        unsigned int offset;
        bool hasShort;
        bool hasInt;
        bool hasLongLong;
    } rows[] = {
        {0, true, true, true},
        {1, true, true, false},
        {4, true, true, false},
        {5, true, false, false},
        {6, true, false, false},
        {7, false, false, false},
        {8, false, false, false},
        {9, false, false, false},
        {UINT_MAX, false, false, false},
        {UINT_MAX - 1, false, false, false},
        {UINT_MAX - 3, false, false, false},
        {UINT_MAX - 7, false, false, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.offset);
        short shortValue = 77;
        int intValue = 77;
        long long longValue = 77;
        EXPECT_EQ(row.hasShort, TCMessageBuffer_ReadShort(m_buffer, &shortValue, row.offset));
        EXPECT_EQ(row.hasInt, TCMessageBuffer_ReadInt(m_buffer, &intValue, row.offset));
        EXPECT_EQ(row.hasLongLong, TCMessageBuffer_ReadLongLong(m_buffer, &longValue, row.offset));
        const int first = static_cast<int>(row.offset) + 1;
        EXPECT_EQ(row.hasShort ? first + 0x100 * (first + 1) : 77, shortValue);
        EXPECT_EQ(row.hasInt ? first + 0x100 * (first + 1) + 0x10000 * (first + 2) + 0x1000000 * (first + 3)
                             : 77,
                  intValue);
        EXPECT_EQ(row.hasLongLong ? 0x0807060504030201 : 77, longValue);
    }
}

TEST_F(FlatBuffer, ReadsRunsOfBytesThatAreThereWhole) {
    TCMessageBuffer_PushConcatenated(m_buffer, 5, "abcde");
    const struct {
        unsigned int offset;
        unsigned long size;
        const char* text; // null: not there
    } rows[] = {
        {0, 5, "abcde"},
        {1, 3, "bcd"},
        {5, 0, ""},
        {0, 0, ""},
        {0, 6, nullptr},
        {5, 1, nullptr},
        {6, 0, nullptr},
        {1, ULONG_MAX, nullptr},
        {4, 2, nullptr},
        {UINT_MAX, 2, nullptr},
        {2, 0x100000001, nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.size << " at " << row.offset);
        char bytes[6] = "-----";
        EXPECT_EQ(row.text != nullptr,
                  TCMessageBuffer_ReadConcatenated(m_buffer, row.size, bytes, row.offset));
        const std::string read = row.text != nullptr ? row.text : "";
        EXPECT_EQ(read + std::string(5 - read.size(), '-'), bytes);
    }
}

TEST_F(FlatBuffer, InsertsAndMovesTheRestUp) {
    TCMessageBuffer_PushInt(m_buffer, 1);
    EXPECT_TRUE(TCMessageBuffer_WriteInt(m_buffer, 7, 0));
    EXPECT_TRUE(TCMessageBuffer_WriteLongLong(m_buffer, 9, 8));
    char bytes[] = "ab";
    EXPECT_TRUE(TCMessageBuffer_WriteConcatenated(m_buffer, 2, bytes, -1));
    EXPECT_TRUE(TCMessageBuffer_WriteConcatenated(m_buffer, 0, nullptr, 3));
    EXPECT_EQ(std::string("\x07\0\0\0\x01\0\0\0\x09\0\0\0\0\0\0\0ab", 18), Text());
}

TEST_F(FlatBuffer, RefusesToInsertOutside) {
    TCMessageBuffer_PushInt(m_buffer, 1);
    char bytes[] = "ab";
    for (const int offset : {5, 100, INT_MAX, -2, INT_MIN}) {
        SCOPED_TRACE(offset);
        EXPECT_FALSE(TCMessageBuffer_WriteInt(m_buffer, 7, offset));
        EXPECT_FALSE(TCMessageBuffer_WriteLongLong(m_buffer, 7, offset));
        EXPECT_FALSE(TCMessageBuffer_WriteConcatenated(m_buffer, 2, bytes, offset));
        EXPECT_FALSE(TCMessageBuffer_WriteConcatenated(m_buffer, 0, nullptr, offset));
    }
    EXPECT_EQ(4U, TCMessageBuffer_PayloadSize(m_buffer));
}

TEST_F(FlatBuffer, RefusesNullWhereBytesAreNeeded) {
    TCMessageBuffer_PushLongLong(m_buffer, 1);
    EXPECT_FALSE(TCMessageBuffer_WriteConcatenated(m_buffer, 2, nullptr, 0));
    EXPECT_FALSE(TCMessageBuffer_ReadShort(m_buffer, nullptr, 0));
    EXPECT_FALSE(TCMessageBuffer_ReadInt(m_buffer, nullptr, 0));
    EXPECT_FALSE(TCMessageBuffer_ReadLongLong(m_buffer, nullptr, 0));
    EXPECT_FALSE(TCMessageBuffer_ReadConcatenated(m_buffer, 1, nullptr, 0));
    EXPECT_TRUE(TCMessageBuffer_ReadConcatenated(m_buffer, 0, nullptr, 0));
    EXPECT_EQ(8U, TCMessageBuffer_PayloadSize(m_buffer));
}

TEST_F(FlatBuffer, MoreThanMemoryHoldsIsRefusedWithOneLineEach) {
    char byte = 'x';
    TCMessageBuffer_PushChar(m_buffer, byte);
    EXPECT_FALSE(TCMessageBuffer_PushConcatenated(m_buffer, ULONG_MAX, &byte));
    EXPECT_FALSE(TCMessageBuffer_WriteConcatenated(m_buffer, ULONG_MAX, &byte, -1));
    EXPECT_EQ("x", Text());
    EXPECT_EQ(2U, TCRecordingPlatform::Get().CountStarting(6, "[API_LITE] exception: "));
    m_expectedErrors = 2;
}

TEST_F(FlatBuffer, TellsTheSender) {
    m_buffer->SetSender(":1.42");
    m_buffer->SetSenderAppName("application");
    EXPECT_STREQ(":1.42", TCMessageBuffer_Sender(m_buffer));
    EXPECT_STREQ("application", TCMessageBuffer_SenderAppName(m_buffer));
}

TEST_F(FlatBuffer, OfNullFailsEverything) {
    char bytes[] = "ab";
    short shortValue = 0;
    int intValue = 0;
    long long longValue = 0;
    TCMessageBuffer_Destroy(nullptr);
    EXPECT_FALSE(TCMessageBuffer_Reserve(nullptr, 1));
    EXPECT_FALSE(TCMessageBuffer_Resize(nullptr, 1));
    EXPECT_FALSE(TCMessageBuffer_Clean(nullptr));
    EXPECT_FALSE(TCMessageBuffer_PushChar(nullptr, 'a'));
    EXPECT_FALSE(TCMessageBuffer_PushShort(nullptr, 1));
    EXPECT_FALSE(TCMessageBuffer_PushInt(nullptr, 1));
    EXPECT_FALSE(TCMessageBuffer_PushLongLong(nullptr, 1));
    EXPECT_FALSE(TCMessageBuffer_PushConcatenated(nullptr, 2, bytes));
    EXPECT_FALSE(TCMessageBuffer_PushBuffer(nullptr, m_buffer));
    EXPECT_FALSE(TCMessageBuffer_ReadShort(nullptr, &shortValue, 0));
    EXPECT_FALSE(TCMessageBuffer_ReadInt(nullptr, &intValue, 0));
    EXPECT_FALSE(TCMessageBuffer_ReadLongLong(nullptr, &longValue, 0));
    EXPECT_FALSE(TCMessageBuffer_ReadConcatenated(nullptr, 1, bytes, 0));
    EXPECT_FALSE(TCMessageBuffer_WriteInt(nullptr, 1, 0));
    EXPECT_FALSE(TCMessageBuffer_WriteLongLong(nullptr, 1, 0));
    EXPECT_FALSE(TCMessageBuffer_WriteConcatenated(nullptr, 2, bytes, 0));
    EXPECT_EQ(nullptr, TCMessageBuffer_Payload(nullptr));
    EXPECT_EQ(0U, TCMessageBuffer_PayloadSize(nullptr));
    EXPECT_EQ(nullptr, TCMessageBuffer_Sender(nullptr));
    EXPECT_EQ(nullptr, TCMessageBuffer_SenderAppName(nullptr));
}

} // namespace
