#include "IPCConnection_C.h"
#include "PrivateBus.h"
#include "SimProcess.h"
#include "TestScale.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

// Many callers on the one client while the service dies and comes back.

using namespace MavixTest;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr unsigned int threadCount = 64;
constexpr const char* interfaceName = "com.norvale.ISimTest";
constexpr short echo = 0;

struct Identity {
    std::uint32_t thread;
    std::uint32_t number;
    std::uint64_t check;
};

struct Counters {
    std::atomic<std::uint64_t> succeeded{0};
    std::atomic<std::uint64_t> failed{0};
    std::atomic<std::uint64_t> wrong{0};
    std::atomic<bool> stop{false};
};

// Every payload says whose it is; a reply that says something else went to the wrong caller.
void CallUntilStopped(std::uint32_t thread, Counters& counters) {
    for (std::uint32_t number = 0; !counters.stop; ++number) {
        const Identity sent{thread, number, (std::uint64_t{thread} << 32U) ^ number ^ 0x5A5A5A5A5A5A5A5AULL};
        void* output = nullptr;
        unsigned int length = 0;
        if (IPCConnection__Call(interfaceName, echo, &sent, sizeof sent, &output, &length)) {
            const bool right = length == sizeof sent && std::memcmp(output, &sent, sizeof sent) == 0;
            ++(right ? counters.succeeded : counters.wrong);
        } else {
            ++counters.failed;
        }
        IPCConnection__CallDisposeOutputBuffer(output);
    }
}

} // namespace

TEST(Restart, Of64CallersNoneHangsOrGetsTheReplyOfAnother) {
    const TCPrivateBus bus;
    TCSimProcess service(bus, {"--respawn"});
    Counters counters;
    std::vector<std::thread> threads;
    for (std::uint32_t at = 0; at < threadCount; ++at) {
        threads.emplace_back(CallUntilStopped, at, std::ref(counters));
    }
    const auto end = steady_clock::now() + milliseconds(Scaled(10000));
    unsigned int restarts = 0;
    while (steady_clock::now() < end) {
        const std::uint64_t before = counters.succeeded;
        service.KillDaemon();
        ASSERT_TRUE(service.WaitReady());
        ++restarts;
        // The next kill comes when callers are through to the new service.
        while (counters.succeeded < before + 1000 && steady_clock::now() < end) {
            std::this_thread::yield();
        }
    }
    counters.stop = true;
    const auto stopped = steady_clock::now();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_LT(steady_clock::now() - stopped, std::chrono::seconds(30));
    EXPECT_EQ(0U, counters.wrong);
    EXPECT_GT(counters.succeeded, 0U);
    EXPECT_GT(restarts, 0U);
    RecordProperty("calls", std::to_string(counters.succeeded));
    std::printf("%llu calls answered, %llu failed, %u restarts\n",
                static_cast<unsigned long long>(counters.succeeded.load()),
                static_cast<unsigned long long>(counters.failed.load()), restarts);
}
