#include "ControlProgram.h"

#include <gtest/gtest.h>

namespace MavixTest {

namespace {

TEST(Usage, NamesTheCommandsToChooseFrom) {
    const ControlResult nothing = RunControl({});
    EXPECT_EQ(nothing.status, 2);
    EXPECT_EQ(nothing.errors.rfind("mavixctl: a command is missing, one of ", 0), 0u) << nothing.errors;
    const ControlResult unknown = RunControl({"nonsense"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_EQ(unknown.errors.rfind("mavixctl: 'nonsense' is none of ", 0), 0u) << unknown.errors;
    EXPECT_NE(unknown.errors.find("route"), std::string::npos);
    EXPECT_EQ(nothing.output + unknown.output, "");
}

TEST(Usage, HelpAndVersionGoToStandardOutput) {
    for (const char* word : {"--help", "--version"}) {
        const ControlResult result = RunControl({word});
        EXPECT_EQ(result.status, 0) << word;
        EXPECT_NE(result.output.find("mavixctl"), std::string::npos) << word;
        EXPECT_EQ(result.errors, "") << word;
    }
}

TEST(Usage, OutputThatCannotBeWrittenIsAFailure) {
    TCControlProgram::Options options;
    options.launcher = {"sh", "-c", "exec \"$@\" >/dev/full", "sh"};
    const ControlResult result = RunControl({"--help"}, options);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "mavixctl: standard output cannot be written\n");
}

} // namespace

} // namespace MavixTest
