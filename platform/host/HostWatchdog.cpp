#include "HostPerProcess.h"
#include "HostProcess.h"
#include "HostSupport.h"
#include "HostWorker.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <systemd/sd-daemon.h>
#include <vector>

namespace MavixPlatformHost {

namespace {

using Clock = std::chrono::steady_clock;

struct WatchedThread {
    pid_t thread;
    std::chrono::seconds period;
    TimePoint heard;
    bool isLate;
};

// Watches the threads that registered. One background thread judges them and feeds systemd's watchdog, twice
// in its limit, while none is late: it notices that all of them hang, and when systemd is slow to read, no
// watched thread waits for it. Made with the first registration, which is when the environment is read.
class TCWatchdog final {
public:
    int Register(std::chrono::seconds period) {
        const std::lock_guard<std::mutex> lock(m_worker.Mutex());
        if (!m_worker.StartLocked()) {
            return -EAGAIN;
        }
        WatchedThread* known = m_FindCaller();
        if (known == nullptr) {
            known = &m_threads.emplace_back();
        }
        *known = {::gettid(), period, Clock::now(), false};
        m_worker.WakeByLocked(Clock::now());
        return 0;
    }

    int Notify() {
        const std::lock_guard<std::mutex> lock(m_worker.Mutex());
        WatchedThread* known = m_FindCaller();
        if (known == nullptr) {
            return -ENOENT;
        }
        known->heard = Clock::now();
        if (known->isLate) {
            m_worker.WakeByLocked(known->heard);
        }
        return 0;
    }

    int Unregister() {
        const std::lock_guard<std::mutex> lock(m_worker.Mutex());
        WatchedThread* known = m_FindCaller();
        if (known == nullptr) {
            return -ENOENT;
        }
        m_threads.erase(m_threads.begin() + (known - m_threads.data()));
        m_worker.WakeByLocked(Clock::now());
        return 0;
    }

private:
    static std::chrono::microseconds m_ReadInterval() {
        std::uint64_t limit = 0;
        return sd_watchdog_enabled(0, &limit) > 0
                   ? std::chrono::microseconds(std::max<std::uint64_t>(limit / 2, 1))
                   : std::chrono::microseconds(0);
    }

    static TimePoint m_Watch(void* self, std::unique_lock<std::mutex>& lock) {
        return static_cast<TCWatchdog*>(self)->m_Judge(lock);
    }

    WatchedThread* m_FindCaller() {
        const auto found = std::find_if(m_threads.begin(), m_threads.end(),
                                        [](const auto& each) { return each.thread == ::gettid(); });
        return found != m_threads.end() ? &*found : nullptr;
    }

    TimePoint m_Judge(std::unique_lock<std::mutex>& lock) {
        const TimePoint now = Clock::now();
        TimePoint next = Never;
        bool areAllAlive = !m_threads.empty();
        for (WatchedThread& watched : m_threads) {
            const TimePoint due = watched.heard + watched.period;
            const bool isLate = due <= now;
            if (isLate != watched.isLate) {
                watched.isLate = isLate;
                m_Tell(watched);
            }
            areAllAlive = areAllAlive && !isLate;
            next = isLate ? next : std::min(next, due);
        }
        if (m_interval.count() == 0 || !areAllAlive) {
            return next;
        }
        if (!m_fed || *m_fed + m_interval <= now) {
            m_fed = now;
            lock.unlock();
            sd_notify(0, "WATCHDOG=1");
            lock.lock();
        }
        return std::min(next, *m_fed + m_interval);
    }

    static void m_Tell(const WatchedThread& watched) {
        char path[48];
        std::snprintf(path, sizeof(path), "/proc/self/task/%d/comm", watched.thread);
        char name[32];
        if (!ReadProcFile(path, name, sizeof(name))) {
            std::snprintf(name, sizeof(name), "ended");
        }
        name[std::strcspn(name, "\n")] = '\0';
        if (watched.isLate) {
            MAVIX_HOST_LOG(MAVIX_LOG_ERROR, "HostWatchdog", "thread %d (%s) missed its period of %lld s",
                           watched.thread, name, static_cast<long long>(watched.period.count()));
        } else {
            MAVIX_HOST_LOG(MAVIX_LOG_WARNING, "HostWatchdog", "thread %d (%s) is back", watched.thread, name);
        }
    }

    // Constant after construction; zero: no watchdog in the environment.
    const std::chrono::microseconds m_interval = m_ReadInterval();

    // Guarded by the worker's lock.
    TCHostWorker m_worker{"mavix-watchdog", &TCWatchdog::m_Watch, this};
    std::vector<WatchedThread> m_threads;
    std::optional<TimePoint> m_fed;
};

TCPerProcess<TCWatchdog> s_watchdog;

} // namespace

} // namespace MavixPlatformHost

int smart_deadlock_register_watchdog_service(int periodSeconds) {
    using namespace MavixPlatformHost;
    if (periodSeconds <= 0) {
        return -EINVAL;
    }
    return Guarded(
        [periodSeconds] { return s_watchdog.Get().Register(std::chrono::seconds(periodSeconds)); });
}

int smart_deadlock_watchdog_notify(void) {
    using namespace MavixPlatformHost;
    TCWatchdog* watchdog = s_watchdog.Peek();
    return watchdog != nullptr ? watchdog->Notify() : -ENOENT;
}

int smart_deadlock_unregister_watchdog_service(void) {
    using namespace MavixPlatformHost;
    TCWatchdog* watchdog = s_watchdog.Peek();
    return watchdog != nullptr ? watchdog->Unregister() : -ENOENT;
}
