#include "AllocationCounter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

constexpr std::size_t never = ~std::size_t{0};

std::atomic<std::size_t> smallestCounted{never};
std::atomic<std::size_t> allocated{0};
std::atomic<std::size_t> alive{0};
std::atomic<std::size_t> mostAlive{0};
thread_local std::size_t successesLeft = never;
thread_local bool failed = false;
thread_local int spared = 0;

// In front of each block: its size when it counts, else 0.
constexpr std::size_t headSize = alignof(std::max_align_t);

void* Allocate(std::size_t size) {
    if (spared == 0 && successesLeft != never && successesLeft-- == 0) {
        successesLeft = never;
        failed = true;
        return nullptr;
    }
    auto* block = static_cast<std::size_t*>(std::malloc(size + headSize));
    if (block == nullptr) {
        return nullptr;
    }
    *block = size >= smallestCounted ? size : 0;
    if (*block != 0) {
        ++allocated;
        const std::size_t now = ++alive;
        std::size_t most = mostAlive;
        while (now > most && !mostAlive.compare_exchange_weak(most, now)) {
        }
    }
    return reinterpret_cast<char*>(block) + headSize;
}

void Free(void* data) {
    if (data == nullptr) {
        return;
    }
    auto* block = reinterpret_cast<std::size_t*>(static_cast<char*>(data) - headSize);
    if (*block != 0) {
        --alive;
    }
    std::free(block);
}

void* AllocateOrThrow(std::size_t size) {
    void* data = Allocate(size);
    if (data == nullptr) {
        throw std::bad_alloc();
    }
    return data;
}

} // namespace

// In the place of the standard library's, for the whole program; the others are defined by these.

void* operator new(std::size_t size) {
    return AllocateOrThrow(size);
}

void* operator new[](std::size_t size) {
    return AllocateOrThrow(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size);
}

void operator delete(void* data) noexcept {
    Free(data);
}

void operator delete[](void* data) noexcept {
    Free(data);
}

void operator delete(void* data, std::size_t) noexcept {
    Free(data);
}

void operator delete[](void* data, std::size_t) noexcept {
    Free(data);
}

void operator delete(void* data, const std::nothrow_t&) noexcept {
    Free(data);
}

void operator delete[](void* data, const std::nothrow_t&) noexcept {
    Free(data);
}

namespace MavixTest {

void AllocationCounter::Start(std::size_t smallest) {
    allocated = 0;
    alive = 0;
    mostAlive = 0;
    smallestCounted = smallest;
}

void AllocationCounter::Stop() {
    smallestCounted = never;
}

std::size_t AllocationCounter::Count() {
    return allocated;
}

std::size_t AllocationCounter::Alive() {
    return alive;
}

std::size_t AllocationCounter::MostAlive() {
    return mostAlive;
}

AllocationCounter::Spared::Spared() {
    ++spared;
}

AllocationCounter::Spared::~Spared() {
    --spared;
}

void AllocationCounter::FailAfter(std::size_t successes) {
    failed = false;
    successesLeft = successes;
}

bool AllocationCounter::HasFailed() {
    successesLeft = never;
    return failed;
}

} // namespace MavixTest
