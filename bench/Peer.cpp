#include "Peer.h"

#include <cstring>
#include <stdexcept>

namespace MavixBench {

TIPeer::~TIPeer() = default;

void TIPeer::CallAsync(const std::vector<char>& /*payload*/) {
    Fail("this peer has no asynchronous call");
}

void Fail(const std::string& what) {
    throw std::runtime_error(what);
}

void ExpectSize(std::size_t expected, std::size_t actual) {
    if (actual != expected) {
        Fail("an answer of " + std::to_string(actual) + " bytes instead of " + std::to_string(expected));
    }
}

void TakeAnswer(std::size_t expected, const void* data, std::size_t size) {
    ExpectSize(expected, size);
    const std::unique_ptr<char[]> own(new char[size]);
    if (size != 0) {
        std::memcpy(own.get(), data, size);
    }
    // So that the copy is made.
    asm volatile("" : : "r"(own.get()) : "memory");
}

} // namespace MavixBench
