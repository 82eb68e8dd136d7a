#ifndef MAVIX_TOOLS_PRIVATE_RUN_H
#define MAVIX_TOOLS_PRIVATE_RUN_H

#include <string>

namespace MavixTools {

// Gives this process and its children, which must be none yet, empty folders in the place of /run and
// /dev/shm, so that caches are seen by them alone; they vanish with the last of these processes. What
// XDG_RUNTIME_DIR names and the journal's socket stay in /run. An ordinary user becomes root of a user
// namespace of its own. When caches cannot be used afterwards, the result says why; it is empty otherwise.
std::string EnterPrivateRun();

} // namespace MavixTools

#endif
