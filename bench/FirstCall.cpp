#include "Peer.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

// Connects, calls once and ends: at once, or with "close" after all that ends a connection. One program for
// each peer, linked with what that peer needs.

using namespace MavixBench;

int main(int argc, char** /*argv*/) {
    try {
        const std::unique_ptr<TIPeer> peer = MAVIX_BENCH_CREATE();
        peer->Call(std::vector<char>(64));
        if (argc == 1) {
            std::_Exit(0);
        }
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
