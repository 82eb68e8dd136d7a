#include "ChildProcess.h"
#include "Platform.h"
#include "Sockets.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;
using std::chrono::steady_clock;

namespace {

// Plays systemd and the journal for one child.
class HostWatchdog : public testing::Test {
protected:
    static constexpr const char* Feed = "WATCHDOG=1";

    Environment t_With(const char* limitUsec) const {
        return {{"NOTIFY_SOCKET", t_folder / "notify"},
                {"MAVIX_JOURNAL_SOCKET", t_folder / "journal"},
                {"MAVIX_LOG", ""},
                {"MAVIX_LOG_LEVEL", ""},
                {"WATCHDOG_USEC", limitUsec},
                {"WATCHDOG_PID", ""}};
    }

    bool t_IsFed(std::chrono::milliseconds limit) {
        const std::optional<std::string> datagram = t_systemd.Receive(limit);
        EXPECT_EQ(datagram.value_or(Feed), Feed);
        return datagram.has_value();
    }

    // The next line of the journal; empty when there is none.
    std::string t_Line(std::chrono::milliseconds limit) {
        const std::optional<std::string> datagram = t_journal.Receive(limit);
        return datagram ? ParseJournalEntry(*datagram)["MESSAGE"] : "";
    }

    TestFolder t_folder;
    DatagramService t_systemd{t_folder / "notify"};
    DatagramService t_journal{t_folder / "journal"};
};

// Notifies until told to stop, far more often than any period asks for.
void StayAlive(int stop) {
    fd_set ends;
    timeval pause;
    do {
        smart_deadlock_watchdog_notify();
        FD_ZERO(&ends);
        FD_SET(stop, &ends);
        pause = {0, 20000};
    } while (::select(stop + 1, &ends, nullptr, nullptr, &pause) == 0);
}

// Whether a thread of this process, other than the caller, is blocked in that system call.
bool HasThreadInSystemCall(long number) {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        long current = -1;
        std::ifstream(task.path() / "syscall") >> current;
        if (current == number) {
            return true;
        }
    }
    return false;
}

TEST_F(HostWatchdog, IsFedAtOnceAndThenTwicePerLimit) {
    Signal end;
    ChildProcess child(t_With("2000000"), [&end] {
        smart_deadlock_register_watchdog_service(60);
        end.Await();
        return smart_deadlock_unregister_watchdog_service();
    });
    ASSERT_TRUE(t_IsFed(5s));
    const auto first = steady_clock::now();
    ASSERT_TRUE(t_IsFed(2s));
    ASSERT_TRUE(t_IsFed(2s));
    const auto took = steady_clock::now() - first;
    end.Give();
    EXPECT_EQ(child.Wait().status, 0);
    // One second each, less what the first one was read late by.
    EXPECT_GT(took, 1500ms);
}

TEST_F(HostWatchdog, IsNotFedMoreOftenByManyNotifications) {
    Signal fed;
    ChildProcess child(t_With("3600000000"), [&fed] {
        smart_deadlock_register_watchdog_service(60);
        fed.Await();
        for (int times = 0; times < 1000; ++times) {
            smart_deadlock_watchdog_notify();
        }
        return smart_deadlock_unregister_watchdog_service();
    });
    EXPECT_TRUE(t_IsFed(5s));
    fed.Give();
    EXPECT_EQ(child.Wait().status, 0);
    EXPECT_FALSE(t_IsFed(0ms));
}

TEST_F(HostWatchdog, MissedPeriodIsLoggedOnceAndStopsTheFeeding) {
    Signal resume;
    Signal end;
    ChildProcess child(t_With("200000"), [&resume, &end] {
        pthread_setname_np(pthread_self(), "HungThread");
        smart_deadlock_register_watchdog_service(1);
        resume.Await();
        smart_deadlock_watchdog_notify();
        end.Await();
        return 0;
    });
    const std::string thread = std::to_string(child.Pid());
    ASSERT_TRUE(t_IsFed(5s));
    EXPECT_THAT(t_Line(5s), testing::MatchesRegex("HostWatchdog: .*\\([0-9]+\\) > thread " + thread +
                                                  " \\(HungThread\\) missed its period of 1 s"));
    while (t_IsFed(0ms)) {
    }
    // Five intervals without a sign, and no second line.
    EXPECT_FALSE(t_IsFed(500ms));
    EXPECT_EQ(t_Line(0ms), "");
    resume.Give();
    EXPECT_TRUE(t_IsFed(5s));
    EXPECT_THAT(t_Line(5s), testing::HasSubstr("thread " + thread + " (HungThread) is back"));
    end.Give();
    EXPECT_EQ(child.Wait().status, 0);
}

