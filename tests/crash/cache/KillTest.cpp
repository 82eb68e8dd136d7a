#include "CacheAccess.h"
#include "CacheFixture.h"
#include "SegmentCheck.h"
#include "TestScale.h"
#include "TracedChild.h"
#include "Workload.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

// Writers that are killed: at any moment, and after every single system call of their start.

using namespace MavixTest;
using AccessType = IPCCache::AccessType;

namespace {

class Kill : public CacheFixture {};

std::uint64_t NanosecondsNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000ULL + static_cast<std::uint64_t>(now.tv_nsec);
}

// Too short for a timer.
void SpinFor(std::uint64_t nanoseconds) {
    const std::uint64_t end = NanosecondsNow() + nanoseconds;
    while (NanosecondsNow() < end) {
    }
}

[[noreturn]] void WriteUntilKilled(const std::string& cacheName, unsigned int seed, SharedCount& number,
                                   SharedCount& started) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::mt19937 random(seed);
    ++started;
    IPCCache cache(cacheName, AccessType::Write);
    for (;;) {
        WriteSomething(cache, random, ++number);
    }
}

// The long form, by hand: as many kills as the variable says, and the file has how many were done.
struct Campaign {
    Campaign() {
        if (const char* const wanted = std::getenv("MAVIX_CACHE_KILLS")) {
            count = static_cast<unsigned int>(std::strtoul(wanted, nullptr, 10));
        }
        if (const char* const path = std::getenv("MAVIX_CACHE_KILLS_DONE")) {
            file = path;
            std::ifstream(file) >> done;
        }
    }
    void Note(unsigned int kills) const {
        if (!file.empty()) {
            std::ofstream(file + ".new") << kills << '\n';
            std::rename((file + ".new").c_str(), file.c_str());
        }
    }

    unsigned int count = Scaled(20000);
    unsigned int done = 0;
    std::string file;
};

} // namespace

TEST_F(Kill, OfAWriterAtAnyMomentLeavesNoTornValueAndTheNextOneRecovers) {
    constexpr unsigned int checkEvery = 500;
    const Campaign campaign;
    SharedCount* const shared = NewSharedCounts(2);
    SharedCount& number = shared[0];
    SharedCount& started = shared[1];
    TCReaders readers(Name(), 8);
    std::mt19937 random(campaign.done + 1);
    unsigned int wiped = 0;
    for (unsigned int at = campaign.done; at < campaign.count && !HasFailure(); ++at) {
        // Some find nothing.
        if (at % 50 == 0) {
            unlink(ObjectPath().c_str());
        }
        const std::uint64_t before = started;
        const pid_t writer = fork();
        if (writer == 0) {
            WriteUntilKilled(Name(), at, number, started);
        }
        while (started == before) {
        }
        // Most of a start takes a tenth of a millisecond, most of a write a hundredth.
        SpinFor(random() % (at % 4 == 0 ? 1000000 : 150000));
        EXPECT_EQ(0, kill(writer, SIGKILL));
        EXPECT_EQ(-SIGKILL, WaitForEnd(writer));
        {
            IPCCache next(Name(), AccessType::Write);
            const std::string left = ReadObject();
            wiped += MavixApiLite::IsSoundSegment(left.data(), left.size()) ? 0U : 1U;
            ExpectWriterRecovers(next, ++number);
        }
        if (at % checkEvery == checkEvery - 1) {
            readers.ExpectWell();
            campaign.Note(at + 1);
        }
    }
    readers.ExpectWell();
    EXPECT_LT(0U, readers.ValuesRead());
    std::printf("%u kills, %u of them left a damaged segment; readers got %llu values in %llu writes\n",
                campaign.count - campaign.done, wiped, static_cast<unsigned long long>(readers.ValuesRead()),
                static_cast<unsigned long long>(number.load()));
}

