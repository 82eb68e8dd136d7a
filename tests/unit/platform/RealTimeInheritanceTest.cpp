#include "Borrower.h"
#include "Platform.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <gmock/gmock.h>
#include <linux/sched.h>
#include <optional>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using testing::ElementsAre;

namespace {

constexpr int NoLimit = 0;
constexpr int LimitMs = 1999;

// A thread of the calling process that lends on command, each command being one Signal.
class LendingThread final {
public:
    LendingThread(const std::string& name, const Sched& sched)
        : m_thread([this, &name, sched] {
              m_result = BecomeSched(sched) ? resource_set_cpu_inheritance(0, name.c_str(), LimitMs) : -1;
              m_lent.Give();
              m_end.Await();
              m_result |= resource_clear_cpu_inheritance(0, name.c_str());
          }) {
        m_lent.Await();
    }
    LendingThread(const LendingThread&) = delete;
    LendingThread& operator=(const LendingThread&) = delete;

    int End() {
        m_end.Give();
        m_thread.join();
        return m_result;
    }

private:
    Signal m_lent;
    Signal m_end;
    int m_result = -1;
    std::thread m_thread;
};

// A process that lends until told to end.
class LendingProcess final {
public:
    LendingProcess(const std::string& name, const Sched& sched)
        : m_process({}, [this, &name, sched] {
              const int set =
                  BecomeSched(sched) ? resource_set_cpu_inheritance(0, name.c_str(), NoLimit) : -1;
              m_lent.Give();
              m_end.Await();
              const int cleared = resource_clear_cpu_inheritance(0, name.c_str());
              return set == 0 && cleared == 0 ? 0 : 1;
          }) {
        m_lent.Await();
    }

    int End() {
        m_end.Give();
        return m_process.Wait().status;
    }

private:
    Signal m_lent;
    Signal m_end;
    ChildProcess m_process;
};

// The names tell what the lender does; each lender is a process of its own, so that no state is left behind.
class RealTimeInheritance : public testing::Test {
protected:
    void SetUp() override {
        if (RunChild({}, [] { return BecomeSched(Fifo(1)) ? 0 : 1; }).status != 0) {
            GTEST_SKIP() << "this user may not use real-time scheduling (needs root or CAP_SYS_NICE)";
        }
    }

