#include "BusLink.h"

#include "Command.h"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <poll.h>
#include <thread>

namespace MavixControl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t answerLimitUs = 5'000'000;
constexpr std::chrono::milliseconds ownerPause{20};

std::string BusAddress() {
    const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return address != nullptr ? address : "unix:path=/run/dbus/system_bus_socket";
}

[[noreturn]] void Fail(int result) {
    throw TCFailure(NoService, fmt::format("no bus at {}: {}", BusAddress(), std::strerror(-result)));
}

[[noreturn]] void FailWithoutOwner(const std::string& name) {
    throw TCFailure(NoService, fmt::format("{} has no owner: the service does not run", name));
}

Clock::time_point After(double seconds) {
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

} // namespace

TCBusLink::TCBusLink() {
    sd_bus* bus = nullptr;
    const int result = sd_bus_open_system(&bus);
    m_bus.reset(bus);
    if (result < 0)
        Fail(result);
    sd_bus_set_method_call_timeout(bus, answerLimitUs);
    // The greeting of the bus: whoever accepts connections need not be one.
    const char* name = nullptr;
    const int greeted = sd_bus_get_unique_name(bus, &name);
    if (greeted < 0)
        Fail(greeted);
}

bool TCBusLink::HasOwner(const std::string& name) const {
    sd_bus_message* answer = nullptr;
    int result =
        sd_bus_call_method(m_bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "NameHasOwner", nullptr, &answer, "s", name.c_str());
    int hasOwner = 0;
    if (result >= 0)
        result = sd_bus_message_read(answer, "b", &hasOwner);
    sd_bus_message_unref(answer);
    if (result < 0)
        Fail(result);
    return hasOwner != 0;
}

void TCBusLink::RequireOwner(const std::string& name, double waitSeconds) const {
    const Clock::time_point end = After(waitSeconds);
    while (!HasOwner(name)) {
        if (Clock::now() >= end)
            FailWithoutOwner(name);
        std::this_thread::sleep_for(ownerPause);
    }
}

void TCBusLink::RequireStill(const std::string& name) const {
    bool hasOwner = false;
    try {
        hasOwner = HasOwner(name);
    } catch (const TCFailure&) {
        throw TCFailure(NoService, busHasGone);
    }
    if (!hasOwner)
        FailWithoutOwner(name);
}

int TCBusLink::Descriptor() const {
    return sd_bus_get_fd(m_bus.get());
}

bool TCBusLink::IsAlive() const {
    int result = 0;
    do
        result = sd_bus_process(m_bus.get(), nullptr);
    while (result > 0);
    return result == 0;
}

bool TCBusLink::Wait(double seconds) const {
    const Clock::time_point end = After(std::max(seconds, 0.0));
    while (IsAlive()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (seconds >= 0 && left <= 0)
            return true;
        pollfd wanted{Descriptor(), POLLIN, 0};
        constexpr long longest = 1'000'000;
        const int limit = seconds < 0 ? -1 : static_cast<int>(std::min<long>(left, longest));
        if (::poll(&wanted, 1, limit) < 0 && errno == EINTR)
            return true;
    }
    return false;
}

} // namespace MavixControl
