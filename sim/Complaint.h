#ifndef MAVIX_SIM_COMPLAINT_H
#define MAVIX_SIM_COMPLAINT_H

#include <string>

namespace MavixSim {

// One line on standard error, with the process's name in front.
void Complain(const std::string& text);

} // namespace MavixSim

#endif
