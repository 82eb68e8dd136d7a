#include "Scenario.h"

#include "Roles.h"

#include <algorithm>

namespace MavixSim {

bool Condition::Holds(const Call& call) const {
    const std::uint8_t* payload = call.payload;
    const std::size_t size = call.payloadSize;
    const auto startsWith = [payload, size](const Bytes& bytes) {
        return bytes.size() <= size && std::equal(bytes.begin(), bytes.end(), payload);
    };
    if (size < leastSize || size > largestSize || mask.size() > size)
        return false;
    if (equals && (equals->size() != size || !startsWith(*equals)))
        return false;
    if (prefix && !startsWith(*prefix))
        return false;
    for (std::size_t at = 0; at < mask.size(); ++at)
        if (((payload[at] ^ value[at]) & mask[at]) != 0)
            return false;
    return true;
}

bool Selection::IsOf(const Call& call) const {
    // These two have a behaviour of their own, so they are only meant when named.
    const bool special = call.interface == sessionInterface || call.interface == testInterface;
    const bool sameInterface = interface == "*" ? !special : interface == call.interface;
    return sameInterface && (!code || (call.header && *code == call.Code()));
}

} // namespace MavixSim
