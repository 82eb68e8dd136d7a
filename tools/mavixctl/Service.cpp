#include "Service.h"

#include "Numbers.h"

namespace MavixControl {

std::optional<int> FindEventType(const std::string& text) {
    for (std::size_t number = 0; number < eventNames.size(); ++number)
        if (text == eventNames[number])
            return static_cast<int>(number);
    const auto number = MavixTraffic::ParseNumber(text, 0, static_cast<std::int64_t>(eventNames.size()) - 1);
    return number ? std::optional<int>(static_cast<int>(*number)) : std::nullopt;
}

} // namespace MavixControl
