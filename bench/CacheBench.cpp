#include "CachePeer.h"
#include "Numbers.h"

#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

// Values of shared memory: this library's cache, its floor (two lock calls and a copy) and LMDB, alone and
// beside other readers. The processes that read beside the measured one are of the same kind as it.

using namespace MavixBench;

namespace {

// Other processes that read the same value without end, for as long as this object lives.
class TCCrowd final {
public:
    TCCrowd(const std::string& peer, std::size_t size, int count) {
        for (int at = 0; at < count; ++at) {
            const pid_t child = fork();
            if (child == 0) {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                const auto reader = OpenCache(peer, size, false);
                std::vector<char> value(size);
                while (true) {
                    reader->Read(value);
                }
            }
            m_children.push_back(child);
        }
    }
    ~TCCrowd() {
        for (const pid_t child : m_children) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }
    TCCrowd(const TCCrowd&) = delete;
    TCCrowd& operator=(const TCCrowd&) = delete;

private:
    std::vector<pid_t> m_children;
};

void Read(benchmark::State& state, const std::string& peer, std::size_t size, int readers) {
    OpenCache(peer, size, true)->Write(std::vector<char>(size, 'v'));
    const TCCrowd crowd(peer, size, readers - 1);
    const auto reader = OpenCache(peer, size, false);
    std::vector<char> value(size);
    for ([[maybe_unused]] auto step : state) {
        if (!reader->Read(value)) {
            state.SkipWithError("there is no value");
            break;
        }
        benchmark::DoNotOptimize(value.data());
    }
    state.SetItemsProcessed(state.iterations());
}

void Write(benchmark::State& state, const std::string& peer, std::size_t size) {
    const auto writer = OpenCache(peer, size, true);
    const std::vector<char> value(size, 'v');
    for ([[maybe_unused]] auto step : state) {
        writer->Write(value);
    }
    std::vector<char> stored(size);
    if (!writer->Read(stored) || stored != value) {
        state.SkipWithError("the value was not written");
    }
    state.SetItemsProcessed(state.iterations());
}

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    const TCCacheFiles files;
    for (const char* peer : {"ours", "floor", "lmdb"}) {
        for (const std::size_t size : {64U, 1024U}) {
            const std::string place = std::to_string(size) + "/" + peer;
            benchmark::RegisterBenchmark(("read-1/" + place).c_str(), Read, peer, size, 1);
            benchmark::RegisterBenchmark(("read-8/" + place).c_str(), Read, peer, size, 8)->UseRealTime();
            benchmark::RegisterBenchmark(("write/" + place).c_str(), Write, peer, size);
        }
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
