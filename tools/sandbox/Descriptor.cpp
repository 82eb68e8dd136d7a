#include "Descriptor.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/signalfd.h>
#include <system_error>

namespace MavixTools {

Pipe MakePipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot create a pipe");
    return Pipe{TCDescriptor(ends[0]), TCDescriptor(ends[1])};
}

TCDescriptor WatchEndingSignals(int flags) {
    sigset_t handled;
    ::sigemptyset(&handled);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        ::sigaddset(&handled, signal);
    ::sigprocmask(SIG_BLOCK, &handled, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    TCDescriptor signals(::signalfd(-1, &handled, SFD_CLOEXEC | flags));
    if (!signals)
        throw std::system_error(errno, std::generic_category(), "cannot watch signals");
    return signals;
}

} // namespace MavixTools
