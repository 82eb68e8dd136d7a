#include "HostBusAddress.h"
#include "HostSupport.h"

#include <algorithm>
#include <chrono>
#include <poll.h>
#include <sys/inotify.h>

namespace MavixPlatformHost {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// What no file event tells is looked at again after this time: a socket that begins to listen, a folder made.
constexpr milliseconds LookAgain(100);

// Wakes up when one of some files appears. Owner and thread: one call of LwipcWaitEvent. A file whose folder
// cannot be watched is simply not reported.
class TCAppearance final {
public:
    void Watch(std::string_view file) {
        const std::size_t slash = file.rfind('/');
        const bool hasFolder = slash != std::string_view::npos;
        const std::string folder(hasFolder ? file.substr(0, std::max<std::size_t>(slash, 1)) : ".");
        const int watch =
            ::inotify_add_watch(m_events.Get(), folder.c_str(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
        if (watch >= 0) {
            m_watched.push_back({watch, std::string(hasFolder ? file.substr(slash + 1) : file)});
        }
    }

    // Returns when a watched file may have appeared, or at `until`.
    void WaitUntil(Clock::time_point until) {
        for (;;) {
            const auto left = std::chrono::ceil<milliseconds>(until - Clock::now());
            if (left.count() <= 0) {
                return;
            }
            pollfd events{m_events.Get(), POLLIN, 0};
            if (::poll(&events, 1, static_cast<int>(left.count())) > 0 && m_ReadEvents()) {
                return;
            }
        }
    }

private:
    struct Watched {
        int watch;
        std::string name;
    };

    // True if one of the events is about a watched file, or if some were lost.
    bool m_ReadEvents() {
        alignas(inotify_event) char buffer[4096];
        const ssize_t length = ::read(m_events.Get(), buffer, sizeof(buffer));
        bool isOurs = false;
        for (ssize_t at = 0; at < length;) {
            const auto* event = static_cast<const inotify_event*>(static_cast<const void*>(buffer + at));
            isOurs = isOurs || (event->mask & IN_Q_OVERFLOW) != 0 || m_IsWatched(*event);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
        return isOurs;
    }

    bool m_IsWatched(const inotify_event& event) const {
        return event.len > 0 &&
               std::any_of(m_watched.begin(), m_watched.end(), [&event](const Watched& each) {
                   return each.watch == event.wd && each.name == event.name;
               });
    }

    const TCDescriptor m_events{::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)};
    std::vector<Watched> m_watched;
};

bool IsReady(const char* path, const std::vector<TCBusAddress>& bus) {
    return ::access(path, F_OK) == 0 ||
           std::any_of(bus.begin(), bus.end(), [](const TCBusAddress& address) { return address.Accepts(); });
}

int WaitReady(const char* path, milliseconds timeLimit) {
    const Clock::time_point limit = Clock::now() + timeLimit;
    const std::vector<TCBusAddress> bus = SystemBusAddresses();
    if (IsReady(path, bus)) {
        return 0;
    }
    TCAppearance appearance;
    appearance.Watch(path);
    for (const TCBusAddress& address : bus) {
        if (!address.Path().empty()) {
            appearance.Watch(address.Path());
        }
    }
    // Whatever appeared before it was watched is seen by the first look in the loop.
    while (!IsReady(path, bus)) {
        const Clock::time_point now = Clock::now();
        if (now >= limit) {
            return -ETIMEDOUT;
        }
        appearance.WaitUntil(std::min(limit, now + LookAgain));
    }
    return 0;
}

} // namespace

} // namespace MavixPlatformHost

int LwipcWaitEvent(const char* path, int timeoutMs) {
    using namespace MavixPlatformHost;
    if (path == nullptr || *path == '\0' || timeoutMs < 0) {
        return -EINVAL;
    }
    return Guarded([path, timeoutMs] { return WaitReady(path, milliseconds(timeoutMs)); });
}
