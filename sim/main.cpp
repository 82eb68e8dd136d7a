#include "Complaint.h"
#include "Server.h"
#include "Supervisor.h"

#include <sys/prctl.h>
#include <unistd.h>

namespace {

int Serve(const MavixSim::SimOptions& options) {
    ::prctl(PR_SET_NAME, options.role->processName);
    MavixSim::TCServer server(*options.role, options.keepRecords);
    server.TakeNames();
    if (options.readyDescriptor >= 0) {
        [[maybe_unused]] const ssize_t written = ::write(options.readyDescriptor, "\n", 1);
        ::close(options.readyDescriptor);
    }
    return server.Run();
}

} // namespace

int main(int argc, char** argv) {
    int exitCode = 0;
    const auto options = MavixSim::ParseSimOptions(argc, argv, exitCode);
    if (!options)
        return exitCode;
    try {
        return options->role != nullptr ? Serve(*options) : MavixSim::TCSupervisor(*options).Run();
    } catch (const std::exception& error) {
        MavixSim::Complain(error.what());
        return 1;
    }
}
