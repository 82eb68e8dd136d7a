#include "IPCUtility.h"
#include "IPCUtility_C.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

using MavixApiLite::TCIPCUtility;

namespace {

const std::string start = "com.norvale.Mavix.Signal.";

struct Generated {
    std::string area; // the whole output area, '#' where nothing was written
    unsigned int capacity;
};

Generated Generate(const std::string& uniqueName, unsigned int capacity) {
    Generated result{std::string(300, '#'), capacity};
    IPCUtility_GenerateSubConnectionName(uniqueName.data(), static_cast<unsigned int>(uniqueName.size()),
                                         result.area.data(), &result.capacity);
    return result;
}

} // namespace

TEST(SubConnectionName, PutsMavixBeforeTheFirstDigitOfEachElement) {
    const struct {
        std::string uniqueName;
        std::string name;
    } rows[] = {
        {":1.42", "mavix1.mavix42"},
        {":1.234", "mavix1.mavix234"},
        {"1.2", "mavix1.mavix2"},
        {":1", "mavix1"},
        {":10.0", "mavix10.mavix0"},
        {":1.2.3", "mavix1.mavix2.mavix3"},
        {":1:2.:3", "mavix12.mavix3"},
        {":", ""},
        {".", "."},
        {"..", ".."},
        {"..1", "..mavix1"},
        {"1..2", "mavix1..mavix2"},
        {"abc", "abc"},
        {"abc.def", "abc.def"},
        {"a1.b2", "amavix1.bmavix2"},
        {"a1b2", "amavix1b2"},
        {"ab.c", "ab.c"},
        // An element without digit leaves the next one its prefix.
        {"ab.5", "ab.mavix5"},
        {"1a.5", "mavix1a.mavix5"},
        {"org.norvale.X9", "org.norvale.Xmavix9"},
        {"/0", "/mavix0"},
        {"-9:", "-mavix9"},
        {std::string("1\0.2", 4), std::string("mavix1\0.mavix2", 14)},
    };
    for (const auto& row : rows) {
        const Generated result = Generate(row.uniqueName, 255);
        const std::string expected = start + row.name;
        EXPECT_EQ(expected, result.area.substr(0, expected.size())) << row.uniqueName;
        EXPECT_EQ(std::string(300 - expected.size(), '#'), result.area.substr(expected.size()))
            << row.uniqueName << ": nothing follows, not even a terminator";
        EXPECT_EQ(expected.size(), result.capacity) << row.uniqueName;
    }
}

TEST(SubConnectionName, ReadsNoFurtherThanTheGivenLength) {
    std::string area(64, '#');
    unsigned int capacity = 64;
    IPCUtility_GenerateSubConnectionName(":1.42", 3, area.data(), &capacity);
    EXPECT_EQ(start + "mavix1.", area.substr(0, capacity));
}

TEST(SubConnectionName, IsCutAtTheCapacityWhichIsKept) {
    const std::string whole = start + "mavix1.mavix42";
    const auto length = static_cast<unsigned int>(whole.size());
    for (const unsigned int capacity : {0u, 1u, 10u, length - 1, length}) {
        const Generated result = Generate(":1.42", capacity);
        EXPECT_EQ(whole.substr(0, capacity) + std::string(300 - capacity, '#'), result.area) << capacity;
        EXPECT_EQ(capacity, result.capacity);
    }
    const Generated larger = Generate(":1.42", length + 1);
    EXPECT_EQ(whole + std::string(300 - length, '#'), larger.area);
    EXPECT_EQ(length, larger.capacity);
}

TEST(SubConnectionName, TouchesNothingWithoutNameAreaOrCapacity) {
    std::string area(64, '#');
    unsigned int capacity = 64;
    IPCUtility_GenerateSubConnectionName(nullptr, 5, area.data(), &capacity);
    IPCUtility_GenerateSubConnectionName(":1.42", 0, area.data(), &capacity);
    IPCUtility_GenerateSubConnectionName(":1.42", 5, nullptr, &capacity);
    IPCUtility_GenerateSubConnectionName(":1.42", 5, area.data(), nullptr);
    EXPECT_EQ(std::string(64, '#'), area);
    EXPECT_EQ(64u, capacity);
}

TEST(SubConnectionName, AsATextIsTheSameName) {
    EXPECT_EQ("com.norvale.Mavix.Signal.mavix1.mavix42", TCIPCUtility::GenerateSubConnectionName(":1.42"));
    EXPECT_EQ("com.norvale.Mavix.Signal.mavix1.mavix234", TCIPCUtility::GenerateSubConnectionName(":1.234"));
    EXPECT_EQ("", TCIPCUtility::GenerateSubConnectionName(""));
}

TEST(SubConnectionName, AsATextHasAtMost255Characters) {
    for (const std::size_t letters : {229u, 230u, 231u, 1000u}) {
        const std::string whole = start + std::string(letters, 'x');
        EXPECT_EQ(whole.substr(0, 255), TCIPCUtility::GenerateSubConnectionName(std::string(letters, 'x')))
            << letters;
    }
}

TEST(SenderString, UndoesTheSubConnectionName) {
    for (const char* uniqueName : {":1.1", ":1.42", ":1.234", ":12.3456", ":0.0"}) {
        EXPECT_EQ(uniqueName, TCIPCUtility::ConnectionNameToSenderString(
                                  TCIPCUtility::GenerateSubConnectionName(uniqueName)));
    }
}

TEST(SenderString, IsMadeOfTheLastTwoElementsWithoutTheirFirstFiveCharacters) {
    const struct {
        const char* name;
        const char* sender;
    } rows[] = {
        {"", ""},
        {"nodot", ""},
        {"a.b.c", ""},
        {".", ""},
        {"..", ""},
        {"...", ""},
        // One dot only.
        {"mavix1.mavix2", ""},
        {".mavix2", ""},
        {".mavix1.mavix2", ":1.2"},
        {"x.mavix1.mavix2", ":1.2"},
        {"com.norvale.Mavix.Signal.mavix1.mavix234", ":1.234"},
        // One character more than the prefix is the least.
        {"x.mavix.mavix2", ""},
        {"x.mavix1.mavix", ""},
        {"x.mavi.mavix2", ""},
        {"x.mavix1.", ""},
        {"x..mavix2", ""},
        // The prefix is counted, not compared.
        {"x.ABCDE1.FGHIJ2", ":1.2"},
        {"x.123456.1234567", ":6.67"},
        {"mavix9.mavix1.mavix2", ":1.2"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.sender, TCIPCUtility::ConnectionNameToSenderString(row.name)) << "'" << row.name << "'";
    }
}
