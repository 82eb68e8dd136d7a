#ifndef MAVIX_TOOLS_SHELL_H
#define MAVIX_TOOLS_SHELL_H

#include "ChildProcess.h"

#include <string>

namespace MavixTools {

// The user's shell, interactive, with a prompt that tells the sandbox from the outside: bash, and shells that
// take their prompt from the environment. The folder is for its start file.
ChildOptions InteractiveShell(const std::string& folder);

} // namespace MavixTools

#endif
