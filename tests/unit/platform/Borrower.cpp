#include "Borrower.h"

#include <algorithm>
#include <csignal>
#include <ostream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int NotPermitted = -1;

}

std::ostream& operator<<(std::ostream& out, const Sched& sched) {
    return out << "policy " << sched.policy << " nice " << sched.nice << " priority " << sched.priority;
}

bool BecomeSched(const Sched& sched) {
    const sched_param parameters{sched.priority};
    return ::sched_setscheduler(0, sched.policy, &parameters) == 0 &&
           (sched.nice == 0 || ::setpriority(PRIO_PROCESS, 0, sched.nice) == 0);
}

Sched SchedOf(pid_t thread) {
    sched_param parameters{};
    const int policy = ::sched_getscheduler(thread);
    ::sched_getparam(thread, &parameters);
    return {policy, ::getpriority(PRIO_PROCESS, static_cast<id_t>(thread)), parameters.sched_priority};
}

std::string UniqueName() {
    static int s_count = 0;
    return "mx" + std::to_string(::getpid()) + "-" + std::to_string(s_count++);
}

Borrower::Borrower(const std::string& name, const std::vector<Sched>& threads) {
    m_process = std::make_unique<ChildProcess>(Environment{}, [this, &name, &threads] {
        const auto live = [this](const Sched* sched) {
            const bool isRight = sched == nullptr || BecomeSched(*sched);
            m_born.Give(isRight ? ::gettid() : NotPermitted);
            for (;;) {
                ::pause();
            }
        };
        ::prctl(PR_SET_NAME, name.c_str());
        // Before the main thread has its own scheduling, so that the others do not start with it.
        for (std::size_t thread = 1; thread < threads.size(); ++thread) {
            m_more.Await();
            std::thread(live, &threads[thread]).detach();
        }
        m_more.Await();
        m_born.Give(BecomeSched(threads.front()) ? ::gettid() : NotPermitted);
        for (;;) {
            m_more.Await();
            std::thread(live, nullptr).detach();
        }
        return 0;
    });
    for (std::size_t thread = 0; thread < threads.size(); ++thread) {
        AddThread();
    }
    std::rotate(m_threads.begin(), m_threads.end() - 1, m_threads.end());
}

std::vector<Sched> Borrower::Scheds() const {
    std::vector<Sched> scheds;
    for (const pid_t thread : m_threads) {
        scheds.push_back(SchedOf(thread));
    }
    return scheds;
}

void Borrower::AddThread() {
    m_more.Give();
    const pid_t thread = m_born.Await();
    if (thread == NotPermitted) {
        throw std::runtime_error("the borrowing process may not have that scheduling");
    }
    m_threads.push_back(thread);
}

void Borrower::Kill() {
    ::kill(Pid(), SIGKILL);
    siginfo_t ended;
    ::waitid(P_PID, static_cast<id_t>(Pid()), &ended, WEXITED | WNOWAIT);
}
