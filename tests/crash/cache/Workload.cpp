#include "Workload.h"

#include "Await.h"
#include "CSharp_IPCConnection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <memory>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace MavixTest {

namespace {

struct Head {
    std::uint64_t number;
    std::uint64_t checksum;
    std::uint32_t key;
    std::uint32_t size;
};

std::uint64_t Checksum(const std::string& bytes) {
    std::uint64_t sum = 14695981039346656037ULL;
    for (const char byte : bytes) {
        sum = (sum ^ static_cast<unsigned char>(byte)) * 1099511628211ULL;
    }
    return sum;
}

std::string WithChecksum(Head head, const std::string& bytes) {
    std::string value(sizeof head, '\0');
    head.checksum = 0;
    std::memcpy(value.data(), &head, sizeof head);
    value += bytes;
    head.checksum = Checksum(value);
    std::memcpy(value.data(), &head, sizeof head);
    return value;
}

// A key's values have one length, so that they replace each other.
std::size_t TailOf(unsigned int key) {
    return 1 + key * 17U;
}

void* SharedMemory(std::size_t size) {
    return mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
}

} // namespace

std::string KeyName(unsigned int key) {
    // Some are longer than the name of the guard and stand behind it.
    return std::string(key % 3 * 7, 'k') + std::to_string(key);
}

std::string MakeValue(unsigned int key, std::uint64_t number) {
    std::string bytes(TailOf(key), '\0');
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        bytes[at] = static_cast<char>(number + key + at * 31U);
    }
    return WithChecksum(Head{number, 0, key, static_cast<std::uint32_t>(bytes.size())}, bytes);
}

bool IsWhole(unsigned int key, const std::string& value) {
    Head head{};
    if (value.size() != sizeof head + TailOf(key)) {
        return false;
    }
    std::memcpy(&head, value.data(), sizeof head);
    return head.key == key && value == MakeValue(key, head.number);
}

void WriteSomething(IPCCache& cache, std::mt19937& random, std::uint64_t number) {
    const unsigned int key = static_cast<unsigned int>(random() % workKeys);
    const auto choice = random() % 16;
    if (choice < 4) {
        cache.resetData(KeyName(key));
    } else if (choice == 4) {
        const std::string large(4000, 'x');
        cache.setData("too large", large.data(), large.size());
    } else {
        const std::string value = MakeValue(key, number);
        cache.setData(KeyName(key), value.data(), value.size());
    }
}

SharedCount* NewSharedCounts(unsigned int count) {
    return static_cast<SharedCount*>(SharedMemory(count * sizeof(SharedCount)));
}

TCReaders::TCReaders(const std::string& cacheName, unsigned int count)
    : m_counts(static_cast<Counts*>(SharedMemory(std::max(count, 1U) * sizeof(Counts)))) {
    for (unsigned int at = 0; at < count; ++at) {
        const pid_t process = fork();
        if (process == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            m_Read(cacheName, m_counts[at]);
        }
        m_processes.push_back(process);
    }
}

TCReaders::~TCReaders() {
    for (const pid_t process : m_processes) {
        kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
    }
    munmap(m_counts, std::max<std::size_t>(m_processes.size(), 1) * sizeof *m_counts);
}

void TCReaders::m_Read(const std::string& cacheName, Counts& counts) {
    constexpr unsigned int roundsOfOneCache = 8;
    std::unique_ptr<IPCCache> cache;
    std::mt19937 random(static_cast<unsigned int>(getpid()));
    for (;;) {
        // Now and then anew: a test may have replaced the object.
        if (counts.rounds % roundsOfOneCache == 0) {
            cache = std::make_unique<IPCCache>(cacheName, IPCCache::AccessType::Read);
        }
        for (unsigned int key = 0; key < workKeys; ++key) {
            char* bytes = nullptr;
            unsigned long size = 0;
            if (cache->getDataNew(KeyName(key), &bytes, &size)) {
                ++(IsWhole(key, std::string(bytes, size)) ? counts.values : counts.torn);
                TCFreeMemory(bytes);
            }
        }
        ++counts.rounds;
        // The lock prefers readers: if they never paused, no writer would come in.
        usleep(static_cast<useconds_t>(1000 + random() % 4000));
    }
}

void TCReaders::ExpectWell() {
    for (std::size_t at = 0; at < m_processes.size(); ++at) {
        Counts& counts = m_counts[at];
        const std::uint64_t before = counts.rounds;
        EXPECT_TRUE(Await([&] { return counts.rounds > before; })) << "reader " << at << " is stuck";
        int status = 0;
        EXPECT_EQ(0, waitpid(m_processes[at], &status, WNOHANG)) << "reader " << at << " ended: " << status;
        EXPECT_EQ(0U, counts.torn) << "reader " << at;
    }
}

std::uint64_t TCReaders::ValuesRead() const {
    std::uint64_t sum = 0;
    for (std::size_t at = 0; at < m_processes.size(); ++at) {
        sum += m_counts[at].values;
    }
    return sum;
}

void ExpectWriterRecovers(IPCCache& writer, std::uint64_t number) {
    const std::string value = MakeValue(0, number);
    std::string read(value.size(), '\0');
    // A length that is left from another write would be kept.
    writer.resetData(KeyName(0));
    writer.setData(KeyName(0), value.data(), value.size());
    EXPECT_TRUE(writer.getData(KeyName(0), read.data(), read.size())) << "write " << number;
    EXPECT_EQ(value, read) << "write " << number;
}

} // namespace MavixTest
