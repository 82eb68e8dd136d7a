#ifndef MAVIX_SIM_SCENARIO_VALUES_H
#define MAVIX_SIM_SCENARIO_VALUES_H

#include <cstdint>
#include <string>
#include <vector>

namespace MavixSim {

// Appends one typed value as calls, replies and events carry it: "c:", "s:", "i:" and "l:" with a whole
// number of 1, 2, 4 and 8 bytes in machine byte order, "str:" with a text, behind its length of 4 bytes,
// "strz:" with a text and its terminator, "hex:" with bytes, which blanks or colons may part. Throws
// std::invalid_argument, saying what was expected.
void AppendValue(std::vector<std::uint8_t>& bytes, const std::string& value);

} // namespace MavixSim

#endif
