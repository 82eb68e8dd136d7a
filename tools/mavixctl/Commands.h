#ifndef MAVIX_CONTROL_COMMANDS_H
#define MAVIX_CONTROL_COMMANDS_H

#include "Command.h"

// Every command, in the order of the help.
namespace MavixControl {

void AddCallCommand(CLI::App& application, TSSettings& settings, int& exitCode);
void AddListenCommand(CLI::App& application, TSSettings& settings, int& exitCode);
void AddMonitorCommand(CLI::App& application, TSSettings& settings, int& exitCode);
void AddOwnersCommand(CLI::App& application, TSSettings& settings, int& exitCode);
void AddRouteCommand(CLI::App& application, TSSettings& settings, int& exitCode);
void AddBenchCommand(CLI::App& application, TSSettings& settings, int& exitCode);
void AddSessionCommand(CLI::App& application, TSSettings& settings, int& exitCode);
void AddCacheCommand(CLI::App& application, TSSettings& settings, int& exitCode);
void AddDoctorCommand(CLI::App& application, TSSettings& settings, int& exitCode);
void AddCompletionCommand(CLI::App& application, TSSettings& settings, int& exitCode);

} // namespace MavixControl

#endif
