#include "SimProcess.h"

#include <csignal>
#include <poll.h>
#include <sys/syscall.h>

namespace MavixTest {

using MavixTools::TCDescriptor;

namespace {

TCDescriptor Watch(pid_t pid) {
    return TCDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
}

// Returns at once for a process that had gone before it was watched.
void WaitForEndOf(const TCDescriptor& process) {
    pollfd ended{process.Get(), POLLIN, 0};
    if (process)
        ::poll(&ended, 1, -1);
}

void KillAndWait(pid_t pid) {
    const TCDescriptor process = Watch(pid);
    ::kill(pid, SIGKILL);
    WaitForEndOf(process);
}

} // namespace

TCSimProcess::TCSimProcess(const TCPrivateBus& bus, const std::vector<std::string>& options, bool quiet)
    : m_service(MAVIX_TEST_SIM, options, bus.Address(), quiet) {}

void TCSimProcess::KillDaemon() {
    KillAndWait(DaemonPid());
}

void TCSimProcess::KillLite() {
    KillAndWait(LitePid());
}

void TCSimProcess::Kill() {
    const TCDescriptor daemon = Watch(DaemonPid());
    const TCDescriptor lite = Watch(LitePid());
    m_service.Process().Signal(SIGKILL);
    m_service.Process().Wait();
    WaitForEndOf(daemon);
    WaitForEndOf(lite);
}

void TCSimProcess::Stop() {
    m_service.Process().End();
}

} // namespace MavixTest
