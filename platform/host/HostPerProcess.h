#ifndef MAVIX_HOST_PER_PROCESS_H
#define MAVIX_HOST_PER_PROCESS_H

#include <atomic>
#include <memory>
#include <sys/types.h>
#include <unistd.h>

namespace MavixPlatformHost {

// A state made on first use and made anew in a forked child: the parent's locks may be held and its threads
// are gone there. Any thread; no lock. Never destroyed, because threads may need it while the process exits;
// what a child inherited stays linked, so that leak checkers see it in use.
template <class State>
class TCPerProcess final {
public:
    // Null as long as this process has not called Get().
    State* Peek() const {
        Node* node = m_newest.load(std::memory_order_acquire);
        return node != nullptr && node->owner == ::getpid() ? &node->state : nullptr;
    }

    State& Get() {
        if (State* existing = Peek()) {
            return *existing;
        }
        auto made = std::make_unique<Node>();
        Node* before = m_newest.load(std::memory_order_acquire);
        do {
            if (before != nullptr && before->owner == made->owner) {
                return before->state;
            }
            made->before = before;
        } while (!m_newest.compare_exchange_weak(before, made.get(), std::memory_order_acq_rel));
        return made.release()->state;
    }

private:
    struct Node {
        const pid_t owner = ::getpid();
        Node* before = nullptr;
        State state;
    };

    std::atomic<Node*> m_newest{nullptr};
};

} // namespace MavixPlatformHost

#endif
