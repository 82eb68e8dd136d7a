#ifndef MAVIX_TEST_GIO_FAULTS_H
#define MAVIX_TEST_GIO_FAULTS_H

#include <atomic>

namespace MavixTest {

// What GIO is made to answer when the library opens a connection, in a test program that has GioFaults.cpp.
struct GioFaults {
    static std::atomic<bool> withoutAddress;    // no address of the bus, and no error
    static std::atomic<bool> withoutConnection; // no connection, and no error
    static std::atomic<int> usedFlags;          // of the last connection
};

} // namespace MavixTest

#endif
