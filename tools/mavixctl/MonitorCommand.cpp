#include "Commands.h"
#include "Monitor.h"

#include <limits>

namespace MavixControl {

void AddMonitorCommand(CLI::App& application, TSSettings& settings, int& exitCode) {
    CLI::App* command = AddCommand(
        application, settings, "monitor", "Print all traffic of the service, calls paired with their replies",
        "mavixctl monitor --interface com.norvale.IAVControl --record tour.rec --count 100");
    const auto options = std::make_shared<TSMonitorOptions>();
    options->filter.AddOptions(*command);
    command
        ->add_option("--record", options->recordPath, "Write it to a file that mavix-sandbox --replay plays")
        ->type_name("FILE");
    command->add_flag("--full", options->wholePayloads, "Show all of each payload, not its first 64 bytes");
    command
        ->add_option("--reply-limit", options->replySeconds,
                     "Take a call without a reply for unanswered then (30)")
        ->type_name("SECONDS")
        ->check(Seconds());
    command->add_option("--count", options->count, "End after so many messages")
        ->type_name("N")
        ->transform(Number(1, std::numeric_limits<std::int64_t>::max()));
    command
        ->add_option("--timeout", options->timeoutSeconds,
                     "End after this time; with --count it is then a failure")
        ->type_name("SECONDS")
        ->check(Seconds());
    command->callback([options, &settings, &exitCode] { exitCode = TCMonitor(settings, *options).Run(); });
}

} // namespace MavixControl
