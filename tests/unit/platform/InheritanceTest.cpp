#include "Borrower.h"
#include "Platform.h"

#include <cerrno>
#include <cstddef>
#include <gmock/gmock.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int LimitMs = 1999;

// From now on opening any file ends the process.
bool ForbidOpening() {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter{static_cast<unsigned short>(std::size(program)), program};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

// Lends and takes back with files forbidden: 0 when both succeeded.
int LendWithoutFiles(const std::string& name, const Sched& sched) {
    return RunChild({},
                    [&name, &sched] {
                        if (!BecomeSched(sched) || !ForbidOpening()) {
                            return 1;
                        }
                        const int set = resource_set_cpu_inheritance(0, name.c_str(), LimitMs);
                        const int cleared = resource_clear_cpu_inheritance(0, name.c_str());
                        ::_exit(set == 0 && cleared == 0 ? 0 : 2);
                        return 0;
                    })
        .status;
}

TEST(HostCpuInheritance, CallerWithDefaultSchedulingSucceedsWithoutALook) {
    const std::string name = UniqueName();
    const Borrower borrower(name, {Nice(5), Nice(10)});
    EXPECT_EQ(LendWithoutFiles(name, Nice(0)), 0);
    EXPECT_THAT(borrower.Scheds(), testing::ElementsAre(Nice(5), Nice(10)));
    // Any other caller does look, which shows that the prohibition works.
    EXPECT_LT(LendWithoutFiles(name, Nice(1)), 0);
}

TEST(HostCpuInheritance, NoSuchProcessIsSuccess) {
    const std::string name = UniqueName();
    EXPECT_EQ(RunChild({},
                       [&name] {
                           return !BecomeSched(Nice(1)) ||
                                  resource_set_cpu_inheritance(0, name.c_str(), LimitMs) != 0 ||
                                  resource_clear_cpu_inheritance(0, name.c_str()) != 0;
                       })
                  .status,
              0);
}

TEST(HostCpuInheritance, ProcessThatRunsAsHighAlreadyIsSuccess) {
    const std::string name = UniqueName();
    const Borrower borrower(name, {Nice(0), Nice(1)});
    EXPECT_EQ(RunChild({},
                       [&name] {
                           return !BecomeSched(Nice(1)) ||
                                  resource_set_cpu_inheritance(0, name.c_str(), LimitMs) != 0 ||
                                  resource_clear_cpu_inheritance(0, name.c_str()) != 0;
                       })
                  .status,
              0);
    EXPECT_THAT(borrower.Scheds(), testing::ElementsAre(Nice(0), Nice(1)));
}

TEST(HostCpuInheritance, MissingPermissionIsReportedAndChangesNothing) {
    const std::string name = UniqueName();
    const Borrower borrower(name, {Nice(5), Nice(15), Nice(19)});
    EXPECT_EQ(RunChild({},
                       [&name] {
                           constexpr uid_t nobody = 65534;
                           if (!BecomeSched(Nice(10)) ||
                               (::geteuid() == 0 && ::setresuid(nobody, nobody, nobody) != 0)) {
                               return -1;
                           }
                           const int refused = resource_set_cpu_inheritance(0, name.c_str(), LimitMs);
                           const int again = resource_set_cpu_inheritance(0, name.c_str(), LimitMs);
                           return refused == again && resource_clear_cpu_inheritance(0, name.c_str()) == 0
                                      ? -refused
                                      : -1;
                       })
                  .status,
              EPERM);
    EXPECT_THAT(borrower.Scheds(), testing::ElementsAre(Nice(5), Nice(15), Nice(19)));
}

TEST(HostCpuInheritance, BadArgumentsAreRefused) {
    EXPECT_EQ(resource_set_cpu_inheritance(0, nullptr, LimitMs), -EINVAL);
    EXPECT_EQ(resource_set_cpu_inheritance(0, "", LimitMs), -EINVAL);
    EXPECT_EQ(resource_set_cpu_inheritance(-1, "name", LimitMs), -EINVAL);
    EXPECT_EQ(resource_clear_cpu_inheritance(0, nullptr), -EINVAL);
    EXPECT_EQ(resource_clear_cpu_inheritance(0, ""), -EINVAL);
    EXPECT_EQ(resource_clear_cpu_inheritance(-1, "name"), -EINVAL);
}

TEST(HostCpuInheritance, ThreadThatDoesNotExistIsReported) {
    EXPECT_EQ(resource_set_cpu_inheritance(0x7ffffffe, "name", LimitMs), -ESRCH);
}

TEST(HostCpuInheritance, ClearingWhatWasNeverLentIsSuccess) {
    EXPECT_EQ(resource_clear_cpu_inheritance(0, "name"), 0);
}

} // namespace
