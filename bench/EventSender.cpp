#include "Events.h"

#include "sim/Handles.h"

#include <cstring>
#include <ctime>
#include <string>
#include <vector>

// Sends events as the service does, as fast as the bus takes them or at a rate:
//     bench-events ID COUNT SIZE RATE
// Each carries the time at which it was sent.

using namespace MavixBench;

namespace {

void SendOne(sd_bus* bus, const std::string& id, std::vector<char>& payload) {
    sd_bus_message* made = nullptr;
    MavixSim::Check(sd_bus_message_new_signal(bus, &made, eventObject, eventInterface, eventMember), "event");
    const MavixSim::MessageHandle message(made);
    MavixSim::Check(sd_bus_message_append(made, "ss", id.c_str(), "0"), "id");
    const std::int64_t now = NowNs();
    std::memcpy(payload.data(), &now, sizeof now);
    MavixSim::Check(sd_bus_message_append_array(made, 'y', payload.data(), payload.size()), "payload");
    MavixSim::Check(sd_bus_send(bus, made, nullptr), "send");
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        return 2;
    }
    const std::string id = argv[1];
    const long count = std::stol(argv[2]);
    std::vector<char> payload(std::stoul(argv[3]), 'x');
    const long rate = std::stol(argv[4]);

    sd_bus* opened = nullptr;
    MavixSim::Check(sd_bus_open_system(&opened), "connect");
    const MavixSim::BusHandle bus(opened);
    const auto start = Clock::now();
    for (long at = 0; at < count; ++at) {
        SendOne(bus.get(), id, payload);
        if (rate > 0) {
            MavixSim::Check(sd_bus_flush(bus.get()), "flush");
            const auto next =
                (start + (at + 1) * std::chrono::nanoseconds(1000000000 / rate)).time_since_epoch();
            const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(next);
            const timespec until = {seconds.count(), (next - seconds).count()};
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
        } else if (at % 64 == 63) {
            MavixSim::Check(sd_bus_flush(bus.get()), "flush");
        }
    }
    MavixSim::Check(sd_bus_flush(bus.get()), "flush");
    return 0;
}