TEST_F(HostWatchdog, OneHungThreadAmongLiveOnesStopsTheFeeding) {
    Signal end;
    ChildProcess child(t_With("200000"), [&end] {
        int stop[2];
        if (::pipe(stop) != 0) {
            return 1;
        }
        std::thread alive([&stop] {
            smart_deadlock_register_watchdog_service(1);
            StayAlive(stop[0]);
            smart_deadlock_unregister_watchdog_service();
        });
        std::thread hung([&end] {
            pthread_setname_np(pthread_self(), "HungThread");
            smart_deadlock_register_watchdog_service(1);
            end.Await();
            smart_deadlock_unregister_watchdog_service();
        });
        // Once the hung thread has unregistered, the live one alone keeps the feeding up.
        hung.join();
        end.Await();
        ::close(stop[1]);
        alive.join();
        return 0;
    });
    ASSERT_TRUE(t_IsFed(5s));
    EXPECT_THAT(t_Line(5s), testing::HasSubstr("(HungThread) missed its period"));
    while (t_IsFed(0ms)) {
    }
    EXPECT_FALSE(t_IsFed(500ms));
    end.Give();
    EXPECT_TRUE(t_IsFed(5s));
    end.Give();
    EXPECT_EQ(child.Wait().status, 0);
    EXPECT_EQ(t_Line(0ms), "");
}

TEST_F(HostWatchdog, LiveThreadIsNeverReported) {
    Signal end;
    ChildProcess child(t_With("200000"), [&end] {
        int stop[2];
        if (::pipe(stop) != 0) {
            return 1;
        }
        std::thread alive([&stop] {
            smart_deadlock_register_watchdog_service(1);
            StayAlive(stop[0]);
            smart_deadlock_unregister_watchdog_service();
        });
        end.Await();
        ::close(stop[1]);
        alive.join();
        return 0;
    });
    // Three periods' worth of feeding.
    for (int feed = 0; feed < 30; ++feed) {
        ASSERT_TRUE(t_IsFed(1s));
    }
    end.Give();
    EXPECT_EQ(child.Wait().status, 0);
    EXPECT_EQ(t_Line(0ms), "");
}

TEST_F(HostWatchdog, IsNotFedWhileNoThreadIsRegistered) {
    Signal end;
    ChildProcess child(t_With("200000"), [&end] {
        smart_deadlock_register_watchdog_service(1);
        end.Await();
        smart_deadlock_unregister_watchdog_service();
        end.Await();
        return 0;
    });
    ASSERT_TRUE(t_IsFed(5s));
    end.Give();
    while (t_IsFed(150ms)) {
    }
    EXPECT_FALSE(t_IsFed(1500ms));
    end.Give();
    EXPECT_EQ(child.Wait().status, 0);
    EXPECT_EQ(t_Line(0ms), "");
}

TEST_F(HostWatchdog, WithoutWatchdogInTheEnvironmentItOnlyWatches) {
    struct Row {
        const char* limit;
        const char* pid;
    };
    for (const Row& row : {Row{"", ""}, Row{"200000", "1"}, Row{"0", ""}, Row{"nonsense", ""}}) {
        SCOPED_TRACE(testing::Message() << "WATCHDOG_USEC=" << row.limit << " WATCHDOG_PID=" << row.pid);
        Environment environment = t_With(row.limit);
        environment["WATCHDOG_PID"] = row.pid;
        Signal end;
        ChildProcess child(environment, [&end] {
            smart_deadlock_register_watchdog_service(1);
            end.Await();
            return 0;
        });
        EXPECT_THAT(t_Line(5s), testing::HasSubstr("missed its period of 1 s"));
        EXPECT_FALSE(t_IsFed(0ms));
        end.Give();
        EXPECT_EQ(child.Wait().status, 0);
    }
}

