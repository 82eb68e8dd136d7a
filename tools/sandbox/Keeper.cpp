#include "Keeper.h"

#include "ChildProcess.h"
#include "Orphans.h"
#include "Sandbox.h"
#include "TempFolder.h"

#include <cerrno>
#include <cstdio>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace MavixTools {

namespace {

// Who kills by name wants the sandbox, and not the one that clears up after it.
const char* const keeperName = "mavix-keeper";

// What the keeper tells by. It is taken up after the terminal's interrupts that came before it, as their
// numbers are lower, and from others it means nothing.
constexpr int commandRuns = SIGURG;

sigset_t HandledSignals() {
    sigset_t handled;
    ::sigemptyset(&handled);
    // Writing to the terminal does not stop the keeper, which is in the background.
    for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGCHLD, SIGTTOU, commandRuns})
        ::sigaddset(&handled, signal);
    return handled;
}

// The status as of waitpid.
int AwaitKeeper(pid_t keeper, const sigset_t& handled) {
    bool hasCommand = false;
    for (;;) {
        siginfo_t info{};
        const int signal = ::sigwaitinfo(&handled, &info);
        if (signal == SIGCHLD) {
            int status = 0;
            if (::waitpid(keeper, &status, WNOHANG) == keeper)
                return status;
            continue;
        }
        if (signal == commandRuns) {
            hasCommand = hasCommand || info.si_pid == keeper;
            continue;
        }
        // The terminal sends its signals to the whole group: a command in it has it, too, and decides what it
        // means.
        const bool isTerminals = info.si_code == SI_KERNEL;
        const bool isInterrupt = isTerminals && (signal == SIGINT || signal == SIGQUIT);
        if (isInterrupt && !hasCommand)
            ::sigqueue(keeper, signal, {});
        else if (signal > 0 && !isInterrupt && !(isTerminals && signal == SIGTTOU))
            ::kill(keeper, signal);
    }
}

} // namespace

bool Kept::IsAbandoned() const {
    pollfd wanted{lifeline.Get(), POLLIN, 0};
    return ::poll(&wanted, 1, 0) > 0;
}

void Kept::TellThatCommandRuns() const {
    ::kill(sandbox, commandRuns);
}

int RunInKeeper(const std::function<int(Kept&)>& body) {
    Kept kept;
    Pipe lifeline = MakePipe();
    const sigset_t handled = HandledSignals();
    ::sigprocmask(SIG_BLOCK, &handled, &kept.originalMask);
    // Who starts us may have ignored the end of its children, which we would then not hear of.
    ::signal(SIGCHLD, SIG_DFL);
    kept.sandbox = ::getpid();
    kept.group = ::getpgrp();
    AdoptOrphans();
    std::fflush(nullptr);

    const pid_t keeper = ::fork();
    if (keeper < 0)
        throw std::system_error(errno, std::generic_category(), "cannot fork");
    ::setpgid(keeper, 0);
    if (keeper == 0) {
        ::prctl(PR_SET_NAME, keeperName);
        lifeline.writer.Close();
        kept.lifeline = std::move(lifeline.reader);
        AdoptOrphans();
        return body(kept);
    }
    lifeline.reader.Close();
    const int status = AwaitKeeper(keeper, handled);
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    std::fprintf(stderr, "mavix-sandbox: its process %d was ended by a signal\n", keeper);
    EndOrphans({});
    TCTempFolder::RemoveThoseOf(keeper);
    return sandboxFailed;
}

} // namespace MavixTools
