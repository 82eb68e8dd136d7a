#ifndef MAVIX_TOOLS_KEEPER_H
#define MAVIX_TOOLS_KEEPER_H

#include "Descriptor.h"

#include <csignal>
#include <functional>
#include <sys/types.h>

namespace MavixTools {

// What the keeper's body finds.
struct Kept {
    // Signals that ask the sandbox to end, and SIGCHLD, are blocked; this was the mask before.
    sigset_t originalMask{};
    // Readable when the process that started the keeper has been killed.
    TCDescriptor lifeline;
    bool IsAbandoned() const;
    // That process, and its group, which the terminal sends its signals to.
    pid_t sandbox = 0;
    pid_t group = 0;
    // To be called when the command is in that group: the terminal's interrupts, which are handed on before,
    // are the command's from then on.
    void TellThatCommandRuns() const;
};

// Runs the body in a process of its own, the keeper, and waits for it; the result is the body's. This process
// hands signals on, and otherwise does nothing: whichever of the two is killed, the other one ends what still
// runs and removes the files. The keeper is in a group of its own, so that both survive what kills a group.
// Takes over the process's signals, so there is one a process.
int RunInKeeper(const std::function<int(Kept&)>& body);

} // namespace MavixTools

#endif
