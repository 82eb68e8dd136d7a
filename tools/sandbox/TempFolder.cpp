#include "TempFolder.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace MavixTools {

namespace {

namespace fs = std::filesystem;

// A socket's path has to fit into 107 characters, and the socket's name follows.
constexpr std::size_t longestBase = 80;
// The number of the process that made the folder follows.
const char* const prefix = "mavix-bus-";

constexpr int mostAttempts = 20;

// The descriptor holds the lock until it is closed, by the end of the process at the latest. None when
// another process has the lock, or has removed the folder.
TCDescriptor Lock(const fs::path& folder) {
    TCDescriptor descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (descriptor && (::flock(descriptor.Get(), LOCK_EX | LOCK_NB) != 0 || !fs::exists(folder)))
        descriptor.Close();
    return descriptor;
}

// Whether it can be part of the bus's address as it is.
bool IsForAddress(const std::string& path) {
    const std::string others = "-_/.";
    return std::all_of(path.begin(), path.end(), [&others](unsigned char letter) {
        return letter < 0x80 &&
               (std::isalnum(letter) != 0 || others.find(static_cast<char>(letter)) != std::string::npos);
    });
}

// Where folders are made, in this order.
std::vector<fs::path> Bases() {
    std::vector<fs::path> bases;
    const std::initializer_list<const char*> wanted{::getenv("XDG_RUNTIME_DIR"), ::getenv("TMPDIR"), "/tmp"};
    for (const char* base : wanted)
        if (base != nullptr && base[0] == '/' && IsForAddress(base))
            bases.emplace_back(base);
    return bases;
}

// Only our own user's folders that nobody locks.
void RemoveUnlocked(const std::string& start) {
    std::error_code ignored;
    for (const fs::path& base : Bases())
        for (const fs::directory_entry& entry : fs::directory_iterator(base, ignored)) {
            struct stat status {};
            if (entry.path().filename().string().rfind(start, 0) != 0 ||
                ::lstat(entry.path().c_str(), &status) != 0 || status.st_uid != ::geteuid())
                continue;
            if (const TCDescriptor lock = Lock(entry.path()))
                fs::remove_all(entry.path(), ignored);
        }
}

std::string StartOfName(pid_t process) {
    return prefix + std::to_string(process) + "-";
}

} // namespace

TCTempFolder::TCTempFolder() {
    RemoveUnlocked(prefix);
    for (const fs::path& base : Bases())
        // One that somebody else removed as left over, before it was locked, is made anew.
        for (int attempt = 0; attempt < mostAttempts; ++attempt) {
            std::string path = base / (StartOfName(::getpid()) + "XXXXXX");
            if (path.size() > longestBase || ::mkdtemp(path.data()) == nullptr)
                break;
            if ((m_lock = Lock(path))) {
                m_path = path;
                return;
            }
            ::rmdir(path.c_str());
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

void TCTempFolder::RemoveThoseOf(pid_t ended) {
    RemoveUnlocked(StartOfName(ended));
}

} // namespace MavixTools
