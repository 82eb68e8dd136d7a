#ifndef MAVIX_TEST_GIO_FAULTS_H
#define MAVIX_TEST_GIO_FAULTS_H

#include <atomic>
#include <functional>

namespace MavixTest {

// What GIO is made to answer when the library opens a connection, in a test program that has GioFaults.cpp.
struct GioFaults {
    static std::atomic<bool> withoutAddress;    // no address of the bus, and no error
    static std::atomic<bool> withoutConnection; // no connection, and no error
    static std::atomic<int> usedFlags;          // of the last connection
    static std::function<void()> afterFilter;   // runs when a filter has just been installed
};

} // namespace MavixTest

#endif
