#include "ChildProcess.h"
#include "Platform.h"
#include "Sockets.h"

#include <cerrno>
#include <gmock/gmock.h>

namespace {

constexpr const char* Key = "com.norvale/featureconf/broadcasting.mavix_supported";

struct Answer {
    int result;
    bool value;
};

// Asks in a child that reads the given file, with the value set to `before`.
Answer Ask(const std::string& file, const char* key, bool before) {
    const int status =
        RunChild({{"MAVIX_SYSTEM_INFO", file}, {"MAVIX_JOURNAL_SOCKET", "/nonexistent"}}, [key, before] {
            bool value = before;
            const int result = system_info_get_custom_bool(key, &value);
            return -result * 2 + (value ? 1 : 0);
        }).status;
    return {-(status / 2), status % 2 == 1};
}

TEST(HostSystemInfo, AnswersWhatTheKeyFileSays) {
    struct Row {
        const char* text;
        int result;
        bool value;
    };
    const std::string prefix = std::string("[features]\n") + Key;
    const std::string good = prefix + "=true\n";
    const std::string spaced = "# comment\n\n" + prefix + " = false\nother=true\n";
    const std::string number = prefix + "=1\n";
    const std::string last = prefix + "=true\n" + Key + "=false\n";
    const std::string otherGroup = std::string("[other]\n") + Key + "=true\n";
    const std::string longer = prefix + "_too=true\n";
    const std::string bad = prefix + "=perhaps\n";
    const std::string empty = prefix + "=\n";
    const std::string noGroup = std::string(Key) + "=true\n";
    const Row rows[] = {
        {good.c_str(), 0, true},
        {spaced.c_str(), 0, false},
        {number.c_str(), 0, true},
        {last.c_str(), 0, false},
        {otherGroup.c_str(), -ENOENT, false},
        {longer.c_str(), -ENOENT, false},
        {"", -ENOENT, false},
        {"[features]\n", -ENOENT, false},
        {bad.c_str(), -EINVAL, false},
        {empty.c_str(), -EINVAL, false},
        {noGroup.c_str(), -EINVAL, false},
        {"[features\n", -EINVAL, false},
    };
    const TestFolder folder;
    const std::string file = folder / "system-info.conf";
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << "file \"" << row.text << '"');
        WriteFile(file, row.text);
        for (const bool before : {false, true}) {
            const Answer answer = Ask(file, Key, before);
            EXPECT_EQ(answer.result, row.result);
            EXPECT_EQ(answer.value, row.result == 0 ? row.value : before);
        }
    }
}

TEST(HostSystemInfo, FailsWithoutFile) {
    const TestFolder folder;
    EXPECT_EQ(Ask(folder / "absent", Key, true).result, -ENOENT);
    EXPECT_TRUE(Ask(folder / "absent", Key, true).value);
}

TEST(HostSystemInfo, FailsWhenTheFileIsNone) {
    const TestFolder folder;
    EXPECT_LT(Ask(folder / "", Key, false).result, 0);
}

TEST(HostSystemInfo, RefusesMissingArguments) {
    bool value = true;
    EXPECT_EQ(system_info_get_custom_bool(nullptr, &value), -EINVAL);
    EXPECT_TRUE(value);
    EXPECT_EQ(system_info_get_custom_bool(Key, nullptr), -EINVAL);
}

TEST(HostSystemInfo, SeesAFileThatWasChanged) {
    const TestFolder folder;
    const std::string file = folder / "system-info.conf";
    const ChildResult result = RunChild({{"MAVIX_SYSTEM_INFO", file}}, [&file] {
        bool value = false;
        const bool failedFirst = system_info_get_custom_bool(Key, &value) != 0;
        WriteFile(file, std::string("[features]\n") + Key + "=true\n");
        const bool thenRead = system_info_get_custom_bool(Key, &value) == 0 && value;
        WriteFile(file, std::string("[features]\n") + Key + "=false\n");
        const bool thenChanged = system_info_get_custom_bool(Key, &value) == 0 && !value;
        return failedFirst && thenRead && thenChanged ? 0 : 1;
    });
    EXPECT_EQ(result.status, 0);
}

TEST(HostSystemInfo, WarnsOfWhatItCannotRead) {
    const TestFolder folder;
    const std::string file = folder / "system-info.conf";
    WriteFile(file, std::string("[features]\n") + Key + "=perhaps\n");
    const ChildResult result = RunChild(
        {{"MAVIX_SYSTEM_INFO", file}, {"MAVIX_JOURNAL_SOCKET", "/nonexistent"}, {"MAVIX_LOG", "warning"}},
        [] {
            bool value = false;
            return system_info_get_custom_bool(Key, &value) == -EINVAL ? 0 : 1;
        });
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.standardError, testing::StartsWith("W MAVIX_PLATFORM: HostSystemInfo: "));
    EXPECT_THAT(result.standardError, testing::HasSubstr(file));
}

} // namespace
