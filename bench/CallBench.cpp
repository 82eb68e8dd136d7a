#include "Numbers.h"
#include "Peer.h"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>

// Calls of every peer, one after the other, without an answer, and from many threads: by itself, and in turns
// with plain GDBus.

using namespace MavixBench;

namespace {

// Peers live as long as the program: an application connects once.
TIPeer& PeerOf(const std::string& name) {
    static auto* peers = new std::map<std::string, std::unique_ptr<TIPeer>>;
    auto& peer = (*peers)[name];
    if (!peer) {
        peer = CreatePeer(name);
        // The first call of a connection carries more than the later ones.
        peer->Call(std::vector<char>(64));
    }
    return *peer;
}

void Calls(benchmark::State& state, const std::string& name, std::size_t size) {
    TIPeer& peer = PeerOf(name);
    const std::vector<char> payload(size, 'x');
    std::vector<std::int64_t> times;
    times.reserve(1 << 20);
    std::int64_t before = NowNs();
    for ([[maybe_unused]] auto step : state) {
        peer.Call(payload);
        const std::int64_t after = NowNs();
        times.push_back(after - before);
        before = after;
    }
    AddPercentiles(state, times);
    state.SetItemsProcessed(state.iterations());
}

// Ends with a call that is answered: the service has then seen all of them.
void CallAsynchronously(TIPeer& peer, int count) {
    static const std::vector<char> payload(64, 'x');
    for (int at = 0; at < count; ++at) {
        peer.CallAsync(payload);
    }
    peer.Call(payload);
}

void AsynchronousCalls(benchmark::State& state, const std::string& name) {
    constexpr int callsOfRound = 1000;
    for ([[maybe_unused]] auto step : state) {
        CallAsynchronously(PeerOf(name), callsOfRound);
    }
    state.SetItemsProcessed(state.iterations() * callsOfRound);
}

void CallsOfThreads(benchmark::State& state, TIPeer& peer) {
    const std::vector<char> payload(64, 'x');
    for ([[maybe_unused]] auto step : state) {
        peer.Call(payload);
    }
    state.SetItemsProcessed(state.iterations());
}

// Threads that all do the same work, as often as they are asked to.
class TCTeam final {
public:
    TCTeam(int count, std::function<void(TIPeer&)> work) : m_work(std::move(work)) {
        for (int at = 0; at < count; ++at) {
            m_threads.emplace_back([this] { m_Run(); });
        }
    }

    ~TCTeam() {
        m_Begin(nullptr);
        std::for_each(m_threads.begin(), m_threads.end(), [](std::thread& thread) { thread.join(); });
    }

    TCTeam(const TCTeam&) = delete;
    TCTeam& operator=(const TCTeam&) = delete;

    void Work(TIPeer& peer) {
        m_Begin(&peer);
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_busy == 0; });
    }

private:
    void m_Begin(TIPeer* peer) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_peer = peer;
        m_busy = m_threads.size();
        ++m_turn;
        m_changed.notify_all();
    }

    void m_Run() {
        for (unsigned int turn = 1;; ++turn) {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [this, turn] { return m_turn == turn; });
            TIPeer* peer = m_peer;
            if (peer == nullptr) {
                return;
            }
            lock.unlock();
            m_work(*peer);
            lock.lock();
            if (--m_busy == 0) {
                m_changed.notify_all();
            }
        }
    }

    const std::function<void(TIPeer&)> m_work;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    TIPeer* m_peer = nullptr;
    std::size_t m_busy = 0;
    unsigned int m_turn = 0;
    std::vector<std::thread> m_threads;
};

void InTurns(benchmark::State& state, const std::string& name, const std::function<void(TIPeer&)>& work) {
    const auto turnOf = [&work](TIPeer& peer) {
        return [&work, &peer] { return CostOf([&work, &peer] { work(peer); }); };
    };
    TakeTurns(state, turnOf(PeerOf(name)), turnOf(PeerOf("gdbus")));
}

// A turn takes a few milliseconds, or as long as one call.
void CallsInTurns(benchmark::State& state, const std::string& name, std::size_t size) {
    constexpr std::size_t callsOfTurn = 16;
    constexpr std::size_t halvingSize = 64 * 1024;
    const std::size_t calls = std::max<std::size_t>(1, callsOfTurn * halvingSize / (halvingSize + size));
    const std::vector<char> payload(size, 'x');
    InTurns(state, name, [calls, &payload](TIPeer& peer) {
        for (std::size_t at = 0; at < calls; ++at) {
            peer.Call(payload);
        }
    });
}

void AsynchronousCallsInTurns(benchmark::State& state) {
    constexpr int callsOfTurn = 200;
    InTurns(state, "ours", [](TIPeer& peer) { CallAsynchronously(peer, callsOfTurn); });
}

void CallsOfThreadsInTurns(benchmark::State& state, int threads) {
    constexpr int callsOfTurn = 4;
    const std::vector<char> payload(64, 'x');
    TCTeam team(threads, [&payload](TIPeer& peer) {
        for (int at = 0; at < callsOfTurn; ++at) {
            peer.Call(payload);
        }
    });
    InTurns(state, "ours", [&team](TIPeer& peer) { team.Work(peer); });
}

constexpr std::size_t sizes[] = {0, 64, 1024, 16 * 1024, 64 * 1024, 1024 * 1024, 16 * 1024 * 1024};
constexpr std::size_t largeSize = 16 * 1024 * 1024;
constexpr const char* peers[] = {"ours", "gdbus", "ours-libdbus", "libdbus", "sdbus"};
constexpr const char* sharedPeers[] = {"ours", "gdbus"};
constexpr int threadCounts[] = {1, 8, 64};

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    for (const std::size_t size : sizes) {
        for (const char* peer : peers) {
            const std::string name = "call/" + std::to_string(size) + "/" + peer;
            benchmark::RegisterBenchmark(name.c_str(), Calls, peer, size)
                ->MeasureProcessCPUTime()
                ->UseRealTime()
                ->Unit(benchmark::kMicrosecond);
            if (peer != std::string("gdbus")) {
                benchmark::RegisterBenchmark(("turns-" + name).c_str(), CallsInTurns, peer, size)
                    ->Iterations(size < largeSize ? 40 : 4);
            }
        }
    }
    benchmark::RegisterBenchmark("turns-async/64/ours", AsynchronousCallsInTurns)->Iterations(20);
    for (const char* peer : sharedPeers) {
        benchmark::RegisterBenchmark((std::string("async/64/") + peer).c_str(), AsynchronousCalls, peer)
            ->MeasureProcessCPUTime()
            ->UseRealTime()
            ->Unit(benchmark::kMicrosecond);
    }
    for (const int threads : threadCounts) {
        benchmark::RegisterBenchmark(("turns-threads/" + std::to_string(threads) + "/ours").c_str(),
                                     CallsOfThreadsInTurns, threads)
            ->Iterations(20);
        for (const char* peer : sharedPeers) {
            const std::string name = "threads/" + std::to_string(threads) + "/" + peer;
            benchmark::RegisterBenchmark(
                name.c_str(), [peer](benchmark::State& state) { CallsOfThreads(state, PeerOf(peer)); })
                ->Threads(threads)
                ->MeasureProcessCPUTime()
                ->UseRealTime()
                ->Unit(benchmark::kMicrosecond);
        }
    }
    // Before there are threads.
    for (const char* peer : peers) {
        PeerOf(peer);
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
