#ifndef MAVIX_TOOLS_ORPHANS_H
#define MAVIX_TOOLS_ORPHANS_H

#include <sys/types.h>
#include <vector>

namespace MavixTools {

// Processes that a command leaves behind become children of this process instead of init's.
void AdoptOrphans();

// Collects adopted processes that have ended; `known` are not adopted ones.
void CollectOrphans(const std::vector<pid_t>& known);

// Ends all adopted processes, by SIGKILL after a second, but for those of other users that we may not end.
void EndOrphans(const std::vector<pid_t>& known);

} // namespace MavixTools

#endif
