#include "PrivateRun.h"

#include "ChildProcess.h"
#include "Descriptor.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <optional>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace MavixTools {

namespace {

namespace fs = std::filesystem;

std::string Reason() {
    return std::strerror(errno);
}

bool WriteFile(const std::string& path, const std::string& text) {
    const TCDescriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    return file && ::write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// The first id that the user may map beside its own; the file has lines "user:first:count".
std::optional<std::string> SubordinateId(const char* path, const std::string& user) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        const std::size_t first = line.find(':');
        const std::size_t count = line.find(':', first == std::string::npos ? first : first + 1);
        if (count == std::string::npos || line.substr(count) == ":0")
            continue;
        const std::string owner = line.substr(0, first);
        if (owner == user || owner == std::to_string(::getuid()))
            return line.substr(first + 1, count - first - 1);
    }
    return std::nullopt;
}

std::string UserName() {
    const passwd* entry = ::getpwuid(::getuid());
    return entry != nullptr ? entry->pw_name : std::to_string(::getuid());
}

// Maps the owner of lock files beside our own user, who becomes root. Only programs outside of the namespace
// may do that, and they have to be started before it is entered. Owner: EnterUserNamespace.
class TCIdMapper final {
public:
    // Empty, or why it cannot be.
    std::string Prepare() {
        const std::string user = UserName();
        const auto subordinateUser = SubordinateId("/etc/subuid", user);
        const auto subordinateGroup = SubordinateId("/etc/subgid", user);
        if (!subordinateUser || !subordinateGroup)
            return "user " + user + " has no subordinate ids in /etc/subuid and /etc/subgid";
        Pipe start = MakePipe();
        ChildOptions options;
        options.program = "sh";
        options.arguments = {"-c",
                             "read -r go <&3 && newuidmap $0 0 $1 1 $2 $3 1 && newgidmap $0 0 $4 1 $5 $6 1",
                             std::to_string(::getpid()),
                             std::to_string(::getuid()),
                             std::to_string(MAVIX_CACHE_OWNER_UID),
                             *subordinateUser,
                             std::to_string(::getgid()),
                             std::to_string(MAVIX_CACHE_OWNER_GID),
                             *subordinateGroup};
        options.descriptor = start.reader.Get();
        options.discardOutput = true;
        m_process = TCChildProcess(options);
        m_start = std::move(start.writer);
        return "";
    }

    // Called inside the namespace. Empty, or why it did not work.
    std::string Map() {
        if (::write(m_start.Get(), "go\n", 3) == 3 && m_process.Wait() == 0)
            return "";
        return "newuidmap and newgidmap (Debian: uidmap) do not map the ids";
    }

private:
    TCChildProcess m_process;
    TCDescriptor m_start;
};

// Our own ids alone, which needs nobody's help.
void MapOwnIds(uid_t user, gid_t group) {
    WriteFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1\n");
    WriteFile("/proc/self/setgroups", "deny");
    WriteFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1\n");
}

// Mounts of the old /run that are wanted in the new one, too.
class TCKeptFolders final {
public:
    TCKeptFolders() {
        const char* const runtime = ::getenv("XDG_RUNTIME_DIR");
        for (const char* path : {runtime, "/run/systemd/journal"}) {
            if (path == nullptr || std::string(path).rfind("/run/", 0) != 0)
                continue;
            TCDescriptor tree(
                ::open_tree(AT_FDCWD, path, OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE));
            if (tree)
                m_folders.push_back({path, std::move(tree)});
        }
    }

    void Attach() const {
        for (const Folder& folder : m_folders) {
            std::error_code ignored;
            fs::create_directories(folder.path, ignored);
            ::move_mount(folder.tree.Get(), "", AT_FDCWD, folder.path.c_str(), MOVE_MOUNT_F_EMPTY_PATH);
        }
    }

private:
    struct Folder {
        std::string path;
        TCDescriptor tree;
    };
    std::vector<Folder> m_folders;
};

// Empty, or why it cannot be.
std::string MountOwnFolders() {
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return "cannot make mounts private: " + Reason();
    const TCKeptFolders kept;
    constexpr unsigned long flags = MS_NOSUID | MS_NODEV;
    if (::mount("tmpfs", "/dev/shm", "tmpfs", flags, "mode=1777") != 0 ||
        ::mount("tmpfs", "/run", "tmpfs", flags, "mode=0755") != 0)
        return "cannot mount folders of its own: " + Reason();
    kept.Attach();
    return "";
}

// Empty, or why caches cannot be used.
std::string EnterUserNamespace() {
    const uid_t user = ::getuid();
    const gid_t group = ::getgid();
    TCIdMapper mapper;
    std::string reason = mapper.Prepare();
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
        return "no user namespaces here, so that /run and /dev/shm are the machine's: " + Reason();
    if (reason.empty())
        reason = mapper.Map();
    if (!reason.empty())
        MapOwnIds(user, group);
    const std::string noFolders = MountOwnFolders();
    return reason.empty() ? noFolders : reason;
}

} // namespace

std::string EnterPrivateRun() {
    return ::unshare(CLONE_NEWNS) == 0 ? MountOwnFolders() : EnterUserNamespace();
}

} // namespace MavixTools
