#ifndef MAVIX_TOOLS_SANDBOX_OPTIONS_H
#define MAVIX_TOOLS_SANDBOX_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

namespace MavixTools {

struct SandboxOptions {
    bool startService = true;
    bool privateRun = false;
    // An interactive shell in the place of the command.
    bool shell = false;
    bool showDaemons = false;
    std::vector<std::string> simOptions;
    std::string scenario; // a file; none when empty
    std::string replay;   // the same, a recording
    bool isReplayFast = false;
    std::vector<std::string> command;
};

// None when the run ends here; `exitCode` is then the process's. Prints help, version and complaints.
std::optional<SandboxOptions> ParseSandboxOptions(int argc, char** argv, int& exitCode);

} // namespace MavixTools

#endif
