#ifndef MAVIX_TEST_PROCESS_STATE_H
#define MAVIX_TEST_PROCESS_STATE_H

#include <string>
#include <sys/types.h>
#include <vector>

namespace MavixTest {

// The name that the kernel shows for a process; empty when there is none.
std::string NameOf(pid_t pid);

// A process that has ended, but not been collected, does not count.
bool IsRunning(pid_t pid);

// The processes in whose environment the text stands; those of other users only when root asks. One that has
// ended, but not been collected, does not count.
std::vector<pid_t> ProcessesWithEnvironment(const std::string& text);

// The process's children, their children and so on.
std::vector<pid_t> Descendants(pid_t pid);

} // namespace MavixTest

#endif
