#include "ChildProgram.h"
#include "RecordingPlatform.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <iostream>

namespace {

// Every test starts with an empty record; that of a failed test is printed.
class PlatformListener final : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo& /*test*/) override {
        MavixTest::TCRecordingPlatform::Get().Reset();
    }

    void OnTestEnd(const testing::TestInfo& test) override {
        if (test.result()->Failed()) {
            MavixTest::TCRecordingPlatform::Get().Print(std::cout);
        }
    }
};

} // namespace

int main(int argc, char** argv) {
    // Every complaint of libdbus ends the process, not only those about its callers.
    setenv("DBUS_FATAL_WARNINGS", "1", 1);
    int exitCode = 0;
    if (MavixTest::RunAsChild(argc, argv, exitCode)) {
        return exitCode;
    }
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new PlatformListener);
    return RUN_ALL_TESTS();
}
