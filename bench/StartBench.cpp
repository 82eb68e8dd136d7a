#include "Numbers.h"

#include <fcntl.h>
#include <filesystem>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

// Fresh processes, from their start to their end.

using namespace MavixBench;

extern char** environ;

namespace {

// What the programs print is nobody's.
class FileActions final {
public:
    FileActions() {
        posix_spawn_file_actions_init(&m_actions);
        posix_spawn_file_actions_addopen(&m_actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    ~FileActions() { posix_spawn_file_actions_destroy(&m_actions); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;

    const posix_spawn_file_actions_t* Get() const { return &m_actions; }

private:
    posix_spawn_file_actions_t m_actions{};
};

void Run(benchmark::State& state, std::vector<std::string> words) {
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    FileActions actions;
    double cpuSeconds = 0;
    for ([[maybe_unused]] auto step : state) {
        pid_t child = 0;
        int status = 0;
        rusage used = {};
        if (posix_spawn(&child, words[0].c_str(), actions.Get(), nullptr, arguments.data(), environ) != 0 ||
            wait4(child, &status, 0, &used) != child || status != 0) {
            state.SkipWithError("the program failed");
            break;
        }
        cpuSeconds += static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) +
                      static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec) / 1e6;
    }
    state.counters["cpu_ms"] = benchmark::Counter(cpuSeconds * 1000, benchmark::Counter::kAvgIterations);
}

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    const std::filesystem::path folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    const std::string load = folder / "bench-load";
    const auto add = [](const std::string& name, const std::vector<std::string>& words) {
        benchmark::RegisterBenchmark(name.c_str(), Run, words)
            ->Iterations(20)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    };
    for (const char* peer : {"ours", "gdbus-watching", "gdbus", "libdbus", "sdbus"}) {
        const std::string program = folder / (std::string("first-call-") + peer);
        add(std::string("first-call/64/") + peer, {program});
        add(std::string("call-and-close/64/") + peer, {program, "close"});
    }
    add("load/0/ours", {load, folder.parent_path() / "lib/libmavix-api.so.1"});
    add("load/0/gdbus", {load, "libgio-2.0.so.0"});
    const std::string control = folder / "mavixctl";
    add("control-help/0/ours", {control, "--help"});
    add("control-route/0/ours", {control, "route", "com.norvale.IAVControl"});
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
