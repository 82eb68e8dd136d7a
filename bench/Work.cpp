#include "CachePeer.h"
#include "Peer.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

// A bounded piece of work in a fresh process, for what is measured from outside or only once:
//     bench-work call PEER SIZE COUNT     calls the service
//     bench-work async PEER SIZE COUNT    calls without an answer, and at the end with one
//     bench-work read PEER SIZE COUNT     reads from a cache
//     bench-work memory PEER SIZE         calls; prints KiB: resident before, after one and after four calls,
//     peak bench-work idle PEER SECONDS        calls once; prints how often its threads woke up then

using namespace MavixBench;

namespace {

long StatusField(const std::string& path, const std::string& field) {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        if (line.compare(0, field.size(), field) == 0) {
            return std::atol(line.c_str() + field.size() + 1);
        }
    }
    return 0;
}

long WakeUps() {
    long sum = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        sum += StatusField(task.path() / "status", "voluntary_ctxt_switches");
    }
    return sum;
}

void Call(const std::string& peerName, std::size_t size, long count) {
    const auto peer = CreatePeer(peerName);
    const std::vector<char> payload(size, 'x');
    for (long at = 0; at < count; ++at) {
        peer->Call(payload);
    }
}

void CallAsync(const std::string& peerName, std::size_t size, long count) {
    const auto peer = CreatePeer(peerName);
    const std::vector<char> payload(size, 'x');
    for (long at = 0; at < count; ++at) {
        peer->CallAsync(payload);
    }
    peer->Call(payload);
}

void Read(const std::string& peerName, std::size_t size, long count) {
    const TCCacheFiles files;
    OpenCache(peerName, size, true)->Write(std::vector<char>(size, 'v'));
    const auto reader = OpenCache(peerName, size, false);
    std::vector<char> value(size);
    for (long at = 0; at < count; ++at) {
        if (!reader->Read(value)) {
            Fail("there is no value");
        }
    }
}

void Memory(const std::string& peerName, std::size_t size) {
    const auto peer = CreatePeer(peerName);
    peer->Call(std::vector<char>(64));
    std::printf("%ld", StatusField("/proc/self/status", "VmRSS"));
    for (const int calls : {1, 3}) {
        for (int at = 0; at < calls; ++at) {
            peer->Call(std::vector<char>(size, 'x'));
        }
        // What the bus library's worker still frees.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        std::printf(" %ld", StatusField("/proc/self/status", "VmRSS"));
    }
    std::printf(" %ld\n", StatusField("/proc/self/status", "VmHWM"));
}

void Idle(const std::string& peerName, long seconds) {
    const auto peer = CreatePeer(peerName);
    peer->Call(std::vector<char>(64));
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const long before = WakeUps();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    // This thread's own two sleeps are not the peer's.
    std::printf("%ld\n", WakeUps() - before - 1);
}

int Run(const std::vector<std::string>& arguments) {
    const std::string& work = arguments.at(0);
    const std::string& peer = arguments.at(1);
    const long number = std::stol(arguments.at(2));
    if (work == "call") {
        Call(peer, static_cast<std::size_t>(number), std::stol(arguments.at(3)));
    } else if (work == "async") {
        CallAsync(peer, static_cast<std::size_t>(number), std::stol(arguments.at(3)));
    } else if (work == "read") {
        Read(peer, static_cast<std::size_t>(number), std::stol(arguments.at(3)));
    } else if (work == "memory") {
        Memory(peer, static_cast<std::size_t>(number));
    } else if (work == "idle") {
        Idle(peer, number);
    } else {
        Fail("no such work: " + work);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return Run({argv + 1, argv + argc});
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench-work: %s\n", error.what());
        return 1;
    }
}
