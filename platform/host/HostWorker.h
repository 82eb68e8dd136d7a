#ifndef MAVIX_HOST_WORKER_H
#define MAVIX_HOST_WORKER_H

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace MavixPlatformHost {

using TimePoint = std::chrono::steady_clock::time_point;
inline constexpr TimePoint Never = TimePoint::max();

// A background thread that runs one step and sleeps until the time that the step returned, or until woken.
// Owner: a per-process state, for ever. Lock: Mutex() guards the owner's data too; the step runs with it held
// and may release it for the time of a slow operation.
class TCHostWorker final {
public:
    using Step = TimePoint (*)(void* owner, std::unique_lock<std::mutex>& lock);

    TCHostWorker(const char* name, Step step, void* owner) : m_name(name), m_step(step), m_owner(owner) {}
    TCHostWorker(const TCHostWorker&) = delete;
    TCHostWorker& operator=(const TCHostWorker&) = delete;

    std::mutex& Mutex() { return m_mutex; }

    // Starts the thread unless it runs. False: the system has no thread for us. The caller holds the lock.
    bool StartLocked();

    // Lets the step run at `when` at the latest. The caller holds the lock.
    void WakeByLocked(TimePoint when);

private:
    static void* m_Main(void* self);
    void m_Run();
    TimePoint m_RunStep(std::unique_lock<std::mutex>& lock);

    const char* const m_name;
    const Step m_step;
    void* const m_owner;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    TimePoint m_planned = Never;
    TimePoint m_wanted = Never;
    bool m_running = false;
};

} // namespace MavixPlatformHost

#endif