namespace {

// A new object in the place of the old one. To change the old one's size would take the memory away under
// those who read it, and nobody but a writer does that.
void Replace(const std::string& path, off_t size) {
    unlink(path.c_str());
    const int object = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    EXPECT_EQ(0, ftruncate(object, size));
    close(object);
}

// What a writer that starts may find.
struct Start {
    const char* name;
    void (*prepare)(const std::string& objectPath);
};

const Start starts[] = {
    {"nothing", [](const std::string& path) { unlink(path.c_str()); }},
    {"an object without size", [](const std::string& path) { Replace(path, 0); }},
    {"an object of another size", [](const std::string& path) { Replace(path, 9000); }},
    {"zeros", [](const std::string& path) { Replace(path, 4096); }},
    {"a cache", [](const std::string&) {}},
};

} // namespace

TEST_F(Kill, OfAWriterAfterEachSystemCallOfItsStartIsMadeGoodByTheNext) {
    std::uint64_t number = 0;
    unsigned int kills = 0;
    for (const bool hasLockFile : {true, false}) {
        // Who has a lock file open that is gone shares no lock with the others.
        TCReaders readers(Name(), hasLockFile ? 8 : 0);
        for (const Start& start : starts) {
            bool isThrough = false;
            for (unsigned int calls = 1; !isThrough && !HasFailure(); ++calls) {
                {
                    IPCCache whole(Name(), AccessType::Write);
                    ExpectWriterRecovers(whole, ++number);
                }
                start.prepare(ObjectPath());
                if (!hasLockFile) {
                    unlink(LockPath().c_str());
                }
                TCTracedChild child([this] {
                    Mark();
                    const IPCCache cache(Name(), AccessType::Write);
                    Mark();
                });
                TCTracedChild::SystemCall call;
                bool hasBegun = false;
                for (unsigned int done = 0; done < calls && !isThrough;) {
                    ASSERT_TRUE(child.RunToSystemCall(call));
                    isThrough = hasBegun && IsMark(call);
                    ASSERT_TRUE(child.RunToItsEnd(call));
                    done += hasBegun ? 1U : 0U;
                    hasBegun = true;
                }
                child.Kill();
                kills += isThrough ? 0U : 1U;
                IPCCache next(Name(), AccessType::Write);
                ExpectWriterRecovers(next, ++number);
                EXPECT_FALSE(HasFailure())
                    << "start with " << start.name << ", after call " << calls << ", number " << call.number;
            }
        }
        readers.ExpectWell();
    }
    EXPECT_LT(100U, kills);
    std::printf("%u kills\n", kills);
}

TEST_F(Kill, OfAWriterThatOthersWaitForLetsThemIn) {
    for (unsigned int round = 0; round < Scaled(50) && !HasFailure(); ++round) {
        IPCCache cache(Name(), AccessType::Write);
        ExpectWriterRecovers(cache, round);
        const pid_t holder = fork();
        if (holder == 0) {
            RobustRWLock& lock = MavixApiLite::TestAccess::Lock(cache);
            // An open file of its own.
            lock.~RobustRWLock();
            new (&lock) RobustRWLock(Name());
            if (!lock.lock()) {
                _exit(1);
            }
            raise(SIGSTOP);
            _exit(2);
        }
        int status = 0;
        ASSERT_EQ(holder, waitpid(holder, &status, WUNTRACED));
        ASSERT_TRUE(WIFSTOPPED(status));
        pid_t waiting[4];
        for (pid_t& process : waiting) {
            process = fork();
            if (process == 0) {
                IPCCache own(Name(), &process == waiting ? AccessType::Write : AccessType::Read);
                _exit(Get(own, KeyName(0)) == MakeValue(0, round) ? 0 : 1);
            }
        }
        for (const pid_t process : waiting) {
            EXPECT_TRUE(WaitsForFileLock(process));
        }
        EXPECT_EQ(0, kill(holder, SIGKILL));
        EXPECT_EQ(-SIGKILL, WaitForEnd(holder));
        for (const pid_t process : waiting) {
            EXPECT_EQ(0, WaitForEnd(process));
        }
    }
}
