#include "HostWorker.h"

#include <algorithm>
#include <csignal>
#include <exception>
#include <pthread.h>

namespace MavixPlatformHost {

bool TCHostWorker::StartLocked() {
    if (m_running) {
        return true;
    }
    // The application's signals are for the application's threads.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread;
    m_running = pthread_create(&thread, nullptr, &TCHostWorker::m_Main, this) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (m_running) {
        pthread_setname_np(thread, m_name);
        pthread_detach(thread);
    }
    return m_running;
}

void TCHostWorker::WakeByLocked(TimePoint when) {
    m_wanted = std::min(m_wanted, when);
    if (when < m_planned) {
        m_changed.notify_one();
    }
}

void* TCHostWorker::m_Main(void* self) {
    static_cast<TCHostWorker*>(self)->m_Run();
    return nullptr;
}

void TCHostWorker::m_Run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_planned = Never;
        m_wanted = Never;
        m_planned = std::min(m_RunStep(lock), m_wanted);
        if (m_planned == Never) {
            m_changed.wait(lock);
        } else {
            m_changed.wait_until(lock, m_planned);
        }
    }
}

TimePoint TCHostWorker::m_RunStep(std::unique_lock<std::mutex>& lock) {
    try {
        return m_step(m_owner, lock);
    } catch (const std::exception&) {
        // Out of memory: nothing to report it with, so the step is tried again later.
        if (!lock.owns_lock()) {
            lock.lock();
        }
        return std::chrono::steady_clock::now() + std::chrono::seconds(1);
    }
}

} // namespace MavixPlatformHost
