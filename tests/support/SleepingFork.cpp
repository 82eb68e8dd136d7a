#include "SleepingFork.h"

#include "Await.h"

#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>

namespace MavixTest {

namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr bool waitsForSleep = true;
#else
constexpr bool waitsForSleep = false;
#endif

// What does not change while a thread sleeps: its system call, and how often it has gone to sleep. Empty when
// it does not sleep.
std::string SleepOf(const std::string& thread) {
    const std::string folder = "/proc/self/task/" + thread;
    std::string sleep;
    std::getline(std::ifstream(folder + "/syscall"), sleep);
    // "running", or -1 outside of a system call.
    if (sleep.empty() || sleep[0] < '0' || sleep[0] > '9') {
        return "";
    }
    std::ifstream status(folder + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.find("ctxt_switches") != std::string::npos) {
            sleep += ' ' + line;
        }
    }
    return sleep;
}

using Sleeps = std::map<std::string, std::string>;

// The sleep of each other thread; nothing when one is awake.
std::optional<Sleeps> SleepOfOthers() {
    Sleeps sleeps;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/proc/self/task"), closedir);
    while (const dirent* entry = readdir(folder.get())) {
        const std::string thread = entry->d_name;
        if (thread[0] == '.' || std::atoi(thread.c_str()) == gettid()) {
            continue;
        }
        sleeps[thread] = SleepOf(thread);
        if (sleeps[thread].empty()) {
            return std::nullopt;
        }
    }
    return sleeps;
}

// At one moment, between the two looks, all of them slept.
bool OthersSleep() {
    const std::optional<Sleeps> before = SleepOfOthers();
    return before && before == SleepOfOthers();
}

} // namespace

pid_t ForkWhileOthersSleep() {
    return !waitsForSleep || Await(OthersSleep) ? fork() : -1;
}

} // namespace MavixTest
