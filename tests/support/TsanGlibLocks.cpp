#include "TsanGlib.h"

#include <atomic>

namespace {

void TryRecursive(GRecMutex* mutex) {
    NEXT(g_rec_mutex_trylock);
    if (next(mutex) != FALSE) {
        g_rec_mutex_unlock(mutex);
    }
}

void TryReader(GRWLock* lock) {
    NEXT(g_rw_lock_reader_trylock);
    if (next(lock) != FALSE) {
        g_rw_lock_reader_unlock(lock);
    }
}

// GLib allocates what these locks stand on at their first use, by whichever thread comes first.
template <class Lock>
void EnsureMade(Lock* lock, void (*firstUse)(Lock*)) {
    static std::atomic_flag busy = ATOMIC_FLAG_INIT;
    if (__atomic_load_n(&lock->p, __ATOMIC_SEQ_CST) == nullptr) {
        while (busy.test_and_set()) {
        }
        if (__atomic_load_n(&lock->p, __ATOMIC_SEQ_CST) == nullptr) {
            firstUse(lock);
            __tsan_release(&lock->i);
        }
        busy.clear();
    }
    __tsan_acquire(&lock->i);
}

// Those that GLib uses inside itself, for the types of variants and the domains of errors, are made here,
// before there are threads.
__attribute__((constructor)) void MakeInnerLocks() {
    g_variant_unref(g_variant_ref_sink(g_variant_new("(i)", 0)));
    g_error_free(g_error_new_literal(G_FILE_ERROR, 0, ""));
}

} // namespace

#pragma GCC visibility push(default)

extern "C" {

// Locks of GIO and GObject; GLib's own are bound inside it.

void g_mutex_lock(GMutex* mutex) {
    NEXT(g_mutex_lock);
    next(mutex);
    __tsan_acquire(mutex);
}

gboolean g_mutex_trylock(GMutex* mutex) {
    NEXT(g_mutex_trylock);
    const gboolean locked = next(mutex);
    if (locked != FALSE) {
        __tsan_acquire(mutex);
    }
    return locked;
}

void g_mutex_unlock(GMutex* mutex) {
    NEXT(g_mutex_unlock);
    __tsan_release(mutex);
    next(mutex);
}

// These stand on a lock of pthreads, which the sanitizer sees; what it does not see is who made that lock.

void g_rec_mutex_lock(GRecMutex* mutex) {
    NEXT(g_rec_mutex_lock);
    EnsureMade(mutex, TryRecursive);
    next(mutex);
}

gboolean g_rec_mutex_trylock(GRecMutex* mutex) {
    NEXT(g_rec_mutex_trylock);
    EnsureMade(mutex, TryRecursive);
    return next(mutex);
}

void g_rw_lock_reader_lock(GRWLock* lock) {
    NEXT(g_rw_lock_reader_lock);
    EnsureMade(lock, TryReader);
    next(lock);
}

gboolean g_rw_lock_reader_trylock(GRWLock* lock) {
    NEXT(g_rw_lock_reader_trylock);
    EnsureMade(lock, TryReader);
    return next(lock);
}

void g_rw_lock_writer_lock(GRWLock* lock) {
    NEXT(g_rw_lock_writer_lock);
    EnsureMade(lock, TryReader);
    next(lock);
}

gboolean g_rw_lock_writer_trylock(GRWLock* lock) {
    NEXT(g_rw_lock_writer_trylock);
    EnsureMade(lock, TryReader);
    return next(lock);
}

void g_cond_wait(GCond* condition, GMutex* mutex) {
    NEXT(g_cond_wait);
    __tsan_release(mutex);
    next(condition, mutex);
    __tsan_acquire(mutex);
}

gboolean g_cond_wait_until(GCond* condition, GMutex* mutex, gint64 end) {
    NEXT(g_cond_wait_until);
    __tsan_release(mutex);
    const gboolean signalled = next(condition, mutex, end);
    __tsan_acquire(mutex);
    return signalled;
}

// Thread-safe once.

gboolean(g_once_init_enter)(volatile void* location) {
    NEXT(g_once_init_enter);
    const gboolean first = next(location);
    __tsan_acquire(const_cast<void*>(location));
    return first;
}

void(g_once_init_leave)(volatile void* location, gsize result) {
    NEXT(g_once_init_leave);
    __tsan_release(const_cast<void*>(location));
    next(location, result);
}

} // extern "C"

#pragma GCC visibility pop
