#ifndef MAVIX_TEST_MEETING_H
#define MAVIX_TEST_MEETING_H

#include <atomic>
#include <thread>

namespace MavixTest {

// Where threads wait for each other, time and again, to go on at the same moment.
class TCMeeting final {
public:
    // Until so many have arrived since the beginning. Spinning lets all go on at once; a busy machine may
    // need one of them to step back.
    void Await(unsigned int count) {
        ++m_arrived;
        for (unsigned int spin = 0; m_arrived < count; ++spin) {
            if (spin > 50000) {
                std::this_thread::yield();
            }
        }
    }

private:
    std::atomic<unsigned int> m_arrived{0};
};

} // namespace MavixTest

#endif
