#include "BusLink.h"
#include "Commands.h"
#include "Output.h"
#include "PeerCache.h"
#include "ServiceOwner.h"

#include <ctime>
#include <fmt/chrono.h>
#include <fmt/format.h>

namespace MavixControl {

namespace {

std::string Age(std::int64_t seconds) {
    constexpr std::int64_t minute = 60;
    constexpr std::int64_t hour = 60 * minute;
    constexpr std::int64_t day = 24 * hour;
    if (seconds >= day)
        return fmt::format("{} d {} h", seconds / day, seconds % day / hour);
    if (seconds >= hour)
        return fmt::format("{} h {} min", seconds / hour, seconds % hour / minute);
    if (seconds >= minute)
        return fmt::format("{} min {} s", seconds / minute, seconds % minute);
    return fmt::format("{} s", seconds);
}

void PrintText(const TSServiceOwner& owner) {
    if (owner.uniqueName.empty()) {
        PrintLine(fmt::format("{:<34} {}", owner.name, Paint(EColour::Bad, "no owner")));
        return;
    }
    std::string line = fmt::format("{:<34} {:<8} {}[{}]", owner.name, owner.uniqueName,
                                   Printable(owner.process.name), owner.process.pid);
    if (!owner.process.unit.empty())
        line += fmt::format(" ({})", Printable(owner.process.unit));
    if (owner.since)
        line += fmt::format(" since {:%F %T}, {}", fmt::localtime(*owner.since),
                            Age(std::time(nullptr) - *owner.since));
    PrintLine(line);
}

void PrintObject(const TSServiceOwner& owner) {
    Json object{{"name", owner.name}};
    if (owner.uniqueName.empty()) {
        object.update({{"owner", nullptr}});
    } else {
        const TSProcess& process = owner.process;
        object.update({{"owner", owner.uniqueName},
                       {"pid", process.pid},
                       {"process", process.name.empty() ? Json(nullptr) : Json(process.name)},
                       {"unit", process.unit.empty() ? Json(nullptr) : Json(process.unit)},
                       {"user", owner.user}});
        object["since"] =
            owner.since ? Json(fmt::format("{:%FT%TZ}", fmt::gmtime(*owner.since))) : Json(nullptr);
    }
    PrintJson(object);
}

int Run(bool asJson) {
    const TCBusLink link;
    const MavixSim::BusHandle bus = OpenSystemBus();
    int exitCode = Done;
    for (const std::string& name : ServiceNames()) {
        const TSServiceOwner owner = FindOwner(bus.get(), name);
        if (asJson)
            PrintObject(owner);
        else
            PrintText(owner);
        if (owner.uniqueName.empty())
            exitCode = NoService;
    }
    return exitCode;
}

} // namespace

void AddOwnersCommand(CLI::App& application, TSSettings& settings, int& exitCode) {
    CLI::App* command =
        AddCommand(application, settings, "owners", "Who owns the service's bus names, and since when",
                   "mavixctl owners --json");
    command->callback([&settings, &exitCode] { exitCode = Run(settings.json); });
}

} // namespace MavixControl
