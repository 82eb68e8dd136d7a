#define MAVIX_SOURCE "some/folder/LogMacroUser"

#include "Log.h"
#include "RecordingPlatform.h"

#include <gtest/gtest.h>

#include <string>

using namespace MavixTest;

namespace {

LogLine OnlyLine() {
    const std::vector<LogLine> lines = TCRecordingPlatform::Get().Lines();
    EXPECT_EQ(1u, lines.size());
    return lines.empty() ? LogLine() : lines.front();
}

int LogFrom(int& count) {
    MAVIX_LOGE("value %d", ++count);
    return __LINE__ - 1;
}

class Logger {
public:
    void Log() { MAVIX_LOGE("from a member"); }
};

} // namespace

static_assert(MAVIX_LOG_ID_MAIN == 0, "the main log");
static_assert(MAVIX_LOG_DEBUG == 3 && MAVIX_LOG_INFO == 4 && MAVIX_LOG_WARNING == 5 && MAVIX_LOG_ERROR == 6,
              "the platform's priorities");

TEST(LogMacro, EachLevelHasThePlatformsPriority) {
    const struct {
        void (*log)();
        int priority;
    } rows[] = {
        {[] { MAVIX_LOGD("text"); }, 3},
        {[] { MAVIX_LOGI("text"); }, 4},
        {[] { MAVIX_LOGW("text"); }, 5},
        {[] { MAVIX_LOGE("text"); }, 6},
    };
    for (const auto& row : rows) {
        TCRecordingPlatform::Get().Reset();
        row.log();
        EXPECT_EQ(row.priority, OnlyLine().priority);
        EXPECT_EQ("text", OnlyLine().text);
        EXPECT_EQ("MAVIX_API", OnlyLine().tag);
    }
}

TEST(LogMacro, PrefixNamesSourceWithoutFolderFunctionAndLine) {
    int count = 0;
    const int line = LogFrom(count);
    EXPECT_EQ("LogMacroUser", OnlyLine().source);
    EXPECT_EQ("LogFrom", OnlyLine().function);
    EXPECT_EQ(line, OnlyLine().line);
    EXPECT_EQ("value 1", OnlyLine().text);
}

TEST(LogMacro, PrefixNamesMembersWithoutTheirClass) {
    Logger().Log();
    EXPECT_EQ("Log", OnlyLine().function);
}

TEST(LogMacro, EvaluatesItsArgumentsOnce) {
    int count = 0;
    MAVIX_LOGD("%d", ++count);
    MAVIX_LOGI("%d", ++count);
    MAVIX_LOGW("%d", ++count);
    MAVIX_LOGE("%d", ++count);
    EXPECT_EQ(4, count);
    EXPECT_EQ(4u, TCRecordingPlatform::Get().Lines().size());
}

TEST(LogMacro, IsOneStatement) {
    for (const bool first : {true, false}) {
        TCRecordingPlatform::Get().Reset();
        if (first)
            MAVIX_LOGE("first");
        else
            MAVIX_LOGE("second %d", 2);
        EXPECT_EQ(first ? "first" : "second 2", OnlyLine().text);
    }
}

TEST(LogMacro, LogsUnderAStatedNameInALambda) {
    const auto lambda = [](const char* text) {
        MAVIX_LOG_AS(MAVIX_LOG_WARNING, MAVIX_LOG_SOURCE_NAME, "TheFunction", "%s", text);
    };
    lambda("from a lambda");
    EXPECT_EQ("LogMacroUser", OnlyLine().source);
    EXPECT_EQ("TheFunction", OnlyLine().function);
    EXPECT_EQ("from a lambda", OnlyLine().text);
    EXPECT_EQ(5, OnlyLine().priority);
}

TEST(LogMacro, LogsUnderAStatedSource) {
    MAVIX_LOG_AS(MAVIX_LOG_INFO, "OtherSource", "TheFunction", "text");
    EXPECT_EQ("OtherSource", OnlyLine().source);
    EXPECT_EQ("TheFunction", OnlyLine().function);
}

TEST(LogMacro, FormatsAlikeWithAndWithoutArguments) {
    MAVIX_LOGE("100%% done");
    EXPECT_EQ("100% done", OnlyLine().text);
    TCRecordingPlatform::Get().Reset();
    MAVIX_LOGE("100%% %s", "done");
    EXPECT_EQ("100% done", OnlyLine().text);
}

TEST(LogMacro, TakesUpToElevenArguments) {
    MAVIX_LOGE("%d %d %d %d %d %d %d %d %d %d %d", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11);
    EXPECT_EQ("1 2 3 4 5 6 7 8 9 10 11", OnlyLine().text);
}

TEST(LogMacro, ArgumentsMayHoldCommasInBrackets) {
    MAVIX_LOGE("%s", std::string(3, 'x').c_str());
    EXPECT_EQ("xxx", OnlyLine().text);
}

TEST(LogMacro, SourceNameIsWhatFollowsTheLastSlash) {
    const struct {
        const char* source;
        const char* name;
    } rows[] = {
        {"ipc/IpcClient", "IpcClient"},
        {"IpcClient", "IpcClient"},
        {"a/b/c/D", "D"},
        {"/D", "D"},
        {"D/", ""},
        {"", ""},
    };
    for (const auto& row : rows) {
        EXPECT_STREQ(row.name, MavixApiLite::SourceBaseName(row.source)) << row.source;
    }
}

#undef MAVIX_LOG_TAG
#define MAVIX_LOG_TAG "OTHER_TAG"

TEST(LogMacro, UsesTheTagOfItsSource) {
    MAVIX_LOGE("text");
    EXPECT_EQ("OTHER_TAG", OnlyLine().tag);
}
