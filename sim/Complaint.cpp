#include "Complaint.h"

#include <sys/prctl.h>
#include <unistd.h>

namespace MavixSim {

void Complain(const std::string& text) {
    char name[17] = "";
    ::prctl(PR_GET_NAME, name);
    // One write, so that the lines of both processes stay whole.
    const std::string line = std::string(name) + ": " + text + "\n";
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
}

} // namespace MavixSim