TEST_F(HostWatchdog, SlowSystemdBlocksNoWatchedThread) {
    // Nobody reads the feedings, so that the socket's queue is full after some.
    const ChildResult result = RunChild(t_With("2000"), [] {
        smart_deadlock_register_watchdog_service(60);
        while (!HasThreadInSystemCall(SYS_sendmsg)) {
            std::this_thread::yield();
        }
        for (int times = 0; times < 1000; ++times) {
            smart_deadlock_watchdog_notify();
        }
        const bool stillStuck = HasThreadInSystemCall(SYS_sendmsg);
        return smart_deadlock_unregister_watchdog_service() == 0 && stillStuck ? 0 : 1;
    });
    EXPECT_EQ(result.status, 0);
}

TEST_F(HostWatchdog, RegistrationIsPerThreadAndChecked) {
    const ChildResult result = RunChild(t_With(""), [] {
        if (smart_deadlock_watchdog_notify() != -ENOENT ||
            smart_deadlock_unregister_watchdog_service() != -ENOENT ||
            smart_deadlock_register_watchdog_service(0) != -EINVAL ||
            smart_deadlock_register_watchdog_service(-1) != -EINVAL ||
            smart_deadlock_register_watchdog_service(30) != 0 ||
            smart_deadlock_register_watchdog_service(60) != 0) {
            return 1;
        }
        int inOtherThread = 0;
        std::thread([&inOtherThread] { inOtherThread = smart_deadlock_watchdog_notify(); }).join();
        if (inOtherThread != -ENOENT || smart_deadlock_watchdog_notify() != 0 ||
            smart_deadlock_unregister_watchdog_service() != 0) {
            return 2;
        }
        return smart_deadlock_watchdog_notify() == -ENOENT ? 0 : 3;
    });
    EXPECT_EQ(result.status, 0);
}

TEST_F(HostWatchdog, SecondRegistrationReplacesThePeriod) {
    Signal end;
    ChildProcess child(t_With(""), [&end] {
        smart_deadlock_register_watchdog_service(3600);
        smart_deadlock_register_watchdog_service(1);
        end.Await();
        return 0;
    });
    EXPECT_THAT(t_Line(5s), testing::HasSubstr("missed its period of 1 s"));
    end.Give();
    EXPECT_EQ(child.Wait().status, 0);
}

TEST_F(HostWatchdog, ForkedChildWatchesNothingOfItsParent) {
    const ChildResult result = RunChild(t_With(""), [] {
        smart_deadlock_register_watchdog_service(60);
        const pid_t child = ::fork();
        if (child == 0) {
            ::_exit(smart_deadlock_watchdog_notify() == -ENOENT ? 0 : 1);
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        return smart_deadlock_watchdog_notify() == 0 ? status : -1;
    });
    EXPECT_EQ(result.status, 0);
}

TEST_F(HostWatchdog, ForkedChildIsWatchedOnItsOwn) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer allows no new thread in a child of a process that had several";
#endif
    Signal end;
    ChildProcess parent(t_With("3600000000"), [&end] {
        smart_deadlock_register_watchdog_service(60);
        end.Await();
        const pid_t child = ::fork();
        if (child == 0) {
            smart_deadlock_register_watchdog_service(1);
            end.Await();
            ::_exit(0);
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        return status;
    });
    EXPECT_TRUE(t_IsFed(5s));
    end.Give();
    EXPECT_TRUE(t_IsFed(5s));
    EXPECT_THAT(t_Line(5s), testing::HasSubstr("missed its period of 1 s"));
    end.Give();
    EXPECT_EQ(parent.Wait().status, 0);
}

TEST_F(HostWatchdog, ManyThreadsRegisterNotifyAndUnregisterAtOnce) {
    const ChildResult result = RunChild(t_With("3600000000"), [] {
        std::vector<std::thread> threads;
        std::vector<int> failures(16, 0);
        for (int& failed : failures) {
            threads.emplace_back([&failed] {
                for (int times = 0; times < 200; ++times) {
                    failed += smart_deadlock_register_watchdog_service(30) != 0 ? 1 : 0;
                    failed += smart_deadlock_watchdog_notify() != 0 ? 1 : 0;
                    failed += smart_deadlock_unregister_watchdog_service() != 0 ? 1 : 0;
                }
            });
        }
        int failed = 0;
        for (std::size_t thread = 0; thread < threads.size(); ++thread) {
            threads[thread].join();
            failed += failures[thread];
        }
        return failed;
    });
    EXPECT_EQ(result.status, 0);
}

} // namespace
