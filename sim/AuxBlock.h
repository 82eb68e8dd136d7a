#ifndef MAVIX_SIM_AUX_BLOCK_H
#define MAVIX_SIM_AUX_BLOCK_H

#include "Call.h"

#include <vector>

namespace MavixSim {

// Decodes a request's auxiliary block: records of tag, length and value, each a timestamp, in ascending order
// of their tags. Throws Refusal at the first deviation.
void DecodeAuxBlock(const std::uint8_t* bytes, std::size_t size, Call& call);

// Appends one record to a reply's block; a `value` of another length than 8 makes a malformed timestamp.
void AppendAuxRecord(std::vector<std::uint8_t>& block, std::uint32_t tag,
                     const std::vector<std::uint8_t>& value);
void AppendAuxTimestamp(std::vector<std::uint8_t>& block, std::uint32_t tag, std::uint64_t milliseconds);

} // namespace MavixSim

#endif
