#ifndef MAVIX_CONTROL_MANUAL_H
#define MAVIX_CONTROL_MANUAL_H

#include <CLI/CLI.hpp>

namespace MavixControl {

// The hidden option that prints the manual page, made from the same tree as the help.
void AddManual(CLI::App& application);

} // namespace MavixControl

#endif
