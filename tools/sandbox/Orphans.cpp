#include "Orphans.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace MavixTools {

namespace {

constexpr std::chrono::seconds grace{1};

std::vector<pid_t> Orphans(const std::vector<pid_t>& known) {
    const std::string self = std::to_string(::getpid());
    std::ifstream children("/proc/self/task/" + self + "/children");
    std::vector<pid_t> orphans;
    for (pid_t pid = 0; children >> pid;)
        if (std::find(known.begin(), known.end(), pid) == known.end())
            orphans.push_back(pid);
    return orphans;
}

} // namespace

void AdoptOrphans() {
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
}

void CollectOrphans(const std::vector<pid_t>& known) {
    for (const pid_t pid : Orphans(known))
        ::waitpid(pid, nullptr, WNOHANG);
}

void EndOrphans(const std::vector<pid_t>& known) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point killTime = Clock::now() + grace;
    sigset_t childEnded;
    ::sigemptyset(&childEnded);
    ::sigaddset(&childEnded, SIGCHLD);
    for (;;) {
        CollectOrphans(known);
        const std::vector<pid_t> orphans = Orphans(known);
        if (orphans.empty())
            return;
        // Each end can hand us further orphans, so all that there are now are asked again.
        bool mayEndAny = false;
        for (const pid_t pid : orphans)
            mayEndAny = ::kill(pid, Clock::now() < killTime ? SIGTERM : SIGKILL) == 0 || mayEndAny;
        if (!mayEndAny)
            return;
        const timespec pause{0, 20'000'000};
        ::sigtimedwait(&childEnded, nullptr, &pause);
    }
}

} // namespace MavixTools
