#ifndef MAVIX_TEST_ALLOCATION_COUNTER_H
#define MAVIX_TEST_ALLOCATION_COUNTER_H

#include <cstddef>

namespace MavixTest {

// What the C++ allocations of this program did since Start, as far as they are of at least a given size. GLib
// allocates by itself and does not count.
struct AllocationCounter {
    static void Start(std::size_t smallest);
    static void Stop();

    static std::size_t Count();
    static std::size_t Alive();
    static std::size_t MostAlive();

    // While one lives, the allocations of its thread neither fail nor count towards the failing one.
    class Spared final {
    public:
        Spared();
        ~Spared();
        Spared(const Spared&) = delete;
        Spared& operator=(const Spared&) = delete;
    };

    // Lets the allocation after `successes` further ones of the calling thread fail, once.
    static void FailAfter(std::size_t successes);
    // Whether it has failed since.
    static bool HasFailed();
};

} // namespace MavixTest

#endif
