#include "GdbusError.h"
#include "LogPriorities.h"
#include "RecordingPlatform.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

// The holder of a GIO operation's error.

namespace MavixTest {

namespace {

using MavixApiLite::TCGdbusError;

void Fail(GError** error, const char* text = "broken") {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, text);
}

TEST(GdbusError, WithoutErrorItIsFalseAndSilent) {
    {
        TCGdbusError error("operation");
        EXPECT_EQ(nullptr, *error.GetRawError());
        EXPECT_FALSE(error.CheckErrorAndReset());
    }
    EXPECT_TRUE(TCRecordingPlatform::Get().Lines().empty());
}

TEST(GdbusError, AnErrorIsLoggedInTwoLinesAndForgotten) {
    TCGdbusError error("operation");
    Fail(error.GetRawError());
    EXPECT_TRUE(error.CheckErrorAndReset());
    const std::vector<LogLine> lines = TCRecordingPlatform::Get().Lines();
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ("[API_LITE] operation failed!", lines[0].text);
    EXPECT_EQ("[API_LITE] 'broken'", lines[1].text);
    for (const LogLine& line : lines) {
        EXPECT_EQ(errorLine, line.priority);
        EXPECT_EQ("MAVIX_API", line.tag);
        EXPECT_EQ("GdbusError", line.source);
        EXPECT_EQ("CheckErrorAndReset", line.function);
    }
    EXPECT_EQ(nullptr, *error.GetRawError());
    EXPECT_FALSE(error.CheckErrorAndReset());
    EXPECT_EQ(2U, TCRecordingPlatform::Get().Lines().size());
}

TEST(GdbusError, CanBeUsedAgain) {
    TCGdbusError error("operation");
    for (int round = 1; round <= 3; ++round) {
        Fail(error.GetRawError());
        EXPECT_TRUE(error.CheckErrorAndReset());
        EXPECT_EQ(static_cast<std::size_t>(round),
                  TCRecordingPlatform::Get().Count(errorLine, "[API_LITE] operation failed!"));
    }
}

TEST(GdbusError, AnErrorThatNobodyLookedAtIsLoggedOnDestruction) {
    {
        TCGdbusError error("operation");
        Fail(error.GetRawError(), "unseen");
    }
    EXPECT_EQ(1U, TCRecordingPlatform::Get().Count(errorLine, "[API_LITE] operation failed!"));
    EXPECT_EQ(1U, TCRecordingPlatform::Get().Count(errorLine, "[API_LITE] 'unseen'"));
}

TEST(GdbusError, TextsAreNoFormats) {
    TCGdbusError error("100%s");
    Fail(error.GetRawError(), "%n%s");
    EXPECT_TRUE(error.CheckErrorAndReset());
    EXPECT_EQ(1U, TCRecordingPlatform::Get().Count(errorLine, "[API_LITE] 100%s failed!"));
    EXPECT_EQ(1U, TCRecordingPlatform::Get().Count(errorLine, "[API_LITE] '%n%s'"));
}

} // namespace

} // namespace MavixTest
