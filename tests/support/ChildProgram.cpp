#include "ChildProgram.h"

#include "PrivateMounts.h"
#include "RecordingPlatform.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <memory>
#include <poll.h>
#include <signal.h>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace MavixTest {

namespace {

constexpr const char* childOption = "--mavix-child";

std::map<std::string, ChildBody>& Bodies() {
    static std::map<std::string, ChildBody>& bodies = *new std::map<std::string, ChildBody>;
    return bodies;
}

bool WriteFile(const std::string& path, const std::string& text) {
    std::ofstream file(path);
    file << text;
    return static_cast<bool>(file.flush());
}

// Puts a new folder in the place of /etc: the old entries, as links to where `keep` shows them, and the
// markers of the flavour only.
bool MakePrivateEtc(const std::string& keep, unsigned int flavour) {
    const std::pair<Flavour, const char*> markers[] = {
        {debugFlavour, "debug"}, {releaseFlavour, "release"}, {perfFlavour, "perf"}};
    if (mount("/etc", keep.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
        mount("tmpfs", "/etc", "tmpfs", 0, nullptr) != 0) {
        return false;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(keep.c_str()), closedir);
    while (const dirent* entry = readdir(folder.get())) {
        const std::string name = entry->d_name;
        const bool isMarker = std::any_of(std::begin(markers), std::end(markers),
                                          [&](const auto& marker) { return name == marker.second; });
        if (name != "." && name != ".." && !isMarker) {
            static_cast<void>(!symlink((keep + "/" + name).c_str(), ("/etc/" + name).c_str()));
        }
    }
    for (const auto& [bit, name] : markers) {
        if ((flavour & bit) != 0 && !WriteFile(std::string("/etc/") + name, "")) {
            return false;
        }
    }
    return true;
}

// The folder that shows the old /etc inside a child's mounts; outside of them it stays empty.
class KeepFolder final {
public:
    KeepFolder() {
        if (mkdtemp(m_path.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
    }
    ~KeepFolder() { rmdir(m_path.c_str()); }
    KeepFolder(const KeepFolder&) = delete;
    KeepFolder& operator=(const KeepFolder&) = delete;
    const std::string& Path() const { return m_path; }

private:
    std::string m_path = "/tmp/mavix-etc-XXXXXX";
};

struct Pipe {
    Pipe() {
        if (pipe2(ends, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe2 failed");
        }
    }
    ~Pipe() {
        Close(0);
        Close(1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    void Close(int end) {
        if (ends[end] >= 0) {
            close(ends[end]);
            ends[end] = -1;
        }
    }
    int ends[2];
};

// Reads both pipes until they are closed or the time is over.
bool ReadBoth(Pipe& first, std::string& firstText, Pipe& second, std::string& secondText,
              std::chrono::steady_clock::time_point deadline) {
    std::pair<Pipe*, std::string*> sources[] = {{&first, &firstText}, {&second, &secondText}};
    for (;;) {
        pollfd watched[2] = {{first.ends[0], POLLIN, 0}, {second.ends[0], POLLIN, 0}};
        if (watched[0].fd < 0 && watched[1].fd < 0) {
            return true;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        if (poll(watched, 2, static_cast<int>(left.count())) < 0 && errno != EINTR) {
            return false;
        }
        for (std::size_t at = 0; at < 2; ++at) {
            if (watched[at].fd >= 0 && watched[at].revents != 0) {
                char bytes[65536];
                const ssize_t count = read(watched[at].fd, bytes, sizeof bytes);
                if (count > 0) {
                    sources[at].second->append(bytes, static_cast<std::size_t>(count));
                } else if (count == 0 || errno != EINTR) {
                    sources[at].first->Close(0);
                }
            }
        }
    }
}

// Allocates nothing: another thread may have held the allocator's lock when this process was forked.
[[noreturn]] void ExecChild(char* const* words, const Pipe& output, const Pipe& errors) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(output.ends[1], STDOUT_FILENO);
    dup2(errors.ends[1], STDERR_FILENO);
    execv("/proc/self/exe", words);
    _exit(127);
}

} // namespace

bool ChildResult::HasLine(int priority, const std::string& text) const {
    return CountLines(priority, text) != 0;
}

std::size_t ChildResult::CountLines(int priority, const std::string& text) const {
    std::istringstream lines(errors);
    std::string line;
    const std::string start = std::to_string(priority) + "|MAVIX_API|";
    const std::string end = "|" + text;
    std::size_t count = 0;
    while (std::getline(lines, line)) {
        if (line.size() >= start.size() + end.size() && line.compare(0, start.size(), start) == 0 &&
            line.compare(line.size() - end.size(), end.size(), end) == 0) {
            ++count;
        }
    }
    return count;
}

bool CanChooseFlavour() {
    static const bool possible = [] {
        const KeepFolder keep;
        const pid_t child = fork();
        if (child == 0) {
            _exit(EnterPrivateMounts() && MakePrivateEtc(keep.Path(), plainFlavour) ? 0 : 1);
        }
        int status = -1;
        waitpid(child, &status, 0);
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }();
    return possible;
}

ChildResult RunChildProgram(const std::string& name, unsigned int flavour,
                            const std::vector<std::string>& arguments, std::chrono::milliseconds limit) {
    const auto start = std::chrono::steady_clock::now();
    const KeepFolder keep;
    Pipe output;
    Pipe errors;
    std::vector<std::string> words{"/proc/self/exe", childOption, name, std::to_string(flavour), keep.Path()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        throw std::runtime_error("fork failed");
    }
    if (child == 0) {
        ExecChild(pointers.data(), output, errors);
    }
    output.Close(1);
    errors.Close(1);
    ChildResult result;
    if (!ReadBoth(output, result.output, errors, result.errors, start + limit)) {
        result.timedOut = true;
        kill(child, SIGKILL);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    result.duration =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    if (WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    return result;
}

ChildRegistration::ChildRegistration(const char* name, ChildBody body) {
    Bodies()[name] = body;
}

bool RunAsChild(int argc, char** argv, int& exitCode) {
    if (argc < 5 || std::strcmp(argv[1], childOption) != 0) {
        return false;
    }
    const auto body = Bodies().find(argv[2]);
    const auto flavour = static_cast<unsigned int>(std::stoul(argv[3]));
    const bool hasMounts = EnterPrivateMounts() && MakePrivateEtc(argv[4], flavour);
    if (body == Bodies().end() || (flavour != plainFlavour && !hasMounts)) {
        exitCode = 126;
        return true;
    }
    TCRecordingPlatform::Get().EchoToStandardError();
    exitCode = body->second(std::vector<std::string>(argv + 5, argv + argc));
    return true;
}

} // namespace MavixTest
