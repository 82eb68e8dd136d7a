#ifndef MAVIX_TEST_AWAIT_H
#define MAVIX_TEST_AWAIT_H

#include <chrono>
#include <thread>

namespace MavixTest {

// Waits until a condition holds that nobody signals; false when the time is over.
template <class Condition>
bool Await(const Condition& condition, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace MavixTest

#endif
