#ifndef MAVIX_TEST_CACHE_WORKLOAD_H
#define MAVIX_TEST_CACHE_WORKLOAD_H

#include "IPCCache.h"

#include <atomic>
#include <cstdint>
#include <random>
#include <string>
#include <sys/types.h>
#include <vector>

namespace MavixTest {

// A value that shows whether it is whole: which key it belongs to, which write it is of, its bytes made of
// these, and a checksum.
std::string MakeValue(unsigned int key, std::uint64_t number);
bool IsWhole(unsigned int key, const std::string& value);

constexpr unsigned int workKeys = 12;
std::string KeyName(unsigned int key);

// One random write: mostly a value, sometimes a reset, now and then one for which there is no room.
void WriteSomething(IPCCache& cache, std::mt19937& random, std::uint64_t number);

// A number that the processes of a test share.
using SharedCount = std::atomic<std::uint64_t>;
SharedCount* NewSharedCounts(unsigned int count);

// Reader processes that look every value up over and over, and are killed at the end. Each counts what it
// read.
class TCReaders final {
public:
    TCReaders(const std::string& cacheName, unsigned int count);
    ~TCReaders();
    TCReaders(const TCReaders&) = delete;
    TCReaders& operator=(const TCReaders&) = delete;

    // Expects that all live, none has seen a torn value, and each comes through another round.
    void ExpectWell();
    std::uint64_t ValuesRead() const;

private:
    struct Counts {
        SharedCount rounds;
        SharedCount values;
        SharedCount torn;
    };
    [[noreturn]] static void m_Read(const std::string& cacheName, Counts& counts);

    std::vector<pid_t> m_processes;
    Counts* m_counts;
};

// Expects that a writer that comes now writes and reads, within the time of a test that does not hang.
void ExpectWriterRecovers(IPCCache& writer, std::uint64_t number);

} // namespace MavixTest

#endif
