#ifndef MAVIX_SIM_ARGUMENT_READER_H
#define MAVIX_SIM_ARGUMENT_READER_H

#include "Handles.h"

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

namespace MavixSim {

// Reads the arguments of a control call, whose types the bus library has already checked.
class TCArgumentReader final {
public:
    explicit TCArgumentReader(sd_bus_message* message) : m_message(message) {}

    std::string Text() {
        const char* text = nullptr;
        Check(sd_bus_message_read_basic(m_message, 's', &text), "read a text");
        return text;
    }

    template <class Integer>
    Integer Number() {
        Integer value = 0;
        Check(sd_bus_message_read_basic(m_message, m_TypeOf<Integer>(), &value), "read a number");
        return value;
    }

    std::vector<std::uint8_t> Bytes() {
        const void* bytes = nullptr;
        std::size_t size = 0;
        Check(sd_bus_message_read_array(m_message, 'y', &bytes, &size), "read bytes");
        const auto* first = static_cast<const std::uint8_t*>(bytes);
        return {first, first + size};
    }

private:
    template <class Integer>
    static constexpr char m_TypeOf() {
        if constexpr (std::is_same_v<Integer, std::int16_t>)
            return 'n';
        else if constexpr (std::is_same_v<Integer, std::int32_t>)
            return 'i';
        else if constexpr (std::is_same_v<Integer, std::uint32_t>)
            return 'u';
        else
            return 't';
    }

    sd_bus_message* m_message;
};

} // namespace MavixSim

#endif
