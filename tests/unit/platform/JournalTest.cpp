#include "ChildProcess.h"
#include "Platform.h"
#include "Sockets.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <iostream>
#include <memory>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-journal.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr const char* Socket = "/run/systemd/journal/socket";
constexpr const char* Daemon = "/lib/systemd/systemd-journald";
constexpr const char* VolatileJournal = "/run/log/journal";

// Logs one line and reads its fields back: 0 when all are right.
int LogAndReadBack(sd_journal* journal) {
    const std::string tag = "MAVIX_TEST_" + std::to_string(::getpid());
    sd_journal_add_match(journal, ("SYSLOG_IDENTIFIER=" + tag).c_str(), 0);
    __dlog_print(MAVIX_LOG_ID_MAIN, MAVIX_LOG_ERROR, tag.c_str(), "%s: %s(%d) > two\nlines", "Source",
                 "function", 7);
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (sd_journal_next(journal) == 0) {
        if (std::chrono::steady_clock::now() >= giveUp) {
            std::cerr << "the line did not reach the journal\n";
            return 1;
        }
        sd_journal_wait(journal, 100000);
    }
    const JournalFields expected{{"MESSAGE", "Source: function(7) > two\nlines"},
                                 {"PRIORITY", "3"},
                                 {"CODE_FILE", "Source"},
                                 {"CODE_FUNC", "function"},
                                 {"CODE_LINE", "7"},
                                 {"TID", std::to_string(::gettid())},
                                 {"_PID", std::to_string(::getpid())}};
    int wrong = 0;
    for (const auto& [name, value] : expected) {
        const void* data = nullptr;
        std::size_t length = 0;
        const bool isThere = sd_journal_get_data(journal, name.c_str(), &data, &length) == 0;
        const std::string found = isThere ? std::string(static_cast<const char*>(data), length) : "nothing";
        if (found != name + "=" + value) {
            std::cerr << "expected " << name << '=' << value << ", found " << found << '\n';
            wrong = 2;
        }
    }
    return wrong;
}

using Journal = std::unique_ptr<sd_journal, void (*)(sd_journal*)>;
const Environment DefaultLogging{{"MAVIX_JOURNAL_SOCKET", ""}, {"MAVIX_LOG_LEVEL", ""}, {"MAVIX_LOG", ""}};

TEST(MachineJournal, FieldsAreReadBack) {
    if (::access(Socket, W_OK) != 0) {
        GTEST_SKIP() << "no journal runs on this machine (" << Socket << ")";
    }
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can count on reading the machine's journal";
    }
    const ChildResult result = RunChild(DefaultLogging, [] {
        sd_journal* journal = nullptr;
        if (sd_journal_open(&journal, SD_JOURNAL_LOCAL_ONLY) < 0) {
            return 3;
        }
        return LogAndReadBack(Journal(journal, sd_journal_close).get());
    });
    EXPECT_EQ(result.status, 0) << result.standardError;
}

// A journal service on a /run that only its process and ours see; it leaves the kernel's log and audit alone.
pid_t StartPrivateJournal() {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0) {
        return -1;
    }
    std::filesystem::create_directories("/run/systemd/journal");
    std::filesystem::create_directories("/run/systemd/journald.conf.d");
    std::filesystem::create_directories(VolatileJournal);
    WriteFile("/run/systemd/journald.conf.d/test.conf",
              "[Journal]\nStorage=volatile\nAudit=no\nReadKMsg=no\nForwardToSyslog=no\nForwardToWall=no\n");
    const pid_t daemon = ::fork();
    if (daemon == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::execl(Daemon, Daemon, nullptr);
        ::_exit(1);
    }
    return daemon;
}

TEST(PrivateJournal, FieldsAreReadBack) {
    if (::geteuid() != 0 || RunChild({}, [] { return ::unshare(CLONE_NEWNS); }).status != 0) {
        GTEST_SKIP() << "this user may not have a mount name space (needs root or CAP_SYS_ADMIN)";
    }
    if (::access(Daemon, X_OK) != 0) {
        GTEST_SKIP() << "there is no journal service to start (" << Daemon << ")";
    }
    const ChildResult result = RunChild(DefaultLogging, [] {
        const pid_t daemon = StartPrivateJournal();
        if (daemon < 0) {
            return 4;
        }
        int status = 3;
        const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (::access(Socket, W_OK) != 0 && std::chrono::steady_clock::now() < giveUp) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        sd_journal* journal = nullptr;
        if (sd_journal_open_directory(&journal, VolatileJournal, 0) >= 0) {
            status = LogAndReadBack(Journal(journal, sd_journal_close).get());
        }
        ::kill(daemon, SIGTERM);
        ::waitpid(daemon, nullptr, 0);
        return status;
    });
    EXPECT_EQ(result.status, 0) << result.standardError;
}

} // namespace
