#include "SpareDescriptor.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <vector>

namespace MavixApiLite {

namespace {

// One more than a descriptor, so that the places are empty when the process starts.
using Place = std::atomic<int>;
constexpr int none = -1;
// GIO's worker, the main loops, the connection, and what the connect opens meanwhile.
constexpr std::size_t forConnecting = 10;

// All are handles of one file, since to duplicate is much cheaper than to open.
Place s_base;
std::array<Place, 16> s_spares;

int Take(Place& place) {
    return place.exchange(0) - 1;
}

bool Keep(Place& place, int descriptor) {
    int expected = 0;
    return place.load() == 0 && place.compare_exchange_strong(expected, descriptor + 1);
}

void Close(int descriptor) {
    if (descriptor != none) {
        close(descriptor);
    }
}

int Duplicate() {
    if (s_base == 0) {
        const int opened = eventfd(0, EFD_CLOEXEC);
        if (opened != none && !Keep(s_base, opened)) {
            close(opened);
        }
    }
    const int base = s_base - 1;
    return base != none ? fcntl(base, F_DUPFD_CLOEXEC, 0) : none;
}

int TakeSpare() {
    for (Place& place : s_spares) {
        if (place.load() != 0) {
            const int spare = Take(place);
            if (spare != none) {
                return spare;
            }
        }
    }
    return none;
}

void KeepSpare() {
    const int spare = Duplicate();
    if (spare != none && std::none_of(s_spares.begin(), s_spares.end(),
                                      [spare](Place& place) { return Keep(place, spare); })) {
        close(spare);
    }
}

bool AreFree(std::size_t count) {
    std::vector<int> opened(count);
    std::generate(opened.begin(), opened.end(), Duplicate);
    const bool enough = std::find(opened.begin(), opened.end(), none) == opened.end();
    std::for_each(opened.begin(), opened.end(), Close);
    return enough;
}

} // namespace

TCDescriptorLender::TCDescriptorLender() {
    int lent = TakeSpare();
    m_isSpare = lent != none;
    if (!m_isSpare) {
        lent = Duplicate();
    }
    m_hasLent = lent != none;
    Close(lent);
}

TCDescriptorLender::~TCDescriptorLender() {
    if (m_isSpare) {
        KeepSpare();
    }
}

bool AreDescriptorsLeftToConnect() {
    return AreFree(forConnecting);
}

bool CanConnectWithDescriptors() {
    // The default context, and some for the application.
    constexpr std::size_t forClient = 4;
    const auto missing = static_cast<std::size_t>(
        std::count_if(s_spares.begin(), s_spares.end(), [](const Place& place) { return place == 0; }));
    const bool enough = AreFree(forConnecting + (missing != 0 ? missing + forClient : 0));
    for (std::size_t at = 0; enough && at < missing; ++at) {
        KeepSpare();
    }
    return enough;
}

} // namespace MavixApiLite
