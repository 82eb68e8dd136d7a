#include "Commands.h"
#include "Output.h"
#include "Service.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace MavixControl {

namespace {

struct RouteOptions {
    std::string interfaceName;
    std::int16_t code = 0;
};

void Print(const RouteOptions& options, bool hasCode, bool asJson) {
    const MavixApiLite::IpcConfigurationMavix configuration = ServiceConfiguration();
    const auto waits = configuration.InterfaceBusNameList(options.interfaceName);
    const std::string process = configuration.GetServiceProcessName(options.interfaceName);
    const std::string bus = configuration.MethodBusName(options.interfaceName, options.code);
    const bool isStamped = configuration.StartCallTimestamp(options.interfaceName, options.code);
    if (asJson) {
        Json route{{"interface", options.interfaceName}};
        if (hasCode)
            route.update({{"code", options.code}, {"bus", bus}, {"timestamp", isStamped}});
        route.update({{"waitsFor", waits}, {"process", process}});
        PrintJson(route);
        return;
    }
    PrintLine(fmt::format("interface  {}", Paint(EColour::Name, options.interfaceName)));
    if (hasCode) {
        PrintLine(fmt::format("code       {}", options.code));
        PrintLine(fmt::format("bus name   {}", bus));
        PrintLine(fmt::format("timestamp  {}", isStamped ? "sent with each call" : "none"));
    }
    PrintLine(fmt::format("waits for  {}", fmt::join(waits, ", ")));
    PrintLine(fmt::format("process    {}", process));
}

} // namespace

void AddRouteCommand(CLI::App& application, TSSettings& settings, int& /*exitCode*/) {
    CLI::App* command =
        AddCommand(application, settings, "route", "Where calls of an interface go; needs no bus",
                   "mavixctl route com.norvale.IAVControl 66");
    const auto options = std::make_shared<RouteOptions>();
    AddInterface(*command, options->interfaceName);
    const CLI::Option* code = AddCode(*command, options->code);
    command->callback([options, code, &settings] { Print(*options, code->count() > 0, settings.json); });
}

} // namespace MavixControl
