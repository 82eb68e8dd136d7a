#include "AuxDataHelpers.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

using namespace MavixTest;
using MavixApiLite::IpcAuxData;
using MavixApiLite::IpcNativeAuxData;
using MavixApiLite::IpcProxyAuxData;
using namespace std::string_literals;

namespace {

bool Load(IpcAuxData& aux, const std::string& block) {
    // Of exactly its size, so that a sanitizer sees a read past the end.
    const std::unique_ptr<char[]> data(new char[block.size()]);
    block.copy(data.get(), block.size());
    return aux.Load(static_cast<unsigned int>(block.size()), data.get());
}

} // namespace

TEST(AuxData, LoadReadsWhatStoreWrote) {
    IpcNativeAuxData written;
    written.SetTimestamp(2, someTime);
    written.SetTimestamp(4, someTime + 1);
    IpcNativeAuxData aux;
    EXPECT_TRUE(Load(aux, Stored(written)));
    EXPECT_EQ(Stored(written), Stored(aux));
    unsigned long long value = 0;
    EXPECT_TRUE(aux.GetTimestamp(4, value));
    EXPECT_EQ(someTime + 1, value);
    EXPECT_EQ("", LogLines());
}

TEST(AuxData, LoadOfNullLeavesTheSet) {
    IpcNativeAuxData aux;
    aux.SetTimestamp(2, someTime);
    EXPECT_FALSE(aux.Load(16, nullptr));
    EXPECT_FALSE(aux.Load(0, nullptr));
    EXPECT_EQ(received + someTimeBytes, Stored(aux));
}

TEST(AuxData, LoadReplacesTheSet) {
    const std::string value = "12345678";
    const std::string other = "\1\0\0\0\1\0\0\0x"s;
    const struct {
        const char* what;
        std::string block;
        bool loaded;
        std::string stored;
        std::string log;
    } rows[] = {
        {"nothing", "", false, "failed", ""},
        {"seven bytes", received.substr(0, 7), false, "failed", ""},
        {"one record", sent + value, true, sent + value, ""},
        {"any order", sent + value + received + value, true, received + value + sent + value, ""},
        {"a tag twice: the later one", sent + value + sent + "abcdefgh", true, sent + "abcdefgh", ""},
        {"a value of another length", "\4\0\0\0\3\0\0\0xyz"s, true, "\4\0\0\0\3\0\0\0xyz"s, ""},
        {"less than a header behind", sent + value + "abc", true, sent + value, ""},
        {"seven bytes behind", sent + value + "\2\0\0\0\10\0\0"s, true, sent + value, ""},
        {"only a tag that is not accepted", other, false, "failed",
         "3 MAVIX_API IpcAuxData [IpcAuxData] tag:1 not supported\n"},
        {"a tag that is not accepted in front", other + sent + value, true, sent + value,
         "3 MAVIX_API IpcAuxData [IpcAuxData] tag:1 not supported\n"},
        {"a tag that is not accepted behind", sent + value + other, true, sent + value,
         "3 MAVIX_API IpcAuxData [IpcAuxData] tag:1 not supported\n"},
        {"two tags in one", "\6\0\0\0\1\0\0\0x"s, false, "failed",
         "3 MAVIX_API IpcAuxData [IpcAuxData] tag:6 not supported\n"},
        {"a negative tag", "\xFF\xFF\xFF\xFF\1\0\0\0x"s, false, "failed",
         "3 MAVIX_API IpcAuxData [IpcAuxData] tag:-1 not supported\n"},
    };
    for (const auto& row : rows) {
        TCRecordingPlatform::Get().Reset();
        IpcNativeAuxData aux;
        aux.SetTimestamp(2, 99);
        EXPECT_EQ(row.loaded, Load(aux, row.block)) << row.what;
        EXPECT_EQ(row.stored, Stored(aux)) << row.what;
        EXPECT_EQ(row.log, LogLines()) << row.what;
    }
}

TEST(AuxData, OneBadRecordDiscardsAll) {
    const std::string value = "12345678";
    const struct {
        const char* what;
        std::string block;
        const char* numbers; // tag, length of the value, its position and length of the block
    } rows[] = {
        {"no value", "\4\0\0\0\0\0\0\0"s, "tag:4, paramLength:0, position:8, length:8"},
        {"no value in the second record", received + value + "\4\0\0\0\0\0\0\0"s,
         "tag:4, paramLength:0, position:24, length:24"},
        {"a header alone", sent, "tag:4, paramLength:8, position:8, length:8"},
        {"one byte short", sent + "1234567", "tag:4, paramLength:8, position:8, length:15"},
        {"second record one byte short", received + value + sent + "1234567",
         "tag:4, paramLength:8, position:24, length:31"},
        {"a tag that is not accepted and too long", "\1\0\0\0\2\0\0\0x"s,
         "tag:1, paramLength:2, position:8, length:9"},
        {"an end that wraps to 0", "\4\0\0\0\xF8\xFF\xFF\xFF"s + value,
         "tag:4, paramLength:4294967288, position:8, length:16"},
        {"an end that wraps into the block", "\4\0\0\0\xFC\xFF\xFF\xFF"s + value,
         "tag:4, paramLength:4294967292, position:8, length:16"},
        {"the longest value", "\4\0\0\0\xFF\xFF\xFF\xFF"s + value,
         "tag:4, paramLength:4294967295, position:8, length:16"},
        {"a wrap in the second record", received + value + "\2\0\0\0\xE8\xFF\xFF\xFF"s + value,
         "tag:2, paramLength:4294967272, position:24, length:32"},
        {"a negative tag", "\xFE\xFF\xFF\xFF\0\0\0\0"s, "tag:-2, paramLength:0, position:8, length:8"},
    };
    for (const auto& row : rows) {
        TCRecordingPlatform::Get().Reset();
        IpcNativeAuxData aux;
        aux.SetTimestamp(2, 99);
        EXPECT_FALSE(Load(aux, row.block)) << row.what;
        EXPECT_EQ("failed", Stored(aux)) << row.what;
        EXPECT_EQ(std::string("6 MAVIX_API IpcAuxData [IpcAuxData] invalid data -> ") + row.numbers + "\n",
                  LogLines())
            << row.what;
    }
}

TEST(AuxData, LoadAcceptsWhatItsVariantAccepts) {
    IpcProxyAuxData aux;
    EXPECT_TRUE(Load(aux, received + "12345678" + sent + "abcdefgh"));
    EXPECT_EQ(sent + "abcdefgh", Stored(aux));
    EXPECT_EQ("3 MAVIX_API IpcAuxData [IpcAuxData] tag:2 not supported\n", LogLines());
    EXPECT_EQ("Load", TCRecordingPlatform::Get().Lines().at(0).function);
}
