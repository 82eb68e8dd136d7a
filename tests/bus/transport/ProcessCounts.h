#ifndef MAVIX_TEST_PROCESS_COUNTS_H
#define MAVIX_TEST_PROCESS_COUNTS_H

#include <cstddef>
#include <dirent.h>
#include <memory>

namespace MavixTest {

inline std::size_t CountEntries(const char* folder) {
    const std::unique_ptr<DIR, int (*)(DIR*)> opened(opendir(folder), closedir);
    std::size_t count = 0;
    while (readdir(opened.get()) != nullptr) {
        ++count;
    }
    return count;
}

// What this process holds at the moment; good for comparing only.
inline std::size_t Descriptors() {
    return CountEntries("/proc/self/fd");
}

inline std::size_t Threads() {
    return CountEntries("/proc/self/task");
}

} // namespace MavixTest

#endif
