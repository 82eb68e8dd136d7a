#include "CacheFixture.h"
#include "TracedChild.h"

#include <sys/file.h>
#include <sys/syscall.h>

// What a read costs: the log of this program is quiet.

using namespace MavixTest;
using AccessType = IPCCache::AccessType;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool countsAllocations = false;
#else
constexpr bool countsAllocations = true;

static std::size_t allocations = 0;

// In the place of the C library's, for the whole program; operator new calls it, too.
extern "C" void* __libc_malloc(std::size_t size);
extern "C" __attribute__((visibility("default"))) void* malloc(std::size_t size) {
    ++allocations;
    return __libc_malloc(size);
}
#endif

namespace {

class ReadCost : public CacheFixture {};

struct Call {
    long number;
    std::uint64_t operation;
};

bool operator==(const Call& a, const Call& b) {
    return a.number == b.number && a.operation == b.operation;
}

std::ostream& operator<<(std::ostream& out, const Call& call) {
    return out << "system call " << call.number << " with " << call.operation;
}

// The system calls between the first two marks of a body.
std::vector<Call> CallsBetweenMarks(const std::function<void()>& body) {
    std::vector<Call> found;
    TCTracedChild child(body);
    TCTracedChild::SystemCall call;
    int marks = 0;
    while (marks < 2 && child.RunToSystemCall(call)) {
        if (IsMark(call)) {
            ++marks;
        } else if (marks == 1) {
            found.push_back({call.number, call.arguments[1]});
        }
        child.RunToItsEnd(call);
    }
    EXPECT_EQ(2, marks);
    return found;
}

} // namespace

TEST_F(ReadCost, OfGetDataIsTwoLockSystemCallsAndNoOther) {
    {
        IPCCache writer(Name(), AccessType::Write);
        Set(writer, "key", "value");
    }
    for (const AccessType type : {AccessType::Read, AccessType::Write}) {
        const std::vector<Call> calls = CallsBetweenMarks([&] {
            IPCCache cache(Name(), type);
            const std::string key = "key";
            char buffer[5];
            cache.getData(key, buffer, sizeof buffer);
            Mark();
            const bool read = cache.getData(key, buffer, sizeof buffer);
            if (read) {
                Mark();
            }
        });
        EXPECT_EQ((std::vector<Call>{{SYS_flock, LOCK_SH}, {SYS_flock, LOCK_UN}}), calls);
    }
}

TEST_F(ReadCost, OfGetDataIsNoAllocation) {
    if (!countsAllocations) {
        GTEST_SKIP() << "the sanitizers have allocators of their own";
    }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    IPCCache writer(Name(), AccessType::Write);
    IPCCache reader(Name(), AccessType::Read);
    const std::string key(100, 'k');
    const std::string missing(100, 'm');
    Set(writer, key, "value");
    for (IPCCache* cache : {&reader, &writer}) {
        char buffer[5];
        EXPECT_TRUE(cache->getData(key, buffer, sizeof buffer));
        std::size_t before = allocations;
        EXPECT_TRUE(cache->getData(key, buffer, sizeof buffer));
        EXPECT_FALSE(cache->getData(key, buffer, 4));
        EXPECT_FALSE(cache->getData(missing, buffer, 4));
        EXPECT_EQ(before, allocations);
        before = allocations;
        char* copy = nullptr;
        EXPECT_TRUE(cache->getDataNew(key, &copy, nullptr));
        EXPECT_EQ(before + 1, allocations) << "the one that is handed out";
        std::free(copy);
    }
#endif
}
