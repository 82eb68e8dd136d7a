#include "CacheAccess.h"
#include "CacheFixture.h"
#include "TracedChild.h"
#include "Workload.h"

#include <sys/file.h>
#include <sys/syscall.h>

// Writers that are killed within a write, after every seventh instruction.

using namespace MavixTest;
using AccessType = IPCCache::AccessType;

namespace {

constexpr unsigned int stride = 7;

// Of the sections that are many times as long. Where most instructions are an instrument's, it is the others
// that are as long, and these are left out.
constexpr bool isSlow = MAVIX_TEST_SCALE_DIVISOR != 1;
constexpr unsigned int longSectionKills = isSlow ? 4 : 12;

class StepKill : public CacheFixture {
protected:
    // A cache with values of several keys, of which two, whose blocks are no neighbours, were removed.
    void Prepare(IPCCache& cache, std::uint64_t number) const {
        for (unsigned int key = 0; key < workKeys; ++key) {
            cache.resetData(KeyName(key));
        }
        for (unsigned int key = 0; key < workKeys; ++key) {
            const std::string value = MakeValue(key, number);
            cache.setData(KeyName(key), value.data(), value.size());
        }
        cache.resetData(KeyName(3));
        cache.resetData(KeyName(8));
    }
};

bool IsLock(const TCTracedChild::SystemCall& call, std::uint64_t operation) {
    return call.number == SYS_flock && call.arguments[1] == operation;
}

// Runs a child that marks the beginning of a write up to where it has the exclusive lock.
void RunToLock(TCTracedChild& child) {
    TCTracedChild::SystemCall call;
    bool isMarked = false;
    for (;;) {
        ASSERT_TRUE(child.RunToSystemCall(call));
        const bool hasLock = isMarked && IsLock(call, LOCK_EX);
        isMarked = isMarked || IsMark(call);
        ASSERT_TRUE(child.RunToItsEnd(call));
        if (hasLock) {
            return;
        }
    }
}

// A write, and where its section begins: with the lock, or with the guard.
struct Row {
    const char* name;
    bool fromGuard;
    void (*prepare)(IPCCache& cache);
    void (*write)(IPCCache& cache);
};

void SetValue(IPCCache& cache, unsigned int key, std::uint64_t number) {
    const std::string value = MakeValue(key, number);
    cache.setData(KeyName(key), value.data(), value.size());
}

void Nothing(IPCCache& /*cache*/) {}

const Row rows[] = {
    {"setData of a new key", true, Nothing, [](IPCCache& cache) { SetValue(cache, 3, 1000); }},
    {"setData of a key that is there", true, Nothing, [](IPCCache& cache) { SetValue(cache, 5, 1000); }},
    {"resetData", true, Nothing, [](IPCCache& cache) { cache.resetData(KeyName(7)); }},
    {"resetData of a missing key", true, Nothing, [](IPCCache& cache) { cache.resetData(KeyName(3)); }},
    {"setData without room", true, Nothing,
     [](IPCCache& cache) {
         const std::string large(4000, 'x');
         cache.setData("large", large.data(), large.size());
     }},
    {"setData that wipes", false, [](IPCCache& cache) { MavixApiLite::TestAccess::Guard(cache) = 1; },
     [](IPCCache& cache) { SetValue(cache, 3, 1000); }},
    {"setData that starts afresh", false,
     [](IPCCache& cache) { MavixApiLite::TestAccess::Page(cache)[56] = 99; },
     [](IPCCache& cache) { SetValue(cache, 3, 1000); }},
    {"the first setData", false,
     [](IPCCache& cache) {
         MavixApiLite::TestAccess::Guard(cache) = 1;
         MavixApiLite::TestAccess::Private(cache).destroyAllObjects();
     },
     [](IPCCache& cache) { SetValue(cache, 3, 1000); }},
};

// Where a section begins, and how many instructions it has up to the unlocking.
struct Section {
    std::uint64_t begin = 0;
    unsigned int length = 0;
};

} // namespace

TEST_F(StepKill, WithinAWriteLeavesNoTornValueAndTheNextWriterRecovers) {
    TCReaders readers(Name(), 8);
    IPCCache cache(Name(), AccessType::Write);
    IPCCache reader(Name(), AccessType::Read);
    std::uint64_t number = 0;
    for (const Row& row : rows) {
        if (isSlow && !row.fromGuard) {
            std::printf("%s: left out in a build with instruments\n", row.name);
            continue;
        }
        const auto prepare = [&] {
            Prepare(cache, ++number);
            row.prepare(cache);
        };
        const auto body = [&] {
            IPCCache own(Name(), AccessType::Write);
            Mark();
            row.write(own);
        };
        // The first pass finds the section. Forked children have their code at the same addresses.
        prepare();
        Section section;
        {
            TCTracedChild child(body);
            RunToLock(child);
            while (row.fromGuard && MavixApiLite::TestAccess::Guard(cache) == 0) {
                ASSERT_TRUE(child.Step());
            }
            section.begin = child.Address();
            TCTracedChild::SystemCall call;
            while (!child.IsBeforeSystemCall(call) || !IsLock(call, LOCK_UN)) {
                ASSERT_TRUE(child.Step());
                ++section.length;
            }
        }
        unsigned int kills = 0;
        const unsigned int step = !isSlow && row.fromGuard ? stride : section.length / longSectionKills + 1;
        for (unsigned int at = 0; at <= section.length && !HasFailure(); at += step) {
            ExpectWriterRecovers(cache, ++number);
            prepare();
            TCTracedChild child(body);
            RunToLock(child);
            ASSERT_TRUE(!row.fromGuard || child.RunTo(section.begin));
            for (unsigned int done = 0; done < at; ++done) {
                ASSERT_TRUE(child.Step());
            }
            child.Kill();
            ++kills;
            for (unsigned int key = 0; key < workKeys; ++key) {
                const std::string value = Get(reader, KeyName(key));
                EXPECT_TRUE(value == none || IsWhole(key, value)) << KeyName(key);
            }
            ExpectWriterRecovers(cache, ++number);
            EXPECT_FALSE(HasFailure())
                << row.name << ", killed after " << at << " of " << section.length << " instructions";
        }
        readers.ExpectWell();
        std::printf("%s: %u instructions, %u kills\n", row.name, section.length, kills);
        EXPECT_LE(longSectionKills, kills);
    }
}
