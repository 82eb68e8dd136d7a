#include "IpcAuxData.h"
#include "RecordingPlatform.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

using namespace MavixTest;
using MavixApiLite::IpcAuxData;
using MavixApiLite::IpcNativeAuxData;
using MavixApiLite::IpcProxyAuxData;
using namespace std::string_literals;

namespace MavixApiLite {

struct TestAccess {
    static std::vector<char>& Value(IpcAuxData& aux, std::int32_t tag) { return aux.m_values[tag]; }
    static std::size_t Count(const IpcAuxData& aux) { return aux.m_values.size(); }
};

} // namespace MavixApiLite

using MavixApiLite::TestAccess;

namespace {

constexpr unsigned long long someTime = 0x1122334455667788;
const std::string someTimeBytes = "\x88\x77\x66\x55\x44\x33\x22\x11";
const std::string received = "\2\0\0\0\10\0\0\0"s;
const std::string sent = "\4\0\0\0\10\0\0\0"s;

// Accepts the tags it was made with.
class OtherAuxData final : public IpcAuxData {
public:
    explicit OtherAuxData(std::set<std::int32_t> tags) : m_tags(std::move(tags)) {}

protected:
    std::set<std::int32_t> t_SupportedFlags() const override { return m_tags; }

private:
    std::set<std::int32_t> m_tags;
};

bool Load(IpcAuxData& aux, const std::string& block) {
    // Of exactly its size, so that a sanitizer sees a read past the end.
    const std::unique_ptr<char[]> data(new char[block.size()]);
    block.copy(data.get(), block.size());
    return aux.Load(static_cast<unsigned int>(block.size()), data.get());
}

// The encoded form; "failed" when there is none.
std::string Stored(const IpcAuxData& aux) {
    std::vector<char> out{'o', 'l', 'd'};
    if (!aux.Store(out)) {
        return out.empty() ? "failed" : "failed, with bytes left in the output";
    }
    return std::string(out.begin(), out.end());
}

std::string LogLines() {
    std::string lines;
    for (const LogLine& line : TCRecordingPlatform::Get().Lines()) {
        lines += std::to_string(line.priority) + " " + line.tag + " " + line.source + " " + line.text + "\n";
    }
    return lines;
}

} // namespace

TEST(AuxData, TagsAreSingleBits) {
    EXPECT_EQ(2, MavixApiLite::IPC_AUX_TIMESTAMP_RECEIVED);
    EXPECT_EQ(4, MavixApiLite::IPC_AUX_TIMESTAMP_SENT);
}

TEST(AuxData, ATimestampIsStoredAsTagLengthAndValue) {
    IpcProxyAuxData aux;
    aux.SetTimestamp(4, someTime);
    EXPECT_EQ(sent + someTimeBytes, Stored(aux));
    EXPECT_EQ(4u, aux.Mask());
}

TEST(AuxData, AnEmptySetIsNoBlock) {
    EXPECT_EQ("failed", Stored(IpcProxyAuxData()));
    EXPECT_EQ("failed", Stored(IpcNativeAuxData()));
    EXPECT_EQ(0u, IpcNativeAuxData().Mask());
    EXPECT_EQ("", LogLines());
}

TEST(AuxData, RecordsAreStoredByAscendingTagWhateverTheOrderOfSetting) {
    for (const bool sentFirst : {false, true}) {
        IpcNativeAuxData aux;
        aux.SetTimestamp(sentFirst ? 4 : 2, sentFirst ? 40 : 20);
        aux.SetTimestamp(sentFirst ? 2 : 4, sentFirst ? 20 : 40);
        EXPECT_EQ(received + "\x14\0\0\0\0\0\0\0"s + sent + "\x28\0\0\0\0\0\0\0"s, Stored(aux));
        EXPECT_EQ(6u, aux.Mask());
    }
}

TEST(AuxData, TheClientsCallsAcceptOnlyTheTimeOfSending) {
    IpcProxyAuxData aux;
    aux.SetTimestamp(2, someTime);
    EXPECT_EQ(0u, aux.Mask());
    EXPECT_EQ("3 MAVIX_API IpcAuxData [IpcAuxData] tag:2 not supported\n", LogLines());
    EXPECT_EQ("SetTimestamp", TCRecordingPlatform::Get().Lines().at(0).function);
}

