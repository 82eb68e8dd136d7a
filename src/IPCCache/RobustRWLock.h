#ifndef MAVIX_ROBUST_RW_LOCK_H
#define MAVIX_ROBUST_RW_LOCK_H

#include "Export.h"

#include <mutex>
#include <string>

namespace MavixApiLite {
struct TestAccess;
}

// A reader/writer lock between processes that survives the death of a holder: an flock on a file in /run,
// which the kernel drops with the holder. Threads that share one object are not serialised by it; two objects
// of the same name exclude each other, also within a process.
class MAVIX_API_EXPORT RobustRWLock final {
public:
    // Does not touch the file system.
    explicit RobustRWLock(const std::string& cacheName);
    ~RobustRWLock();

    RobustRWLock(const RobustRWLock&) = delete;
    RobustRWLock& operator=(const RobustRWLock&) = delete;

    // Opens the lock file, makes it when there is none, and gives it mode and owner. Whoever may not do that
    // may not use the lock. A failure is logged and tried again by the next lock operation.
    void init();

    // Wait for the lock. False, with a log line, when the file cannot be opened or a signal interrupts the
    // wait.
    bool lock();
    bool lock_sharable();

    // False, with a log line, when the file is not open.
    bool unlock() const;
    bool unlock_sharable() const;

private:
    friend struct MavixApiLite::TestAccess;

    bool m_Lock(const char* function, int operation, const char* mode);
    bool m_Unlock(const char* function, const char* mode) const;

    int m_fd; // 0: not open
    std::string m_path;

    static std::mutex m_initMutex;
};

#endif
