#include "FlavourFixture.h"
#include "LiteUtility.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace MavixTest;
using MavixApiLite::LiteUtility;

namespace MavixApiLite {

struct TestAccess {
    static void PrintFlags() {
        std::printf("%d %d %d\n", LiteUtility::m_isDebug.load(), LiteUtility::m_isPerf.load(),
                    LiteUtility::m_isRelease.load());
    }
};

} // namespace MavixApiLite

namespace {

std::vector<std::string> looks;
std::atomic<int> lookCount{0};
bool keepLooks = false;

void PrintAnswers() {
    const bool debug = LiteUtility::IsDebug();
    const bool perf = LiteUtility::IsPerf();
    const bool release = LiteUtility::IsRelease();
    std::printf("%d %d %d\n", debug, perf, release);
}

constexpr const char* markers[] = {"/etc/debug", "/etc/perf", "/etc/release"};

class BuildFlavour : public FlavourFixture {};

} // namespace

// Counts every look at a file and has the system answer.
extern "C" int access(const char* path, int mode) noexcept {
    ++lookCount;
    if (keepLooks) {
        looks.push_back(std::string(path) + (mode == F_OK ? " exists" : " other"));
    }
    return static_cast<int>(syscall(SYS_faccessat, AT_FDCWD, path, mode));
}

MAVIX_CHILD(AskTwice) {
    MavixApiLite::TestAccess::PrintFlags();
    PrintAnswers();
    MavixApiLite::TestAccess::PrintFlags();
    PrintAnswers();
    return 0;
}

MAVIX_CHILD(ListLooks) {
    keepLooks = true;
    for (int round = 0; round < 3; ++round) {
        PrintAnswers();
    }
    for (const std::string& look : looks) {
        std::printf("%s\n", look.c_str());
    }
    return 0;
}

MAVIX_CHILD(RemoveMarkersAfterTheFirstLook) {
    PrintAnswers();
    for (const char* marker : markers) {
        if (unlink(marker) != 0) {
            return 1;
        }
    }
    PrintAnswers();
    return 0;
}

MAVIX_CHILD(CreateMarkersAfterTheFirstLook) {
    PrintAnswers();
    for (const char* marker : markers) {
        const int file = open(marker, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (file < 0) {
            return 1;
        }
        close(file);
    }
    PrintAnswers();
    return 0;
}

MAVIX_CHILD(CreatePerfBeforeItsFirstLook) {
    std::printf("%d\n", LiteUtility::IsDebug());
    const int file = open("/etc/perf", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (file < 0) {
        return 1;
    }
    close(file);
    std::printf("%d\n", LiteUtility::IsPerf());
    return 0;
}

MAVIX_CHILD(RaceOnTheFirstLook) {
    constexpr int threadCount = 16;
    std::atomic<int> waiting{threadCount};
    std::atomic<int> yes{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&] {
            --waiting;
            while (waiting > 0) {
            }
            for (int round = 0; round < 100; ++round) {
                yes += LiteUtility::IsDebug() ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::printf("%d yes, %s\n", yes.load(),
                lookCount <= threadCount ? "one look a thread at most" : "more looks");
    return 0;
}

TEST_F(BuildFlavour, EachMarkerFileSwitchesItsOwnFlagAndTheFlagIsKept) {
    for (unsigned int flavour = 0; flavour < 8; ++flavour) {
        const ChildResult result = RunChildProgram("AskTwice", flavour);
        const std::string answers = std::string((flavour & debugFlavour) != 0 ? "1 " : "0 ") +
                                    ((flavour & perfFlavour) != 0 ? "1 " : "0 ") +
                                    ((flavour & releaseFlavour) != 0 ? "1\n" : "0\n");
        EXPECT_EQ(0, result.exitCode) << flavour << ": " << result.errors;
        EXPECT_EQ("-1 -1 -1\n" + answers + answers + answers, result.output) << flavour;
    }
}

TEST_F(BuildFlavour, EachMarkerFileIsLookedAtOncePerProcess) {
    const std::string looked = "/etc/debug exists\n/etc/perf exists\n/etc/release exists\n";
    const ChildResult absent = RunChildProgram("ListLooks");
    EXPECT_EQ("0 0 0\n0 0 0\n0 0 0\n" + looked, absent.output) << absent.errors;
    const ChildResult present = RunChildProgram("ListLooks", debugFlavour | perfFlavour | releaseFlavour);
    EXPECT_EQ("1 1 1\n1 1 1\n1 1 1\n" + looked, present.output) << present.errors;
}

TEST_F(BuildFlavour, RemovingAMarkerAfterTheFirstLookChangesNothing) {
    const ChildResult result =
        RunChildProgram("RemoveMarkersAfterTheFirstLook", debugFlavour | perfFlavour | releaseFlavour);
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_EQ("1 1 1\n1 1 1\n", result.output);
}

TEST_F(BuildFlavour, CreatingAMarkerAfterTheFirstLookChangesNothing) {
    const ChildResult result = RunChildProgram("CreateMarkersAfterTheFirstLook");
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_EQ("0 0 0\n0 0 0\n", result.output);
}

TEST_F(BuildFlavour, AMarkerThatAppearsBeforeItsOwnFirstLookCounts) {
    const ChildResult result = RunChildProgram("CreatePerfBeforeItsFirstLook");
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_EQ("0\n1\n", result.output);
}

TEST_F(BuildFlavour, ThreadsThatRaceOnTheFirstLookGetTheSameAnswer) {
    const ChildResult result = RunChildProgram("RaceOnTheFirstLook", debugFlavour);
    EXPECT_EQ("1600 yes, one look a thread at most\n", result.output) << result.errors;
}