TEST(AuxData, TheServicesRepliesAcceptBothTimestamps) {
    IpcNativeAuxData aux;
    aux.SetTimestamp(2, someTime);
    EXPECT_EQ(2u, aux.Mask());
    aux.SetTimestamp(4, someTime);
    EXPECT_EQ(6u, aux.Mask());
    EXPECT_EQ("", LogLines());
}

TEST(AuxData, UnknownTagsAreRefused) {
    for (const int tag : {0, 1, 3, 6, 8, -4, 2147483647}) {
        TCRecordingPlatform::Get().Reset();
        IpcNativeAuxData aux;
        aux.SetTimestamp(tag, someTime);
        EXPECT_EQ(0u, TestAccess::Count(aux)) << tag;
        EXPECT_EQ("3 MAVIX_API IpcAuxData [IpcAuxData] tag:" + std::to_string(tag) + " not supported\n",
                  LogLines());
    }
}

TEST(AuxData, SettingAgainReplacesTheValueAndItsLength) {
    IpcProxyAuxData aux;
    aux.SetTimestamp(4, 1);
    aux.SetTimestamp(4, someTime);
    EXPECT_EQ(sent + someTimeBytes, Stored(aux));
    for (const std::size_t length : {0u, 3u, 20u}) {
        TestAccess::Value(aux, 4).assign(length, 'x');
        aux.SetTimestamp(4, someTime);
        EXPECT_EQ(sent + someTimeBytes, Stored(aux)) << length;
    }
}

TEST(AuxData, GetTimestampReadsWhatWasSet) {
    IpcNativeAuxData aux;
    aux.SetTimestamp(2, someTime);
    unsigned long long value = 77;
    EXPECT_TRUE(aux.GetTimestamp(2, value));
    EXPECT_EQ(someTime, value);
}

TEST(AuxData, GetTimestampOfAnAbsentTagLeavesTheOutput) {
    IpcNativeAuxData aux;
    aux.SetTimestamp(2, someTime);
    unsigned long long value = 77;
    EXPECT_FALSE(aux.GetTimestamp(4, value));
    EXPECT_FALSE(aux.GetTimestamp(0, value));
    EXPECT_EQ(77u, value);
    EXPECT_EQ("", LogLines());
}

TEST(AuxData, GetTimestampOfAnotherLengthFailsAndLogs) {
    for (const std::size_t length : {0u, 4u, 7u, 9u}) {
        TCRecordingPlatform::Get().Reset();
        IpcNativeAuxData aux;
        TestAccess::Value(aux, 4).assign(length, 'x');
        unsigned long long value = 77;
        EXPECT_FALSE(aux.GetTimestamp(4, value));
        EXPECT_EQ(77u, value);
        EXPECT_EQ("6 MAVIX_API IpcAuxData [IpcAuxData] tag:4 -> size:" + std::to_string(length) +
                      " != expected:8\n",
                  LogLines());
    }
}

TEST(AuxData, MaskIsUnsigned) {
    OtherAuxData aux({-2147483647 - 1, 1});
    aux.SetTimestamp(-2147483647 - 1, 1);
    aux.SetTimestamp(1, 1);
    EXPECT_EQ(0x80000001u, aux.Mask());
}

TEST(AuxData, FlagsArePresentWhenTheVariantAcceptsOneOfThem) {
    const struct {
        int flags;
        bool native;
        bool proxy;
    } rows[] = {
        {0, false, false}, {1, false, false}, {2, true, false}, {3, true, false},   {4, true, true},
        {6, true, true},   {8, false, false}, {-1, true, true}, {~6, false, false}, {0x10004, true, true},
    };
    for (const auto& row : rows) {
        IpcProxyAuxData proxy;
        EXPECT_EQ(row.native, IpcNativeAuxData().AuxiliaryFlagsPresent(row.flags)) << row.flags;
        EXPECT_EQ(row.proxy, proxy.AuxiliaryFlagsPresent(row.flags)) << row.flags;
        proxy.SetTimestamp(4, someTime);
        EXPECT_EQ(row.proxy, proxy.AuxiliaryFlagsPresent(row.flags)) << row.flags << ", with a value";
    }
}

TEST(AuxData, AnEmptyValueCannotBeStored) {
    IpcNativeAuxData aux;
    aux.SetTimestamp(2, someTime);
    TestAccess::Value(aux, 4).clear();
    EXPECT_EQ("failed", Stored(aux));
    EXPECT_EQ("6 MAVIX_API IpcAuxData [IpcAuxData] tag:4 -> size:0\n", LogLines());
}

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
        EXPECT_EQ(0u, TestAccess::Count(aux)) << row.what;
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
