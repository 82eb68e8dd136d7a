#ifndef MAVIX_SIGNAL_SEMAPHORE_H
#define MAVIX_SIGNAL_SEMAPHORE_H

#include <condition_variable>
#include <mutex>

namespace MavixApiLite {

// A semaphore of one token: Signal puts it there, Wait takes it. Any thread.
struct SignalSemaphore {
    std::mutex mutex;
    std::condition_variable condition;
    bool signalled = false;

    void Signal() {
        const std::lock_guard<std::mutex> lock(mutex);
        signalled = true;
        condition.notify_one();
    }

    void Wait() {
        std::unique_lock<std::mutex> lock(mutex);
        condition.wait(lock, [this] { return signalled; });
        signalled = false;
    }
};

} // namespace MavixApiLite

#endif
