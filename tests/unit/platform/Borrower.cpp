#include "Borrower.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <ostream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

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
        ::prctl(PR_SET_NAME, name.c_str());
        const auto live = [this](const Sched& sched) {
            if (!BecomeSched(sched)) {
                std::_Exit(1);
            }
            m_ready->Give();
            for (;;) {
                ::pause();
            }
        };
        for (std::size_t thread = 1; thread < threads.size(); ++thread) {
            std::thread(live, threads[thread]).detach();
            m_more->Await();
        }
        if (!BecomeSched(threads.front())) {
            return 1;
        }
        for (;;) {
            m_ready->Give();
            m_more->Await();
            std::thread([] {
                for (;;) {
                    ::pause();
                }
            }).detach();
        }
    });
    for (std::size_t thread = 0; thread < threads.size(); ++thread) {
        if (!m_ready->Await()) {
            throw std::runtime_error("the borrowing process did not start");
        }
        if (thread + 1 < threads.size()) {
            m_more->Give();
        }
    }
}

std::vector<Sched> Borrower::Scheds() const {
    std::vector<pid_t> threads;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(Pid()) + "/task")) {
        threads.push_back(std::stoi(task.path().filename()));
    }
    std::sort(threads.begin(), threads.end());
    std::vector<Sched> scheds;
    for (const pid_t thread : threads) {
        scheds.push_back(SchedOf(thread));
    }
    return scheds;
}

void Borrower::AddThread() {
    m_more->Give();
    m_ready->Await();
}

void Borrower::Kill() {
    ::kill(Pid(), SIGKILL);
    siginfo_t ended;
    ::waitid(P_PID, static_cast<id_t>(Pid()), &ended, WEXITED | WNOWAIT);
}
