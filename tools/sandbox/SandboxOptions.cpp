#include "SandboxOptions.h"

#include "Sandbox.h"

#include <cstdio>
#include <cstring>
#include <getopt.h>

namespace MavixTools {

namespace {

const char* const usage =
    "Usage: mavix-sandbox [OPTION]... [--] COMMAND [ARGUMENT]...\n"
    "       mavix-sandbox [OPTION]... --shell\n"
    "\n"
    "Runs COMMAND with a private system bus on which a stand-in for the Mavix service answers. Ends both "
    "and\n"
    "removes their files afterwards. DBUS_SYSTEM_BUS_ADDRESS names the bus.\n"
    "\n"
    "  --no-service         only the bus, without the stand-in service\n"
    "  --private-run        a /run and a /dev/shm of its own, so that COMMAND can use caches\n"
    "  --scenario=FILE      have the stand-in service play a scenario, and fail when it was not met\n"
    "  --replay=FILE        have it answer with what mavixctl monitor has recorded\n"
    "  --replay-speed=SPEED recorded, with the recorded timing, or fast\n"
    "  --shell              run $SHELL, interactive, in the place of COMMAND\n"
    "  --sim-option=OPTION  hand OPTION to mavix-sim, for example --respawn; may be repeated\n"
    "  --verbose            show what the bus daemon and the stand-in service print\n"
    "  --help, --version    print this text, the version\n"
    "\n"
    "Exit status: COMMAND's own, 128 and the signal that ended it, 127 when COMMAND is not found, 126 when "
    "it\n"
    "cannot be run, 125 when the sandbox itself fails, 124 when COMMAND succeeds and the scenario's "
    "expectations\n"
    "are not met, 123 when it succeeds and the recording does not know all of its calls.\n";

enum Option {
    NoService = 256,
    PrivateRun,
    Replay,
    ReplaySpeed,
    Scenario,
    Shell,
    SimOption,
    Verbose,
    Help,
    Version
};

const option longOptions[] = {
    {"no-service", no_argument, nullptr, NoService},
    {"private-run", no_argument, nullptr, PrivateRun},
    {"replay", required_argument, nullptr, Replay},
    {"replay-speed", required_argument, nullptr, ReplaySpeed},
    {"scenario", required_argument, nullptr, Scenario},
    {"shell", no_argument, nullptr, Shell},
    {"sim-option", required_argument, nullptr, SimOption},
    {"verbose", no_argument, nullptr, Verbose},
    {"help", no_argument, nullptr, Help},
    {"version", no_argument, nullptr, Version},
    {nullptr, 0, nullptr, 0},
};

std::nullopt_t Refuse(const std::string& complaint, int& exitCode) {
    std::fprintf(stderr, "mavix-sandbox: %s\n", complaint.c_str());
    exitCode = sandboxFailed;
    return std::nullopt;
}

} // namespace

std::optional<SandboxOptions> ParseSandboxOptions(int argc, char** argv, int& exitCode) {
    SandboxOptions options;
    bool hasReplaySpeed = false;
    exitCode = 0;
    // The plus sign ends the options at the first word that is none, so that COMMAND keeps its own.
    for (int choice = 0; (choice = ::getopt_long(argc, argv, "+", longOptions, nullptr)) != -1;) {
        switch (choice) {
        case NoService:
            options.startService = false;
            break;
        case PrivateRun:
            options.privateRun = true;
            break;
        case Replay:
            options.replay = optarg;
            if (options.replay.empty())
                return Refuse("--replay takes the name of a file, not ''", exitCode);
            break;
        case ReplaySpeed:
            hasReplaySpeed = true;
            options.isReplayFast = std::strcmp(optarg, "fast") == 0;
            if (!options.isReplayFast && std::strcmp(optarg, "recorded") != 0)
                return Refuse(std::string("--replay-speed is recorded or fast, not '") + optarg + "'",
                              exitCode);
            break;
        case Scenario:
            options.scenario = optarg;
            if (options.scenario.empty())
                return Refuse("--scenario takes the name of a file, not ''", exitCode);
            break;
        case Shell:
            options.shell = true;
            break;
        case SimOption:
            options.simOptions.emplace_back(optarg);
            break;
        case Verbose:
            options.showDaemons = true;
            break;
        case Help:
            std::fputs(usage, stdout);
            return std::nullopt;
        case Version:
            std::puts("mavix-sandbox " MAVIX_VERSION);
            return std::nullopt;
        default:
            exitCode = sandboxFailed;
            return std::nullopt;
        }
    }
    options.command.assign(argv + optind, argv + argc);
    const bool plays = !options.scenario.empty();
    const bool replays = !options.replay.empty();
    const struct {
        bool holds;
        const char* complaint;
    } contradictions[] = {
        {plays && replays, "a scenario and a recording cannot be played at once"},
        {plays && !options.startService, "a scenario needs the stand-in service"},
        {replays && !options.startService, "a recording needs the stand-in service"},
        {hasReplaySpeed && !replays, "--replay-speed is for --replay"},
        {!options.simOptions.empty() && !options.startService, "--sim-option needs the stand-in service"},
        {options.shell && !options.command.empty(), "--shell takes no command; see --help"},
        {!options.shell && options.command.empty(), "no command given; see --help"},
    };
    for (const auto& contradiction : contradictions)
        if (contradiction.holds)
            return Refuse(contradiction.complaint, exitCode);
    return options;
}

} // namespace MavixTools
