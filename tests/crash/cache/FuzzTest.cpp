#include "CacheFixture.h"
#include "TestScale.h"
#include "Workload.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

// Pages that no writer of ours would leave: no signal, no call that takes long.

using namespace MavixTest;
using AccessType = IPCCache::AccessType;

namespace {

constexpr unsigned int pages = 1000000;
constexpr unsigned int workers = 2;
constexpr std::uint64_t mostMicroseconds = 100000 * MAVIX_TEST_SCALE_DIVISOR;

class Fuzz : public CacheFixture {};

std::uint64_t ProcessorMicroseconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1000000U +
           static_cast<std::uint64_t>(time.tv_nsec) / 1000U;
}

// Pages to begin with: empty, with some values, full, and after an interrupted write.
std::vector<std::string> Seeds(const std::string& name, const std::function<std::string()>& readObject) {
    std::vector<std::string> seeds;
    IPCCache cache(name, AccessType::Write);
    seeds.push_back(readObject());
    std::mt19937 random(1);
    for (std::uint64_t number = 1; number < 400; ++number) {
        WriteSomething(cache, random, number);
        if (number % 20 == 0) {
            seeds.push_back(readObject());
        }
    }
    return seeds;
}

using Page = std::vector<char>;

// As many numbers as one wants from any seed, at once: each page has a seed of its own, by which it is found
// again.
class Numbers {
public:
    explicit Numbers(std::uint64_t seed) : m_state(seed) {}
    std::uint64_t operator()() {
        m_state += 0x9E3779B97F4A7C15ULL;
        std::uint64_t mixed = (m_state ^ (m_state >> 30U)) * 0xBF58476D1CE4E5B9ULL;
        mixed = (mixed ^ (mixed >> 27U)) * 0x94D049BB133111EBULL;
        return mixed ^ (mixed >> 31U);
    }

private:
    std::uint64_t m_state;
};

// Numbers that mean something in a page: offsets, sizes, relative pointers, limits.
std::uint64_t Interesting(Numbers& random) {
    const std::uint64_t small = random() % 4200;
    switch (random() % 8) {
    case 0:
        return 0;
    case 1:
        return 1;
    case 2:
        return small;
    case 3:
        return ~small + 1;
    case 4:
        return small / 8 * 8;
    case 5:
        return (~(small / 8 * 8) + 1) | 2U;
    case 6:
        return 1ULL << (random() % 64);
    default:
        return random();
    }
}

void PutWord(Page& page, std::size_t offset, std::uint64_t word) {
    std::memcpy(page.data() + offset, &word, sizeof word);
}

void Mutate(Page& page, Numbers& random) {
    // Most of what a page means stands at its beginning.
    const std::size_t most = random() % 2 == 0 ? 512 : page.size() - 8;
    for (std::uint64_t count = 1 + random() % 4; count > 0; --count) {
        const std::size_t at = random() % most;
        const std::size_t length = std::min<std::size_t>(random() % 600, page.size() - at);
        switch (random() % 6) {
        case 0:
            page[at] = static_cast<char>(page[at] ^ (1 << random() % 8));
            break;
        case 1:
            page[at] = static_cast<char>(random());
            break;
        case 2:
            PutWord(page, at / 8 * 8, Interesting(random));
            break;
        case 3:
            PutWord(page, at / 8 * 8, Interesting(random));
            PutWord(page, random() % most / 8 * 8, Interesting(random));
            break;
        case 4: {
            std::uint64_t word = 0;
            std::memcpy(&word, page.data() + at / 8 * 8, sizeof word);
            PutWord(page, at / 8 * 8, word + (random() % 2 == 0 ? 8 : ~std::uint64_t{7}));
            break;
        }
        default:
            std::fill_n(page.begin() + static_cast<std::ptrdiff_t>(at), length,
                        static_cast<char>(random() % 3 - 1));
        }
    }
}

Page MakePage(const std::vector<std::string>& seeds, Numbers& random) {
    const std::string& seed = seeds[random() % seeds.size()];
    Page page(seed.begin(), seed.end());
    const std::uint64_t kind = random() % 16;
    if (kind == 0) {
        for (std::size_t at = 0; at < page.size(); at += 8) {
            PutWord(page, at, random());
        }
    } else if (kind == 1) {
        // Random behind a header that looks right.
        for (std::size_t at = 120; at < page.size(); at += 8) {
            PutWord(page, at, Interesting(random));
        }
    } else if (kind == 2) {
        // Torn: the tail is another page's.
        const std::string& other = seeds[random() % seeds.size()];
        const std::size_t at = random() % page.size();
        std::copy(other.begin() + static_cast<std::ptrdiff_t>(at), other.end(),
                  page.begin() + static_cast<std::ptrdiff_t>(at));
    } else {
        Mutate(page, random);
    }
    return page;
}

