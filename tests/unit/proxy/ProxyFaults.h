#ifndef MAVIX_TEST_PROXY_FAULTS_H
#define MAVIX_TEST_PROXY_FAULTS_H

#include <atomic>
#include <functional>

namespace MavixTest {

// What the system refuses to the code of a program that is linked for it. Tests that set something set it
// back.
struct ProxyFaults {
    // Runs before a lock is taken exclusively; a result other than 0 is the lock's error.
    static std::function<int()> beforeExclusive;
    // Runs once, when a lock has been shared.
    static std::function<void()> afterShared;
    // The error of the next so many attempts to share a lock.
    static std::atomic<int> sharedErrors;
    static int sharedError;
    static bool noSymbols; // for addresses
    static bool noMemory;  // for what is asked for without exceptions, zeroed or not
};

} // namespace MavixTest

#endif