    const std::string t_name = UniqueName();
};

TEST_F(RealTimeInheritance, RaisesEveryThreadThatIsBelowTheLenderAndRestoresIt) {
    const std::vector<Sched> own{Nice(0), Nice(7), Fifo(50), {SCHED_BATCH, 0, 0}, {SCHED_RR, 0, 5}};
    const Borrower borrower(t_name, own);
    LendingProcess lender(t_name, Fifo(20));
    EXPECT_THAT(borrower.Scheds(),
                ElementsAre(Fifo(20), Sched({SCHED_FIFO, 7, 20}), Fifo(50), Fifo(20), Fifo(20)));
    EXPECT_EQ(lender.End(), 0);
    EXPECT_EQ(borrower.Scheds(), own);
}

TEST_F(RealTimeInheritance, ResetOnForkStaysWithTheThreadsThatHaveIt) {
    const std::vector<Sched> own{Nice(0), {SCHED_OTHER | SCHED_RESET_ON_FORK, 5, 0}};
    const Borrower borrower(t_name, own);
    LendingProcess lender(t_name, {SCHED_FIFO | SCHED_RESET_ON_FORK, 0, 20});
    EXPECT_THAT(borrower.Scheds(), ElementsAre(Fifo(20), Sched({SCHED_FIFO | SCHED_RESET_ON_FORK, 5, 20})));
    EXPECT_EQ(lender.End(), 0);
    EXPECT_EQ(borrower.Scheds(), own);
}

TEST_F(RealTimeInheritance, LendsRoundRobinAsSuch) {
    const Borrower borrower(t_name, {Nice(0)});
    LendingProcess lender(t_name, {SCHED_RR, 0, 3});
    EXPECT_THAT(borrower.Scheds(), ElementsAre(Sched({SCHED_RR, 0, 3})));
    EXPECT_EQ(lender.End(), 0);
    EXPECT_THAT(borrower.Scheds(), ElementsAre(Nice(0)));
}

TEST_F(RealTimeInheritance, LendsTheNiceValueAndKeepsThePolicy) {
    const std::vector<Sched> own{Nice(10), {SCHED_BATCH, 10, 0}, {SCHED_IDLE, 0, 0}, Fifo(1), Nice(-10)};
    const Borrower borrower(t_name, own);
    LendingProcess lender(t_name, Nice(-5));
    EXPECT_THAT(borrower.Scheds(),
                ElementsAre(Nice(-5), Sched({SCHED_BATCH, -5, 0}), Nice(-5), Fifo(1), Nice(-10)));
    EXPECT_EQ(lender.End(), 0);
    EXPECT_EQ(borrower.Scheds(), own);
}

TEST_F(RealTimeInheritance, LongNamesAreFoundByTheirFirst15Characters) {
    const std::string name = t_name + "-with-a-long-name";
    const Borrower borrower(name, {Nice(0)});
    LendingProcess lender(name, Fifo(2));
    EXPECT_THAT(borrower.Scheds(), ElementsAre(Fifo(2)));
    EXPECT_EQ(lender.End(), 0);
}

TEST_F(RealTimeInheritance, NamesWithParenthesesAndSpacesAreFound) {
    const std::string name = ") R " + std::to_string(::getpid());
    const Borrower borrower(name, {Nice(0)});
    LendingProcess lender(name, Fifo(2));
    EXPECT_THAT(borrower.Scheds(), ElementsAre(Fifo(2)));
    EXPECT_EQ(lender.End(), 0);
    EXPECT_THAT(borrower.Scheds(), ElementsAre(Nice(0)));
}

TEST_F(RealTimeInheritance, StrongestOfConcurrentLendersCounts) {
    const Borrower borrower(t_name, {Nice(3), Fifo(15)});
    EXPECT_EQ(
        RunChild(
            {},
            [this, &borrower] {
                LendingThread first(t_name, Fifo(10));
                bool isRight = borrower.Scheds() == std::vector<Sched>{{SCHED_FIFO, 3, 10}, Fifo(15)};
                LendingThread second(t_name, Fifo(20));
                LendingThread third(t_name, Fifo(10));
                isRight = isRight && borrower.Scheds() == std::vector<Sched>{{SCHED_FIFO, 3, 20}, Fifo(20)};
                isRight = first.End() == 0 && isRight;
                isRight = isRight && borrower.Scheds() == std::vector<Sched>{{SCHED_FIFO, 3, 20}, Fifo(20)};
                isRight = second.End() == 0 && isRight;
                isRight = isRight && borrower.Scheds() == std::vector<Sched>{{SCHED_FIFO, 3, 10}, Fifo(15)};
                return third.End() == 0 && isRight ? 0 : 1;
            })
            .status,
        0);
    EXPECT_THAT(borrower.Scheds(), ElementsAre(Nice(3), Fifo(15)));
}

TEST_F(RealTimeInheritance, LenderMayBeAnotherThread) {
    const Borrower borrower(t_name, {Nice(0)});
    const Borrower lender(UniqueName(), {Fifo(9)});
    EXPECT_EQ(RunChild({},
                       [this, &borrower, &lender] {
                           const int set =
                               resource_set_cpu_inheritance(lender.Pid(), t_name.c_str(), LimitMs);
                           const bool isRaised = borrower.Scheds() == std::vector<Sched>{Fifo(9)};
                           const int cleared = resource_clear_cpu_inheritance(lender.Pid(), t_name.c_str());
                           return set == 0 && isRaised && cleared == 0 ? 0 : 1;
                       })
                  .status,
              0);
    EXPECT_THAT(borrower.Scheds(), ElementsAre(Nice(0)));
}

TEST_F(RealTimeInheritance, ThreadBornMeanwhileGetsItsCreatorsOwnScheduling) {
    Borrower borrower(t_name, {Nice(4), Fifo(10)});
    LendingProcess lender(t_name, Fifo(10));
    borrower.AddThread();
    EXPECT_THAT(borrower.Scheds(),
                ElementsAre(Sched({SCHED_FIFO, 4, 10}), Fifo(10), Sched({SCHED_FIFO, 4, 10})));
    EXPECT_EQ(lender.End(), 0);
    EXPECT_THAT(borrower.Scheds(), ElementsAre(Nice(4), Fifo(10), Nice(4)));
}

TEST_F(RealTimeInheritance, ThreadThatWasLoweredMeanwhileIsLeftAlone) {
    const Borrower borrower(t_name, {Nice(0)});
    LendingProcess lender(t_name, Fifo(10));
    const sched_param none{0};
    ASSERT_EQ(::sched_setscheduler(borrower.Pid(), SCHED_BATCH, &none), 0);
    EXPECT_EQ(lender.End(), 0);
    EXPECT_THAT(borrower.Scheds(), ElementsAre(Sched({SCHED_BATCH, 0, 0})));
}

TEST_F(RealTimeInheritance, LendersInSeveralProcessesLeaveTheProcessAsItWas) {
    const Borrower borrower(t_name, {Nice(0)});
    LendingProcess weak(t_name, Fifo(10));
    LendingProcess strong(t_name, Fifo(20));
    EXPECT_THAT(borrower.Scheds(), ElementsAre(Fifo(20)));
    EXPECT_EQ(weak.End(), 0);
    EXPECT_EQ(strong.End(), 0);
    EXPECT_THAT(borrower.Scheds(), ElementsAre(Nice(0)));
}

TEST_F(RealTimeInheritance, EndsByItselfAfterItsTimeLimitEachTime) {
    const Borrower borrower(t_name, {Nice(0)});
    EXPECT_EQ(RunChild({},
                       [this, &borrower] {
                           for (int times = 0; times < 2; ++times) {
                               const auto begin = std::chrono::steady_clock::now();
                               if (!BecomeSched(Fifo(5)) ||
                                   resource_set_cpu_inheritance(0, t_name.c_str(), 300) != 0 ||
                                   !(borrower.Scheds() == std::vector<Sched>{Fifo(5)})) {
                                   return 1;
                               }
                               while (!(borrower.Scheds() == std::vector<Sched>{Nice(0)})) {
                                   std::this_thread::sleep_for(std::chrono::milliseconds(5));
                               }
                               if (std::chrono::steady_clock::now() - begin <
                                   std::chrono::milliseconds(300)) {
                                   return 2;
                               }
                           }
                           return resource_clear_cpu_inheritance(0, t_name.c_str()) == 0 ? 0 : 3;
                       })
                  .status,
              0);
}

TEST_F(RealTimeInheritance, TimeLimitOfOneLenderLeavesTheOthers) {
    const Borrower borrower(t_name, {Nice(0)});
    EXPECT_EQ(RunChild({},
                       [this, &borrower] {
                           if (!BecomeSched(Fifo(5)) ||
                               resource_set_cpu_inheritance(0, t_name.c_str(), 60000) != 0 ||
                               !BecomeSched(Fifo(6)) ||
                               resource_set_cpu_inheritance(0, t_name.c_str(), 100) != 0 ||
                               !(borrower.Scheds() == std::vector<Sched>{Fifo(6)})) {
                               return 1;
                           }
                           while (!(borrower.Scheds() == std::vector<Sched>{Fifo(5)})) {
                               std::this_thread::sleep_for(std::chrono::milliseconds(5));
                           }
                           return resource_clear_cpu_inheritance(0, t_name.c_str()) == 0 ? 0 : 3;
                       })
                  .status,
              0);
    EXPECT_THAT(borrower.Scheds(), ElementsAre(Nice(0)));
}

TEST_F(RealTimeInheritance, RestartedProcessIsFoundAgain) {
    std::optional<Borrower> old(std::in_place, t_name, std::vector<Sched>{Nice(0)});
    Signal restarted;
    Signal lent;
    ChildProcess lender({}, [this, &restarted, &lent] {
        const char* name = t_name.c_str();
        if (!BecomeSched(Fifo(5)) || resource_set_cpu_inheritance(0, name, LimitMs) != 0 ||
            resource_clear_cpu_inheritance(0, name) != 0) {
            return 1;
        }
        lent.Give();
        restarted.Await();
        const int set = resource_set_cpu_inheritance(0, name, NoLimit);
        lent.Give();
        restarted.Await();
        return set | resource_clear_cpu_inheritance(0, name);
    });
    lent.Await();
    // The old one stays as a zombie, which has the same name and is older.
    old->Kill();
    const Borrower young(t_name, {Nice(0)});
    restarted.Give();
    lent.Await();
    EXPECT_THAT(young.Scheds(), ElementsAre(Fifo(5)));
    restarted.Give();
    EXPECT_EQ(lender.Wait().status, 0);
    EXPECT_THAT(young.Scheds(), ElementsAre(Nice(0)));
}

TEST_F(RealTimeInheritance, ProcessThatRestartsWhileItIsLentToIsLeftAlone) {
    Borrower old(t_name, {Nice(0)});
    LendingProcess lender(t_name, Fifo(5));
    EXPECT_THAT(old.Scheds(), ElementsAre(Fifo(5)));
    old.Kill();
    old.Reap();
    const Borrower young(t_name, {Fifo(5)});
    EXPECT_EQ(lender.End(), 0);
    EXPECT_THAT(young.Scheds(), ElementsAre(Fifo(5)));
}

// Starts a process with a given number and name; 0 when the number is taken or may not be chosen.
pid_t StartWithNumber(pid_t number, const std::string& name, const Sched& sched) {
    Signal ready;
    clone_args arguments{};
    arguments.exit_signal = SIGCHLD;
    arguments.set_tid = reinterpret_cast<std::uintptr_t>(&number);
    arguments.set_tid_size = 1;
    const long started = ::syscall(SYS_clone3, &arguments, sizeof(arguments));
    if (started == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::prctl(PR_SET_NAME, name.c_str());
        BecomeSched(sched);
        ready.Give();
        for (;;) {
            ::pause();
        }
    }
    if (started < 0) {
        return 0;
    }
    ready.Await();
    return number;
}

TEST_F(RealTimeInheritance, ProcessWithTheNumberOfADeadOneIsLeftAlone) {
    const auto born = std::chrono::steady_clock::now();
    Borrower old(t_name, {Nice(0)});
    const pid_t number = old.Pid();
    LendingProcess lender(t_name, Fifo(5));
    EXPECT_THAT(old.Scheds(), ElementsAre(Fifo(5)));
    // Start times are told apart by the kernel's clock ticks of 10 ms.
    std::this_thread::sleep_until(born + std::chrono::milliseconds(50));
    old.Kill();
    old.Reap();
    const pid_t young = StartWithNumber(number, t_name, Fifo(5));
    if (young == 0) {
        lender.End();
        GTEST_SKIP() << "process number " << number << " cannot be had again: " << std::strerror(errno);
    }
    EXPECT_EQ(lender.End(), 0);
    EXPECT_EQ(SchedOf(young), Fifo(5));
    ::kill(young, SIGKILL);
    ::waitpid(young, nullptr, 0);
}

TEST_F(RealTimeInheritance, ProcessThatRestartsBetweenTwoLendersIsRaisedForTheSecond) {
    Borrower old(t_name, {Nice(0)});
    Signal goOn;
    Signal lent;
    ChildProcess lenders({}, [this, &goOn, &lent] {
        LendingThread first(t_name, Fifo(5));
        lent.Give();
        goOn.Await();
        LendingThread second(t_name, Fifo(4));
        lent.Give();
        goOn.Await();
        const int firstResult = first.End();
        lent.Give();
        goOn.Await();
        return firstResult | second.End();
    });
    lent.Await();
    old.Kill();
    old.Reap();
    const Borrower young(t_name, {Nice(0)});
    goOn.Give();
    lent.Await();
    EXPECT_THAT(young.Scheds(), ElementsAre(Fifo(5)));
    goOn.Give();
    lent.Await();
    EXPECT_THAT(young.Scheds(), ElementsAre(Fifo(4)));
    goOn.Give();
    EXPECT_EQ(lenders.Wait().status, 0);
    EXPECT_THAT(young.Scheds(), ElementsAre(Nice(0)));
}

TEST_F(RealTimeInheritance, ProcessThatStartsLateIsFound) {
    Signal started;
    Signal wanted;
    ChildProcess lender({}, [this, &started, &wanted] {
        if (!BecomeSched(Fifo(5)) || resource_set_cpu_inheritance(0, t_name.c_str(), NoLimit) != 0) {
            return 1;
        }
        wanted.Give();
        started.Await();
        // That there is none is believed for a while, so the next calls may still miss it.
        const auto isRaised = [this] {
            return resource_set_cpu_inheritance(0, t_name.c_str(), NoLimit) == 0 &&
                   resource_clear_cpu_inheritance(0, t_name.c_str()) == 0;
        };
        const auto begin = std::chrono::steady_clock::now();
        while (std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(1100)) {
            if (!isRaised()) {
                return 2;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (resource_set_cpu_inheritance(0, t_name.c_str(), NoLimit) != 0) {
            return 3;
        }
        wanted.Give();
        started.Await();
        return resource_clear_cpu_inheritance(0, t_name.c_str());
    });
    wanted.Await();
    const Borrower borrower(t_name, {Nice(0)});
    started.Give();
    wanted.Await();
    EXPECT_THAT(borrower.Scheds(), ElementsAre(Fifo(5)));
    started.Give();
    EXPECT_EQ(lender.Wait().status, 0);
    EXPECT_THAT(borrower.Scheds(), ElementsAre(Nice(0)));
}

TEST_F(RealTimeInheritance, ForkedChildOfALenderTakesNothingBack) {
    const Borrower borrower(t_name, {Nice(0)});
    EXPECT_EQ(RunChild({},
                       [this, &borrower] {
                           if (!BecomeSched(Fifo(5)) ||
                               resource_set_cpu_inheritance(0, t_name.c_str(), NoLimit) != 0) {
                               return 1;
                           }
                           const pid_t child = ::fork();
                           if (child == 0) {
                               // Not even in the name of the parent's thread.
                               ::_exit(resource_clear_cpu_inheritance(::getppid(), t_name.c_str()) == 0 ? 0
                                                                                                        : 1);
                           }
                           int status = -1;
                           ::waitpid(child, &status, 0);
                           const bool isStillRaised = borrower.Scheds() == std::vector<Sched>{Fifo(5)};
                           const int cleared = resource_clear_cpu_inheritance(0, t_name.c_str());
                           return status == 0 && isStillRaised && cleared == 0 ? 0 : 2;
                       })
                  .status,
              0);
    EXPECT_THAT(borrower.Scheds(), ElementsAre(Nice(0)));
}

TEST_F(RealTimeInheritance, PermissionThatEndsHalfWayRaisesNoThread) {
    const Borrower borrower(t_name, {Fifo(50), Nice(0), Fifo(50)});
    EXPECT_EQ(RunChild({},
                       [this] {
                           constexpr uid_t nobody = 65534;
                           if (!BecomeSched(Fifo(5)) || ::setresuid(nobody, nobody, nobody) != 0) {
                               return -1;
                           }
                           return -resource_set_cpu_inheritance(0, t_name.c_str(), LimitMs);
                       })
                  .status,
              EPERM);
    EXPECT_THAT(borrower.Scheds(), ElementsAre(Fifo(50), Nice(0), Fifo(50)));
}

TEST_F(RealTimeInheritance, ManyLendersAtOnceLeaveTheProcessAsItWas) {
    const std::vector<Sched> own{Nice(0), Nice(5), Fifo(3)};
    const Borrower borrower(t_name, own);
    EXPECT_EQ(RunChild({},
                       [this] {
                           std::vector<std::thread> threads;
                           std::vector<int> failures(8, 0);
                           for (std::size_t thread = 0; thread < failures.size(); ++thread) {
                               threads.emplace_back([this, &failed = failures[thread], thread] {
                                   failed += BecomeSched(Fifo(1 + static_cast<int>(thread))) ? 0 : 1;
                                   for (int times = 0; times < 100; ++times) {
                                       failed += resource_set_cpu_inheritance(0, t_name.c_str(), LimitMs) != 0
                                                     ? 1
                                                     : 0;
                                       failed +=
                                           resource_clear_cpu_inheritance(0, t_name.c_str()) != 0 ? 1 : 0;
                                   }
                               });
                           }
                           int failed = 0;
                           for (std::size_t thread = 0; thread < threads.size(); ++thread) {
                               threads[thread].join();
                               failed += failures[thread];
                           }
                           return failed;
                       })
                  .status,
              0);
    EXPECT_EQ(borrower.Scheds(), own);
}

} // namespace
