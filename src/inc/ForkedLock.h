#ifndef MAVIX_FORKED_LOCK_H
#define MAVIX_FORKED_LOCK_H

#include <atomic>
#include <new>
#include <pthread.h>
#include <type_traits>

namespace MavixApiLite {

// Has every child that is forked from now on begin with `lock` free: a thread of its parent may have held it,
// and is not there to give it back. Takes no lock itself, and may be called again at any time.
template <auto& lock>
void FreeInForkedChildren() {
    using Lock = std::remove_reference_t<decltype(lock)>;
    static std::atomic<bool> isRegistered{false};
    if (!isRegistered) {
        pthread_atfork(nullptr, nullptr, [] { new (&lock) Lock; });
        isRegistered = true;
    }
}

} // namespace MavixApiLite

#endif
