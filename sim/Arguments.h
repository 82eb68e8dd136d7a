#ifndef MAVIX_SIM_ARGUMENTS_H
#define MAVIX_SIM_ARGUMENTS_H

#include "CallDecoder.h"
#include "Handles.h"

#include <cstdint>
#include <string>
#include <utility>

namespace MavixSim {

// Of a text that the bus library hands out, which may be none.
inline std::string Text(const char* text) {
    return text != nullptr ? text : "";
}

// Reads the arguments of one message in their order. Throws Refusal when the next one is of another type, or
// a text that cannot be read.
class TCArguments final {
public:
    explicit TCArguments(sd_bus_message* message) : m_message(message) {}

    // The type of the next argument as in a signature; empty at the end.
    std::string NextType() const {
        char type = 0;
        const char* contents = nullptr;
        if (Check(sd_bus_message_peek_type(m_message, &type, &contents), "peek") == 0)
            return "";
        switch (type) {
        case SD_BUS_TYPE_ARRAY:
            return "a" + Text(contents);
        case SD_BUS_TYPE_STRUCT:
            return "(" + Text(contents) + ")";
        default:
            return std::string(1, type);
        }
    }

    bool AtEnd() const { return NextType().empty(); }

    // Passes over one argument, whatever it is.
    void Skip(const char* what) {
        if (Check(sd_bus_message_skip(m_message, nullptr), "skip an argument") == 0)
            throw Refusal(std::string(what) + ": absent");
    }

    std::uint8_t TakeByte(const char* what) {
        m_Expect("y", what);
        std::uint8_t value = 0;
        Check(sd_bus_message_read_basic(m_message, 'y', &value), "read a byte");
        return value;
    }

    std::int32_t TakeInt(const char* what) {
        m_Expect("i", what);
        std::int32_t value = 0;
        Check(sd_bus_message_read_basic(m_message, 'i', &value), "read an int32");
        return value;
    }

    std::string TakeString(const char* what) {
        m_Expect("s", what);
        const char* value = nullptr;
        // Buses pass on texts, such as one with U+FFFE, that the bus library does not hand out.
        if (sd_bus_message_read_basic(m_message, 's', &value) < 0)
            throw Refusal(std::string(what) + ": a text that cannot be read");
        return value;
    }

    std::pair<const std::uint8_t*, std::size_t> TakeBytes(const char* what) {
        m_Expect("ay", what);
        const void* bytes = nullptr;
        std::size_t size = 0;
        Check(sd_bus_message_read_array(m_message, 'y', &bytes, &size), "read bytes");
        return {static_cast<const std::uint8_t*>(bytes), size};
    }

private:
    void m_Expect(const std::string& type, const char* what) const {
        const std::string found = NextType();
        if (found != type)
            throw Refusal(std::string(what) + ": expected type '" + type + "', found " +
                          (found.empty() ? "the end" : "'" + found + "'"));
    }

    sd_bus_message* m_message;
};

} // namespace MavixSim

#endif
