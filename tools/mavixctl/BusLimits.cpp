#include "BusLimits.h"

#include "PeerCache.h"

#include <string>
#include <vector>

namespace MavixControl {

using MavixSim::BusHandle;
using MavixSim::Check;

namespace {

struct Answers {
    std::size_t refused = 0;
    std::size_t forbidden = 0;
};

int OnAnswer(sd_bus_message* answer, void* answers, sd_bus_error*) {
    auto& counted = *static_cast<Answers*>(answers);
    if (sd_bus_message_is_method_error(answer, SD_BUS_ERROR_LIMITS_EXCEEDED) > 0)
        ++counted.refused;
    else if (sd_bus_message_is_method_error(answer, SD_BUS_ERROR_ACCESS_DENIED) > 0)
        ++counted.forbidden;
    return 0;
}

// Returns when the bus has handled all that was sent before. What it refused has been answered then, as it is
// at once.
void AwaitBus(sd_bus* bus) {
    Check(sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                             "GetId", nullptr, nullptr, nullptr),
          "ask the bus");
    while (Check(sd_bus_process(bus, nullptr), "take answers") > 0) {
    }
}

} // namespace

TSBusLimit FindMatchRuleLimit() {
    const BusHandle bus = OpenSystemBus();
    for (std::size_t i = 0; i < mostTried; ++i) {
        const std::string rule =
            "type='signal',interface='com.norvale.Mavix.Doctor',member='M" + std::to_string(i) + "'";
        sd_bus_error error = SD_BUS_ERROR_NULL;
        const int result =
            sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                               "org.freedesktop.DBus", "AddMatch", &error, nullptr, "s", rule.c_str());
        const bool isLimit = sd_bus_error_has_name(&error, SD_BUS_ERROR_LIMITS_EXCEEDED) > 0;
        sd_bus_error_free(&error);
        if (isLimit)
            return {i, false};
        Check(result, "add a match rule");
    }
    return {};
}

TSBusLimit FindPendingReplyLimit() {
    const BusHandle silent = OpenSystemBus();
    const BusHandle bus = OpenSystemBus();
    const char* silentName = nullptr;
    Check(sd_bus_get_unique_name(silent.get(), &silentName), "ask for a name");
    // A system bus passes on calls to names of the service and its clients only.
    std::string name = "com.norvale.Mavix.Signal.mavix" + std::string(silentName + 1);
    name.insert(name.rfind('.') + 1, "mavix");
    if (sd_bus_request_name(silent.get(), name.c_str(), 0) < 0)
        name = silentName;
    Answers answers;
    std::vector<MavixSim::SlotHandle> slots;
    for (std::size_t i = 0; i < mostTried; ++i) {
        sd_bus_slot* slot = nullptr;
        Check(sd_bus_call_method_async(bus.get(), &slot, name.c_str(), "/com/norvale/Mavix/Doctor",
                                       "com.norvale.Mavix.Doctor", "Wait", OnAnswer, &answers, nullptr),
              "send a call");
        slots.emplace_back(slot);
        if (i % 64 == 63) {
            AwaitBus(bus.get());
            if (answers.forbidden > 0)
                return {std::nullopt, true};
            if (answers.refused > 0)
                return {i + 1 - answers.refused, false};
        }
    }
    return {};
}

} // namespace MavixControl
