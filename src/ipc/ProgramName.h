#ifndef MAVIX_PROGRAM_NAME_H
#define MAVIX_PROGRAM_NAME_H

#include <string>

namespace MavixApiLite {

// The program's short name as it can travel over the bus: bytes that are not UTF-8 are replaced. Taken once
// per process and never destroyed.
const std::string& ProgramName();

} // namespace MavixApiLite

#endif
