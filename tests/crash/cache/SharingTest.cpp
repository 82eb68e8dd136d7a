#include "CacheFixture.h"
#include "TestScale.h"
#include "Workload.h"

#include <csignal>
#include <sys/prctl.h>
#include <unistd.h>

// Many processes on one cache.

using namespace MavixTest;
using AccessType = IPCCache::AccessType;

namespace {

constexpr unsigned int readerCount = 24;
constexpr unsigned int writerCount = 8;
constexpr unsigned int seconds = 30;

class Sharing : public CacheFixture {};

} // namespace

TEST_F(Sharing, By32ProcessesGivesNoTornValue) {
    SharedCount* const shared = NewSharedCounts(2);
    SharedCount& number = shared[0];
    SharedCount& failures = shared[1];
    TCReaders readers(Name(), readerCount);
    std::vector<pid_t> writers;
    for (unsigned int at = 0; at < writerCount; ++at) {
        const pid_t process = fork();
        if (process == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            std::mt19937 random(at);
            IPCCache cache(Name(), AccessType::Write);
            for (;;) {
                WriteSomething(cache, random, ++number);
                const unsigned int key = static_cast<unsigned int>(random() % workKeys);
                const std::string value = Get(cache, KeyName(key));
                failures += value == none || IsWhole(key, value) ? 0U : 1U;
                usleep(static_cast<useconds_t>(random() % 2000));
            }
        }
        writers.push_back(process);
    }
    for (unsigned int second = 0; second < Scaled(seconds) && !HasFailure(); ++second) {
        sleep(1);
        readers.ExpectWell();
    }
    for (const pid_t process : writers) {
        EXPECT_EQ(0, kill(process, SIGKILL));
        EXPECT_EQ(-SIGKILL, WaitForEnd(process));
    }
    readers.ExpectWell();
    EXPECT_EQ(0U, failures);
    EXPECT_LT(0U, readers.ValuesRead());
    std::printf("%llu writes, %llu values read\n", static_cast<unsigned long long>(number.load()),
                static_cast<unsigned long long>(readers.ValuesRead()));
}
