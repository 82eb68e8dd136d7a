#include "HostScheduling.h"

#include <cerrno>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace MavixPlatformHost {

namespace {

constexpr std::uint32_t DeadlinePolicy = 6;
constexpr std::uint64_t ResetOnForkFlag = 1;

bool IsRealTime(std::uint32_t policy) {
    return policy == SCHED_FIFO || policy == SCHED_RR;
}

} // namespace

static_assert(sizeof(Scheduling) == 48, "the kernel's first version of struct sched_attr");

bool Scheduling::IsDefault() const {
    return policy == SCHED_OTHER && nice == 0;
}

bool Scheduling::IsLike(const Scheduling& other) const {
    return policy == other.policy && priority == other.priority && nice == other.nice;
}

int Scheduling::Rank() const {
    constexpr int rankOfNiceZero = 100;
    constexpr int rankOfRealTime = 1000;
    constexpr int rankOfDeadline = 2000;
    if (policy == DeadlinePolicy) {
        return rankOfDeadline;
    }
    if (IsRealTime(policy)) {
        return rankOfRealTime + static_cast<int>(priority);
    }
    return policy == SCHED_IDLE ? 0 : rankOfNiceZero - nice;
}

Scheduling Scheduling::RaisedTo(const Scheduling& lent) const {
    Scheduling raised = lent;
    if (!IsRealTime(lent.policy) && lent.policy != DeadlinePolicy) {
        raised = *this;
        raised.policy = policy == SCHED_IDLE ? SCHED_OTHER : policy;
        raised.nice = lent.nice;
    }
    raised.flags = flags & ResetOnForkFlag;
    return raised;
}

int ReadScheduling(pid_t thread, Scheduling& scheduling) {
    return ::syscall(SYS_sched_getattr, thread, &scheduling, sizeof(scheduling), 0) == 0 ? 0 : -errno;
}

int WriteScheduling(pid_t thread, const Scheduling& scheduling) {
    if (scheduling.policy == SCHED_IDLE) {
        // The kernel takes no nice value together with this policy, but keeps the one that was there before.
        Scheduling nice = scheduling;
        nice.policy = SCHED_OTHER;
        ::syscall(SYS_sched_setattr, thread, &nice, 0);
    }
    return ::syscall(SYS_sched_setattr, thread, &scheduling, 0) == 0 ? 0 : -errno;
}

} // namespace MavixPlatformHost