// What a worker has come to, for the one who looks at its end.
struct Progress {
    SharedCount page;
    SharedCount call;
    SharedCount slowest;
};

class Worker {
public:
    Worker(std::string name, std::string path, Progress& progress)
        : m_name(std::move(name)), m_object(open(path.c_str(), O_RDWR | O_CLOEXEC)), m_progress(progress),
          m_reader(m_name, AccessType::Read), m_writer(m_name, AccessType::Write) {}
    ~Worker() { close(m_object); }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // One page through caches that are open already, or through new ones.
    bool Take(const Page& page, std::uint64_t number) {
        m_progress.page = number;
        m_progress.call = 0;
        Put(page);
        Time([&] { m_reader.getData(KeyName(4), m_bytes, sizeof m_bytes); });
        Time([&] { m_reader.getData("missing", m_bytes, sizeof m_bytes); });
        if (number % 2 == 0) {
            Time([&] { Write(m_writer, number); });
            return HasRecovered(m_writer, number);
        }
        std::unique_ptr<IPCCache> cache;
        Time([&] { cache = std::make_unique<IPCCache>(m_name, AccessType::Read); });
        Time([&] { cache->getData(KeyName(7), m_bytes, sizeof m_bytes); });
        Time([&] { cache = std::make_unique<IPCCache>(m_name, AccessType::Write); });
        Time([&] { cache->getData(KeyName(7), m_bytes, sizeof m_bytes); });
        Time([&] { Write(*cache, number); });
        return HasRecovered(*cache, number);
    }

private:
    void Put(const Page& page) const {
        static_cast<void>(pwrite(m_object, page.data(), page.size(), 0) == 0);
    }

    template <class Call>
    void Time(const Call& call) {
        ++m_progress.call;
        const std::uint64_t before = ProcessorMicroseconds();
        call();
        const std::uint64_t spent = ProcessorMicroseconds() - before;
        if (spent > m_progress.slowest) {
            m_progress.slowest = spent;
        }
    }

    static void Write(IPCCache& cache, std::uint64_t number) {
        if (number % 3 == 0) {
            cache.resetData(KeyName(static_cast<unsigned int>(number / 3 % workKeys)));
        } else {
            const std::string value = MakeValue(5, number);
            cache.setData(KeyName(5), value.data(), value.size());
        }
    }

    // After one write, or a second one if there was no room, the cache works.
    bool HasRecovered(IPCCache& cache, std::uint64_t number) {
        const std::string value = MakeValue(0, number);
        std::string read(value.size(), '\0');
        for (int attempt = 0; attempt < 2; ++attempt) {
            cache.resetData(KeyName(0));
            cache.setData(KeyName(0), value.data(), value.size());
        }
        return cache.getData(KeyName(0), read.data(), read.size()) && read == value;
    }

    std::string m_name;
    int m_object;
    Progress& m_progress;
    IPCCache m_reader;
    IPCCache m_writer;
    char m_bytes[64] = {};
};

} // namespace

TEST_F(Fuzz, OfAMillionPagesNoneCrashesOrHoldsUpReaderOrWriter) {
    auto* const progress =
        reinterpret_cast<Progress*>(NewSharedCounts(workers * sizeof(Progress) / sizeof(SharedCount)));
    pid_t processes[workers];
    for (unsigned int worker = 0; worker < workers; ++worker) {
        processes[worker] = fork();
        if (processes[worker] == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            const std::string name = Name() + "-" + std::to_string(worker);
            const std::string path = "/dev/shm/" + name;
            const std::vector<std::string> seeds = Seeds(name, [&path] {
                std::string bytes(cachePageSize, '\0');
                const int object = open(path.c_str(), O_RDONLY | O_CLOEXEC);
                static_cast<void>(pread(object, bytes.data(), bytes.size(), 0) == 0);
                close(object);
                return bytes;
            });
            Worker work(name, path, progress[worker]);
            for (std::uint64_t number = worker; number < Scaled(pages); number += workers) {
                Numbers random(number);
                if (!work.Take(MakePage(seeds, random), number)) {
                    _exit(1);
                }
            }
            _exit(0);
        }
    }
    for (unsigned int worker = 0; worker < workers; ++worker) {
        EXPECT_EQ(0, WaitForEnd(processes[worker]))
            << "page " << progress[worker].page << ", call " << progress[worker].call;
        EXPECT_GE(mostMicroseconds, progress[worker].slowest);
        std::printf("slowest call: %llu us\n",
                    static_cast<unsigned long long>(progress[worker].slowest.load()));
    }
}
