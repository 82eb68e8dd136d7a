#include "RobustRWLock.h"

#include "CacheLog.h"
#include "ForkedLock.h"
#include "Handles.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using MavixApiLite::TCFileDescriptor;

namespace {

constexpr std::string_view folder = "/run/";
constexpr std::string_view suffix = "_cache_lock";
constexpr mode_t creationMode = 0666;
constexpr mode_t mode = 0777;

// A name is one file's name, with at most a separator in front: it leads into no other folder.
bool IsUsable(std::string_view path) {
    const std::string_view name = path.substr(folder.size(), path.size() - folder.size() - suffix.size());
    return name.find('/', 1) == std::string_view::npos && name.find("..") == std::string_view::npos &&
           name.find('\0') == std::string_view::npos;
}

bool FailWith(int error) {
    errno = error;
    return false;
}

TCFileDescriptor Create(const std::string& path) {
    if (!IsUsable(path)) {
        FailWith(EINVAL);
        return TCFileDescriptor();
    }
    return TCFileDescriptor(open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL, creationMode));
}

// Only a regular file: to open a pipe could block, to open a device could do anything.
TCFileDescriptor OpenExisting(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        FailWith(EINVAL);
        return TCFileDescriptor();
    }
    TCFileDescriptor file(open(path.c_str(), O_RDONLY));
    if (file && (fstat(file.Get(), &info) != 0 || !S_ISREG(info.st_mode))) {
        file.Close();
        FailWith(EINVAL);
    }
    return file;
}

// Descriptor 0 stands for "not open", so the file gets another one.
bool KeepFromZeroAndExec(TCFileDescriptor& file) {
    constexpr int firstUnused = 3;
    if (file.Get() == 0) {
        const int moved = fcntl(0, F_DUPFD_CLOEXEC, firstUnused);
        const int error = errno;
        file = TCFileDescriptor(moved);
        return static_cast<bool>(file) || FailWith(error);
    }
    return fcntl(file.Get(), F_SETFD, FD_CLOEXEC) == 0;
}

} // namespace

std::mutex RobustRWLock::m_initMutex;

RobustRWLock::RobustRWLock(const std::string& cacheName)
    : m_fd(0), m_path(std::string(folder) + cacheName + std::string(suffix)) {}

RobustRWLock::~RobustRWLock() {
    if (m_fd != 0) {
        close(m_fd);
    }
}

void RobustRWLock::init() {
    MavixApiLite::FreeInForkedChildren<m_initMutex>();
    const std::lock_guard<std::mutex> guard(m_initMutex);
    const char* const path = m_path.c_str();
    if (m_fd != 0) {
        return;
    }
    TCFileDescriptor file = Create(m_path);
    const bool created = static_cast<bool>(file);
    if (!created && errno != EEXIST) {
        CACHE_LOGE("Failed to create file %s errno:%d %s", path, errno, std::strerror(errno));
        return;
    }
    if (!created) {
        file = OpenExisting(m_path);
    }
    if (!file || !KeepFromZeroAndExec(file)) {
        CACHE_LOGE("Failed to open file %s errno:%d %s", path, errno, std::strerror(errno));
        return;
    }
    if (created) {
        CACHE_LOGI("File %s created", path);
    } else {
        CACHE_LOGD("File %s opened", path);
    }
    CACHE_LOGD("Change access %s", path);
    if (fchmod(file.Get(), mode) != 0) {
        CACHE_LOGE("Failed to change access to file %s errno:%d %s", path, errno, std::strerror(errno));
        return;
    }
    CACHE_LOGD("Change owner %s", path);
    if (fchown(file.Get(), MAVIX_CACHE_OWNER_UID, MAVIX_CACHE_OWNER_GID) != 0) {
        CACHE_LOGE("Failed to change owner of file %s errno:%d %s", path, errno, std::strerror(errno));
        return;
    }
    m_fd = file.Release();
}

bool RobustRWLock::lock() {
    return m_Lock(__FUNCTION__, LOCK_EX, "exclusive");
}

bool RobustRWLock::lock_sharable() {
    return m_Lock(__FUNCTION__, LOCK_SH, "sharable");
}

bool RobustRWLock::unlock() const {
    return m_Unlock(__FUNCTION__, "exclusive");
}

bool RobustRWLock::unlock_sharable() const {
    return m_Unlock(__FUNCTION__, "sharable");
}

bool RobustRWLock::m_Lock(const char* function, int operation, const char* name) {
    const char* const path = m_path.c_str();
    if (m_fd == 0) {
        CACHE_LOG_AS(MAVIX_LOG_ERROR, function, "lock: %s File not open", path);
        init();
        if (m_fd == 0) {
            CACHE_LOG_AS(MAVIX_LOG_ERROR, function, "lock: %s File not open after reinit", path);
            return false;
        }
    }
    CACHE_LOG_AS(MAVIX_LOG_DEBUG, function, "lock: %s lock %s", path, name);
    if (flock(m_fd, operation) != 0) {
        CACHE_LOG_AS(MAVIX_LOG_ERROR, function, "lock: %s Failed to lock %s errno:%d %s", path, name, errno,
                     std::strerror(errno));
        return false;
    }
    CACHE_LOG_AS(MAVIX_LOG_DEBUG, function, "lock: %s locked %s", path, name);
    return true;
}

bool RobustRWLock::m_Unlock(const char* function, const char* name) const {
    const char* const path = m_path.c_str();
    if (m_fd == 0) {
        CACHE_LOG_AS(MAVIX_LOG_ERROR, function, "lock: %s File not open", path);
        return false;
    }
    CACHE_LOG_AS(MAVIX_LOG_DEBUG, function, "lock: %s unlock %s", path, name);
    if (flock(m_fd, LOCK_UN) != 0) {
        CACHE_LOG_AS(MAVIX_LOG_ERROR, function, "lock: %s Failed to unlock %s errno:%d %s", path, name, errno,
                     std::strerror(errno));
        return false;
    }
    CACHE_LOG_AS(MAVIX_LOG_DEBUG, function, "lock: %s unlocked %s", path, name);
    return true;
}
