#ifndef MAVIX_TRAFFIC_BODY_H
#define MAVIX_TRAFFIC_BODY_H

#include "sim/Handles.h"

#include <nlohmann/json.hpp>
#include <string>

namespace MavixTraffic {

// The arguments of a message of any signature as JSON: an array with one value an argument. Numbers, truth
// values and texts are what they are in JSON, a double is the number of its bits, an array of bytes is a text
// of hexadecimal digits, other arrays are arrays, structures and dictionary entries too, and a variant is an
// object of `signature` and `value`. Written back with the same signature, they make the same bytes. Throws
// std::invalid_argument for a descriptor, and for a text that the bus library does not hand out.
nlohmann::json ReadBody(sd_bus_message* message);

// Appends such arguments. Throws std::invalid_argument when they do not fit the signature, which names the
// argument.
void AppendBody(sd_bus_message* message, const std::string& signature, const nlohmann::json& arguments);

// Throws what appending would throw, without a message.
void CheckBody(const std::string& signature, const nlohmann::json& arguments);

} // namespace MavixTraffic

#endif
