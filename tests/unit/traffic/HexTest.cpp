#include "Hex.h"

#include <gtest/gtest.h>

namespace MavixTraffic {

namespace {

TEST(Hex, ReadsWhatItWrites) {
    std::vector<std::uint8_t> all;
    for (int i = 0; i < 256; ++i)
        all.push_back(static_cast<std::uint8_t>(i));
    const std::string text = ToHex(all.data(), all.size());
    EXPECT_EQ(text.size(), 512u);
    EXPECT_EQ(text.substr(0, 8), "00010203");
    EXPECT_EQ(FromHex(text), all);
}

TEST(Hex, RefusesWhatIsNoPairsOfLowerCaseDigits) {
    for (const char* text : {"0", "0g", "AB", " 1", "12 ", "/0", ":0"})
        EXPECT_EQ(FromHex(text), std::nullopt) << text;
    EXPECT_EQ(FromHex(""), std::vector<std::uint8_t>());
}

TEST(Hex, ReadsWhatPeopleType) {
    EXPECT_EQ(FromTypedHex(" 0aFf:10 20:"), (std::vector<std::uint8_t>{10, 255, 16, 32}));
    EXPECT_EQ(FromTypedHex(""), std::vector<std::uint8_t>());
    for (const char* text : {"0", "a b", "0:1", "gg", "0x10", "1-2"})
        EXPECT_EQ(FromTypedHex(text), std::nullopt) << text;
}

TEST(Hex, ShowsBytesInRowsOfSixteen) {
    const std::string bytes = "Is anybody\n\xff? 1234";
    std::string text;
    AppendDump(text, reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), "  ");
    EXPECT_EQ(text, "  00000000  49 73 20 61 6e 79 62 6f  64 79 0a ff 3f 20 31 32  |Is anybody..? 12|\n"
                    "  00000010  33 34                                             |34|\n");
    text.clear();
    AppendDump(text, nullptr, 0, "  ");
    EXPECT_EQ(text, "");
    AppendDump(text, reinterpret_cast<const std::uint8_t*>(bytes.data()), 2, "",
               [](std::string_view letters) { return "<" + std::string(letters) + ">"; });
    EXPECT_EQ(text, "00000000  49 73                                             <|Is|>\n");
}

} // namespace

} // namespace MavixTraffic
