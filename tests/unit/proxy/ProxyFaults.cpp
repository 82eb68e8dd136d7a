#include "ProxyFaults.h"

#include <cstddef>
#include <new>
#include <pthread.h>
#include <utility>

namespace MavixTest {

std::function<int()> ProxyFaults::beforeExclusive;
std::function<void()> ProxyFaults::afterShared;
std::atomic<int> ProxyFaults::sharedErrors{0};
int ProxyFaults::sharedError = 0;
bool ProxyFaults::noSymbols = false;
bool ProxyFaults::noMemory = false;

} // namespace MavixTest

using MavixTest::ProxyFaults;

// The linker puts these in the place of the functions that they wrap.
extern "C" {

int __real_pthread_rwlock_wrlock(pthread_rwlock_t* lock);
int __real_pthread_rwlock_rdlock(pthread_rwlock_t* lock);
char** __real_backtrace_symbols(void* const* frames, int count);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag);

int __wrap_pthread_rwlock_wrlock(pthread_rwlock_t* lock) {
    if (ProxyFaults::beforeExclusive) {
        // Once, so that it may itself take locks.
        const std::function<int()> hook = std::exchange(ProxyFaults::beforeExclusive, nullptr);
        if (const int error = hook()) {
            return error;
        }
    }
    return __real_pthread_rwlock_wrlock(lock);
}

int __wrap_pthread_rwlock_rdlock(pthread_rwlock_t* lock) {
    if (ProxyFaults::sharedErrors > 0) {
        --ProxyFaults::sharedErrors;
        return ProxyFaults::sharedError;
    }
    const int result = __real_pthread_rwlock_rdlock(lock);
    if (ProxyFaults::afterShared) {
        std::exchange(ProxyFaults::afterShared, nullptr)();
    }
    return result;
}

char** __wrap_backtrace_symbols(void* const* frames, int count) {
    return ProxyFaults::noSymbols ? nullptr : __real_backtrace_symbols(frames, count);
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
    return ProxyFaults::noMemory ? nullptr : __real_calloc(count, size);
}

void* __wrap__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag) {
    return ProxyFaults::noMemory ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}

} // extern "C"
