#ifndef MAVIX_TEST_CACHE_ACCESS_H
#define MAVIX_TEST_CACHE_ACCESS_H

#include "IPCCachePrivate.h"

namespace MavixApiLite {

// What tests need of a cache's inside.
struct TestAccess {
    using Manager = IPCCachePrivate::Manager;
    using WriteGuard = IPCCachePrivate::WriteGuard;

    static IPCCachePrivate& Private(IPCCache& cache) { return *cache.d; }
    static bool IsOpen(IPCCache& cache) { return cache.d->m_manager != nullptr; }
    static Manager& Segment(IPCCache& cache) { return *cache.d->m_manager; }
    static char* Page(IPCCache& cache) { return cache.d->m_Page(); }
    static RobustRWLock& Lock(IPCCache& cache) { return cache.d->m_lock; }
    // A cache of another size than a page.
    static void SetPrivate(IPCCache& cache, std::unique_ptr<IPCCachePrivate> own) {
        cache.d = std::move(own);
    }
    static WriteGuard& Guard(IPCCache& cache) {
        return *cache.d->m_manager->find<WriteGuard>("write_guard").first;
    }
};

} // namespace MavixApiLite

#endif
