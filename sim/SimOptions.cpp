#include "SimOptions.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>

namespace MavixSim {

namespace {

const char* const usage =
    "Usage: mavix-sim [OPTION]...\n"
    "\n"
    "A stand-in for the Mavix service on the system bus (DBUS_SYSTEM_BUS_ADDRESS): answers calls, emits "
    "events,\n"
    "keeps what it was asked. Runs as the processes mavix-daemon and mavix-lite and ends when one of them "
    "does.\n"
    "\n"
    "  --respawn            start a process that has ended anew instead\n"
    "  --respawn-delay=MS   wait so long before that\n"
    "  --ready-fd=N         tell readiness on this descriptor instead of standard output\n"
    "  --no-records         do not keep what was asked\n"
    "  --scenario=FILE      play a scenario; processes that have ended are then started anew. The exit "
    "status "
    "is 124\n"
    "                       when its expectations were not met\n"
    "  --replay=FILE        answer with what mavixctl monitor has recorded. The exit status is 123 when "
    "there "
    "were\n"
    "                       calls that the recording does not know\n"
    "  --replay-speed=SPEED recorded, with the recorded timing, or fast\n"
    "  --report=FILE        write into this file, instead of on standard error, why a scenario or recording "
    "was\n"
    "                       refused or not met\n"
    "  --serve=ROLE         run only one process, daemon or lite, and do not watch over it\n"
    "  --progress-fd=N      share the progress in a scenario by this descriptor; for the supervisor's use\n"
    "  --help, --version    print this text, the version\n";

enum Option {
    Respawn = 256,
    RespawnDelay,
    ReadyFd,
    NoRecords,
    Scenario,
    Replay,
    ReplaySpeed,
    Report,
    Serve,
    ProgressFd,
    Help,
    Version
};

const option longOptions[] = {
    {"respawn", no_argument, nullptr, Respawn},
    {"respawn-delay", required_argument, nullptr, RespawnDelay},
    {"ready-fd", required_argument, nullptr, ReadyFd},
    {"no-records", no_argument, nullptr, NoRecords},
    {"scenario", required_argument, nullptr, Scenario},
    {"replay", required_argument, nullptr, Replay},
    {"replay-speed", required_argument, nullptr, ReplaySpeed},
    {"report", required_argument, nullptr, Report},
    {"serve", required_argument, nullptr, Serve},
    {"progress-fd", required_argument, nullptr, ProgressFd},
    {"help", no_argument, nullptr, Help},
    {"version", no_argument, nullptr, Version},
    {nullptr, 0, nullptr, 0},
};

constexpr long largestNumber = 1000000;

std::optional<int> ParseNumber(const char* text) {
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || value < 0 || value > largestNumber)
        return std::nullopt;
    return static_cast<int>(value);
}

// The name of an option that takes a value, and what it takes.
std::string Expected(int choice) {
    const auto named = [choice](const char* what) {
        const option* found = longOptions;
        while (found->val != choice)
            ++found;
        return std::string("--") + found->name + " takes " + what;
    };
    switch (choice) {
    case Scenario:
    case Replay:
    case Report:
        return named("the name of a file");
    case ReplaySpeed:
        return named("recorded or fast");
    case Serve:
        return named("daemon or lite");
    default:
        return named(("a whole number from 0 to " + std::to_string(largestNumber)).c_str());
    }
}

// False for a value that the option cannot have.
bool Apply(int choice, const char* value, SimOptions& options) {
    switch (choice) {
    case Respawn:
        options.respawn = true;
        return true;
    case RespawnDelay:
        options.respawnDelay = std::chrono::milliseconds(ParseNumber(value).value_or(-1));
        return options.respawnDelay.count() >= 0;
    case ReadyFd:
        options.readyDescriptor = ParseNumber(value).value_or(-1);
        return options.readyDescriptor >= 0;
    case NoRecords:
        options.keepRecords = false;
        return true;
    case Scenario:
        options.scenario = value;
        options.respawn = true;
        return !options.scenario.empty();
    case Replay:
        options.replay = value;
        return !options.replay.empty();
    case ReplaySpeed:
        options.isReplayFast = std::strcmp(value, "fast") == 0;
        return options.isReplayFast || std::strcmp(value, "recorded") == 0;
    case Report:
        options.report = value;
        return !options.report.empty();
    case Serve:
        options.role = FindRole(value);
        return options.role != nullptr;
    case ProgressFd:
        options.progressDescriptor = ParseNumber(value).value_or(-1);
        return options.progressDescriptor >= 0;
    default:
        return false;
    }
}

} // namespace

std::optional<SimOptions> ParseSimOptions(int argc, char** argv, int& exitCode) {
    SimOptions options;
    exitCode = 0;
    for (int choice = 0; (choice = ::getopt_long(argc, argv, "", longOptions, nullptr)) != -1;) {
        if (choice == Help) {
            std::fputs(usage, stdout);
            return std::nullopt;
        }
        if (choice == Version) {
            std::puts("mavix-sim " MAVIX_VERSION);
            return std::nullopt;
        }
        if (!Apply(choice, optarg, options)) {
            if (choice != '?')
                std::fprintf(stderr, "mavix-sim: %s, not '%s'\n", Expected(choice).c_str(), optarg);
            exitCode = 2;
            return std::nullopt;
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "mavix-sim: unexpected argument '%s'\n", argv[optind]);
        exitCode = 2;
        return std::nullopt;
    }
    if (!options.scenario.empty() && !options.replay.empty()) {
        std::fputs("mavix-sim: a scenario and a recording cannot be played at once\n", stderr);
        exitCode = 2;
        return std::nullopt;
    }
    return options;
}

} // namespace MavixSim
