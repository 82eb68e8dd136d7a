#include "AuxDataHelpers.h"

#include <gtest/gtest.h>

#include <cstdint>
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

// Accepts the tags it was made with.
class OtherAuxData final : public IpcAuxData {
public:
    explicit OtherAuxData(std::set<std::int32_t> tags) : m_tags(std::move(tags)) {}

protected:
    std::set<std::int32_t> t_SupportedFlags() const override { return m_tags; }

private:
    std::set<std::int32_t> m_tags;
};

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
