#include "PrivateMounts.h"

#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <unistd.h>

namespace MavixTest {

namespace {

bool WriteFile(const std::string& path, const std::string& text) {
    std::ofstream file(path);
    file << text;
    return static_cast<bool>(file.flush());
}

bool MayGiveAway() {
    constexpr const char* path = "/run/mavix-owner-test";
    const int file = open(path, O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
    const bool may = file >= 0 && fchown(file, MAVIX_CACHE_OWNER_UID, MAVIX_CACHE_OWNER_GID) == 0;
    close(file);
    unlink(path);
    return may;
}

} // namespace

bool EnterPrivateMounts() {
    const uid_t user = getuid();
    const gid_t group = getgid();
    if (unshare(CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
            return false;
        }
        WriteFile("/proc/self/setgroups", "deny");
        if (!WriteFile("/proc/self/uid_map", std::to_string(user) + " " + std::to_string(user) + " 1") ||
            !WriteFile("/proc/self/gid_map", std::to_string(group) + " " + std::to_string(group) + " 1")) {
            return false;
        }
    }
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

bool EnterPrivateCacheFolders() {
    static const bool entered = getuid() == 0 && EnterPrivateMounts() &&
                                mount("tmpfs", "/run", "tmpfs", 0, "mode=0755") == 0 &&
                                mount("tmpfs", "/dev/shm", "tmpfs", 0, "mode=1777") == 0 && MayGiveAway();
    return entered;
}

} // namespace MavixTest
