#include "IPCUtility.h"
#include "IPCUtility_C.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

// The bus name of a client, made from the unique name of its connection.

namespace {

const std::string start = "com.norvale.Mavix.Signal.";

struct Written {
    std::string text; // the area, whole
    unsigned int capacity;
};

Written Generate(const std::string& uniqueName, unsigned int capacity) {
    std::array<char, 64> area{};
    area.fill('#');
    IPCUtility_GenerateSubConnectionName(uniqueName.data(), static_cast<unsigned int>(uniqueName.size()),
                                         area.data(), &capacity);
    return {std::string(area.data(), area.size()), capacity};
}

TEST(SubConnectionName, PutsMavixBeforeTheFirstDigitOfASegment) {
    const std::pair<const char*, const char*> rows[] = {
        {":1.42", "mavix1.mavix42"},
        {":1.234", "mavix1.mavix234"},
        {"1.42", "mavix1.mavix42"},
        {":0", "mavix0"},
        {":123456.7", "mavix123456.mavix7"},
        // Letters in front do not end the start of a segment.
        {"ab3.c4d5", "abmavix3.cmavix4d5"},
        {":a.b", "a.b"},
        {":1..2", "mavix1..mavix2"},
        // A dot that follows no digit leaves the segment at its start.
        {"..1", "..mavix1"},
        {"a.1", "a.mavix1"},
        // A colon is dropped wherever it stands.
        {":1:2.:3", "mavix12.mavix3"},
        {":", ""},
        {"org.norvale.Name", "org.norvale.Name"},
        {"1_2-3", "mavix1_2-3"},
    };
    for (const auto& [uniqueName, expected] : rows) {
        EXPECT_EQ(start + expected, MavixApiLite::TCIPCUtility::GenerateSubConnectionName(uniqueName))
            << uniqueName;
        const Written written = Generate(uniqueName, 64);
        EXPECT_EQ(start.size() + std::strlen(expected), written.capacity) << uniqueName;
        EXPECT_EQ(start + expected, written.text.substr(0, written.capacity)) << uniqueName;
    }
}

TEST(SubConnectionName, IsNotTerminated) {
    const Written written = Generate(":1.42", 64);
    EXPECT_EQ(start + "mavix1.mavix42" + std::string(25, '#'), written.text);
    EXPECT_EQ(39U, written.capacity);
}

TEST(SubConnectionName, IsCutAtTheCapacityWhichThenStays) {
    const std::string name = start + "mavix1.mavix42";
    for (const unsigned int capacity : {0U, 1U, 25U, 38U, 39U}) {
        const Written written = Generate(":1.42", capacity);
        EXPECT_EQ(capacity, written.capacity);
        EXPECT_EQ(name.substr(0, capacity) + std::string(64 - capacity, '#'), written.text);
    }
    EXPECT_EQ(39U, Generate(":1.42", 40).capacity);
}

TEST(SubConnectionName, TakesTheGivenLengthOfTheUniqueName) {
    std::array<char, 64> area{};
    unsigned int capacity = area.size();
    IPCUtility_GenerateSubConnectionName(":1.42", 4, area.data(), &capacity);
    EXPECT_EQ(start + "mavix1.mavix4", area.data());
}

TEST(SubConnectionName, MissingArgumentsChangeNothing) {
    char output = '#';
    unsigned int capacity = 1;
    IPCUtility_GenerateSubConnectionName(nullptr, 5, &output, &capacity);
    IPCUtility_GenerateSubConnectionName(":1.42", 0, &output, &capacity);
    IPCUtility_GenerateSubConnectionName(":1.42", 5, nullptr, &capacity);
    IPCUtility_GenerateSubConnectionName(":1.42", 5, &output, nullptr);
    EXPECT_EQ('#', output);
    EXPECT_EQ(1U, capacity);
    EXPECT_EQ("", MavixApiLite::TCIPCUtility::GenerateSubConnectionName(""));
}

TEST(SubConnectionName, AsATextHasAtMost255Characters) {
    const std::string fits = MavixApiLite::TCIPCUtility::GenerateSubConnectionName(std::string(229, 'a'));
    EXPECT_EQ(start + std::string(229, 'a'), fits);
    for (const std::size_t length : {230U, 231U, 1000U}) {
        EXPECT_EQ(start + std::string(230, 'a'),
                  MavixApiLite::TCIPCUtility::GenerateSubConnectionName(std::string(length, 'a')));
    }
}

} // namespace
