#include "Numbers.h"
#include "Peer.h"

#include <map>
#include <string>

// Calls of every peer: one after the other, without an answer, and from many threads.

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

// A round ends with a call that is answered: the service has then seen all of it.
void AsynchronousCalls(benchmark::State& state, const std::string& name) {
    constexpr int callsOfRound = 1000;
    TIPeer& peer = PeerOf(name);
    const std::vector<char> payload(64, 'x');
    for ([[maybe_unused]] auto step : state) {
        for (int at = 0; at < callsOfRound; ++at) {
            peer.CallAsync(payload);
        }
        peer.Call(payload);
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

constexpr std::size_t sizes[] = {0, 64, 1024, 16 * 1024, 64 * 1024, 1024 * 1024, 16 * 1024 * 1024};
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
        }
    }
    for (const char* peer : sharedPeers) {
        benchmark::RegisterBenchmark((std::string("async/64/") + peer).c_str(), AsynchronousCalls, peer)
            ->MeasureProcessCPUTime()
            ->UseRealTime()
            ->Unit(benchmark::kMicrosecond);
    }
    for (const int threads : threadCounts) {
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
