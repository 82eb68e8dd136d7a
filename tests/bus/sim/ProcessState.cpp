#include "ProcessState.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace MavixTest {

namespace {

std::ifstream OpenProc(pid_t pid, const std::string& file) {
    return std::ifstream("/proc/" + std::to_string(pid) + "/" + file);
}

} // namespace

std::string NameOf(pid_t pid) {
    std::ifstream file = OpenProc(pid, "comm");
    std::string name;
    std::getline(file, name);
    return name;
}

bool IsRunning(pid_t pid) {
    std::ifstream file = OpenProc(pid, "stat");
    std::string stat;
    std::getline(file, stat);
    // The name stands in parentheses and may hold any character; the state follows it.
    const std::size_t nameEnd = stat.rfind(") ");
    return nameEnd != std::string::npos && stat[nameEnd + 2] != 'Z' && stat[nameEnd + 2] != 'X';
}

std::vector<pid_t> ProcessesWithEnvironment(const std::string& text) {
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const pid_t pid = std::atoi(entry.path().filename().c_str());
        if (pid <= 0)
            continue;
        std::ifstream file = OpenProc(pid, "environ");
        const std::string all{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        if (all.find(text) != std::string::npos)
            found.push_back(pid);
    }
    return found;
}

std::vector<pid_t> Descendants(pid_t pid) {
    std::vector<pid_t> found;
    std::ifstream children = OpenProc(pid, "task/" + std::to_string(pid) + "/children");
    for (pid_t child = 0; children >> child;) {
        found.push_back(child);
        for (const pid_t grandchild : Descendants(child))
            found.push_back(grandchild);
    }
    return found;
}

} // namespace MavixTest
