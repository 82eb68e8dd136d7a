#include "TempFolder.h"

#include <array>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace MavixTools {

namespace {

namespace fs = std::filesystem;

// A socket's path has to fit into 107 characters, and the socket's name follows.
constexpr std::size_t longestBase = 80;
const char* const prefix = "mavix-bus-";

// A folder younger than this may not have been locked yet.
constexpr std::chrono::minutes leastAgeOfLeftOvers{1};

// The descriptor holds the lock until it is closed, by the end of the process at the latest.
TCDescriptor Lock(const fs::path& folder) {
    TCDescriptor descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (descriptor && ::flock(descriptor.Get(), LOCK_EX | LOCK_NB) != 0)
        descriptor.Close();
    return descriptor;
}

bool IsOld(const struct stat& status) {
    const auto changed = std::chrono::system_clock::from_time_t(status.st_mtime);
    return std::chrono::system_clock::now() - changed > leastAgeOfLeftOvers;
}

// Only our own user's folders that nobody locks.
void RemoveLeftOvers(const fs::path& base) {
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator(base, ignored)) {
        struct stat status {};
        if (entry.path().filename().string().rfind(prefix, 0) != 0 ||
            ::lstat(entry.path().c_str(), &status) != 0 || status.st_uid != ::geteuid() || !IsOld(status))
            continue;
        if (const TCDescriptor lock = Lock(entry.path()))
            fs::remove_all(entry.path(), ignored);
    }
}

} // namespace

TCTempFolder::TCTempFolder() {
    const std::array<const char*, 3> bases{std::getenv("XDG_RUNTIME_DIR"), std::getenv("TMPDIR"), "/tmp"};
    for (const char* base : bases) {
        if (base == nullptr || base[0] != '/')
            continue;
        std::string path = std::string(base) + "/" + prefix + "XXXXXX";
        if (path.size() <= longestBase && ::mkdtemp(path.data()) != nullptr) {
            m_path = path;
            m_lock = Lock(path);
            RemoveLeftOvers(base);
            return;
        }
    }
    throw std::runtime_error("no writable folder in XDG_RUNTIME_DIR, TMPDIR or /tmp");
}

TCTempFolder::~TCTempFolder() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
}

void TCTempFolder::OpenToOtherUsers() const {
    ::chmod(m_path.c_str(), 0711);
}

} // namespace MavixTools
