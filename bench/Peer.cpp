#include "Peer.h"

#include <stdexcept>

namespace MavixBench {

TIPeer::~TIPeer() = default;

void TIPeer::CallAsync(const std::vector<char>& /*payload*/) {
    Fail("this peer has no asynchronous call");
}

std::unique_ptr<TIPeer> CreatePeer(const std::string& name) {
    if (name == "ours") {
        return CreateOurs();
    }
    if (name == "ours-libdbus") {
        return CreateOursOverLibdbus();
    }
    if (name == "gdbus") {
        return CreateGdbus();
    }
    if (name == "libdbus") {
        return CreateLibdbus();
    }
    if (name == "sdbus") {
        return CreateSdbus();
    }
    Fail("no such peer: " + name);
}

void Fail(const std::string& what) {
    throw std::runtime_error(what);
}

void ExpectSize(std::size_t expected, std::size_t actual) {
    if (actual != expected) {
        Fail("an answer of " + std::to_string(actual) + " bytes instead of " + std::to_string(expected));
    }
}

} // namespace MavixBench
