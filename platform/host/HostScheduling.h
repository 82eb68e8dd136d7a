#ifndef MAVIX_HOST_SCHEDULING_H
#define MAVIX_HOST_SCHEDULING_H

#include <cstdint>
#include <sys/types.h>

namespace MavixPlatformHost {

// The scheduling of one thread, in the kernel's own layout (struct sched_attr, first version). A plain value.
struct Scheduling {
    std::uint32_t size = sizeof(Scheduling);
    std::uint32_t policy = 0;
    std::uint64_t flags = 0;
    std::int32_t nice = 0;
    std::uint32_t priority = 0;
    std::uint64_t runtime = 0;
    std::uint64_t deadline = 0;
    std::uint64_t period = 0;

    // What every thread has that nobody asked anything special for.
    bool IsDefault() const;

    // The same policy, priority and nice value.
    bool IsLike(const Scheduling& other) const;

    // Orders schedulings by who runs first: idle, nice 19 to nice -20, real-time 1 to 99, deadline.
    int Rank() const;

    // What a thread of this scheduling becomes when it is lent `lent`.
    Scheduling RaisedTo(const Scheduling& lent) const;
};

// Thread 0 is the calling one. 0 is success, otherwise a negative errno value.
int ReadScheduling(pid_t thread, Scheduling& scheduling);
int WriteScheduling(pid_t thread, const Scheduling& scheduling);

} // namespace MavixPlatformHost

#endif
