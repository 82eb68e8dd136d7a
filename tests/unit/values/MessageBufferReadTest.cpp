#include "BufferBytes.h"
#include "RecordingPlatform.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

using namespace MavixTest;
using MavixApiLite::TCMessageBuffer;
using namespace std::string_literals;

TEST(MessageBuffer, ReadsValuesBackByOffset) {
    TCMessageBuffer buffer;
    buffer.PushChar('a');
    buffer.PushShort(-12345);
    buffer.PushInt(INT_MIN);
    buffer.PushLongLong(LLONG_MAX);
    short shortValue = 0;
    int intValue = 0;
    long long longValue = 0;
    char bytes[3] = {};
    buffer.ReadShort(&shortValue, 1);
    buffer.ReadInt(&intValue, 3);
    buffer.ReadLongLong(&longValue, 7);
    buffer.ReadConcatenated(3, bytes, 0);
    EXPECT_EQ(-12345, shortValue);
    EXPECT_EQ(INT_MIN, intValue);
    EXPECT_EQ(LLONG_MAX, longValue);
    EXPECT_EQ("a\xC7\xCF", std::string(bytes, 3));
    EXPECT_EQ(15u, buffer.PayloadSize()) << "reading changes nothing";
}

TEST(MessageBuffer, ReadsUpToItsLastByte) {
    TCMessageBuffer buffer = BufferOf("a\1\0\0\0"s);
    int value = 0;
    buffer.ReadInt(&value, 1);
    EXPECT_EQ(1, value);
    char bytes[5] = {};
    buffer.ReadConcatenated(5, bytes, 0);
    EXPECT_EQ("a\1\0\0\0"s, std::string(bytes, 5));
    buffer.ReadConcatenated(0, bytes, 5);
    EXPECT_TRUE(TCRecordingPlatform::Get().Lines().empty());
}

TEST(MessageBuffer, ReadsOfARangeThatWrapsIn32BitsAreSilentAndReadNothing) {
    TCMessageBuffer buffer = BufferOf("abcdefgh");
    short shortValue = 77;
    int intValue = 77;
    long long longValue = 77;
    char bytes[4] = {'-', '-', '-', '-'};
    for (const unsigned int offset : {0xFFFFFFFEu, 0xFFFFFFFFu}) {
        buffer.ReadShort(&shortValue, offset);
        buffer.CopyData(bytes, 4, offset);
    }
    for (const unsigned int offset : {0xFFFFFFFCu, 0xFFFFFFFFu}) {
        buffer.ReadInt(&intValue, offset);
    }
    for (const unsigned int offset : {0xFFFFFFF8u, 0xFFFFFFFFu}) {
        buffer.ReadLongLong(&longValue, offset);
    }
    EXPECT_EQ(77, shortValue);
    EXPECT_EQ(77, intValue);
    EXPECT_EQ(77, longValue);
    EXPECT_EQ("----", std::string(bytes, 4));
    EXPECT_TRUE(TCRecordingPlatform::Get().Lines().empty());
}

TEST(MessageBuffer, CopyDataCopiesARangeOfTheBufferAndSilentlyNothingElse) {
    const struct {
        unsigned int size;
        unsigned int offset;
        const char* copied;
    } rows[] = {
        {1, 0, "a-----"},
        {3, 1, "bcd---"},
        {5, 0, "abcde-"},
        {1, 4, "e-----"},
        {0, 0, "------"},
        {0, 9, "------"},
        {6, 0, "------"},
        {1, 5, "------"},
        {2, 4, "------"},
        {4294967295u, 1, "------"},
        {4294967295u, 4294967295u, "------"},
    };
    TCMessageBuffer buffer = BufferOf("abcde");
    for (const auto& row : rows) {
        std::string out = "------";
        buffer.CopyData(out.data(), row.size, row.offset);
        EXPECT_EQ(row.copied, out) << row.size << " bytes from " << row.offset;
    }
    EXPECT_TRUE(TCRecordingPlatform::Get().Lines().empty());
}

TEST(MessageBuffer, GivesPointersToItsBytes) {
    const TCMessageBuffer buffer = BufferOf("abc");
    EXPECT_EQ("abc", std::string(buffer.GetAsCStr(0), 3));
    EXPECT_EQ(buffer.GetAsCStr(0) + 2, buffer.GetAsCStr(2));
    EXPECT_EQ(buffer.GetAsCStr(0), buffer.GetAsVoidFromOffset(0));
    EXPECT_EQ(buffer.GetAsCStr(2), buffer.GetAsVoidFromOffset(2));
    EXPECT_EQ(nullptr, buffer.GetAsCStr(3));
    EXPECT_EQ(nullptr, buffer.GetAsCStr(UINT_MAX));
}

TEST(MessageBuffer, SendersAreTextsBesideThePayload) {
    TCMessageBuffer buffer = BufferOf("ab");
    char sender[] = ":1.7";
    buffer.SetSender(sender);
    buffer.SetSenderAppName("application");
    sender[0] = '-';
    EXPECT_EQ(":1.7", buffer.Sender());
    EXPECT_EQ("application", buffer.SenderAppName());
    EXPECT_EQ("ab", BytesOf(buffer));
    buffer.SetSender("");
    EXPECT_EQ("", buffer.Sender());
    EXPECT_EQ("application", buffer.SenderAppName());
}

TEST(MessageBuffer, PrintsItsBytesAsNumbersToStandardOutput) {
    const struct {
        std::string bytes;
        const char* printed;
    } rows[] = {
        {"", "print m_bufferData\n\n m_bufferData.size = 0\n"},
        {"A", "print m_bufferData\n65 \n m_bufferData.size = 1\n"},
        {"\0\x7F\x80\xFF"s, "print m_bufferData\n0 127 128 255 \n m_bufferData.size = 4\n"},
    };
    for (const auto& row : rows) {
        TCMessageBuffer buffer = BufferOf(row.bytes);
        testing::internal::CaptureStdout();
        buffer.Print();
        EXPECT_EQ(row.printed, testing::internal::GetCapturedStdout());
    }
    EXPECT_TRUE(TCRecordingPlatform::Get().Lines().empty());
}
