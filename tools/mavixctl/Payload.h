#ifndef MAVIX_CONTROL_PAYLOAD_H
#define MAVIX_CONTROL_PAYLOAD_H

#include "Command.h"
#include "Output.h"

#include <mavix-api/MessageBuffer.h>

#include <string>
#include <string_view>
#include <vector>

namespace MavixControl {

// The largest payload of a call, in bytes.
constexpr std::size_t largestPayload = 16'777'216;

// The small language of values, in the layout of TCMessageBuffer: in machine byte order, one behind the
// other.
//   c: s: i: l:   a number of 8, 16, 32, 64 bits    PushChar, PushShort, PushInt, PushLongLong
//   str:          a text behind its length          PushInt, PushConcatenated
//   strz:         a text and its terminator         PushConcatenated
//   hex:          bytes                             PushConcatenated
//   @file  -      the bytes of a file, of standard input
// What is malformed is thrown as CLI::ValidationError with the name of the command's argument.
void AppendValue(MavixApiLite::TCMessageBuffer& payload, const std::string& argumentName,
                 const std::string& value);
MavixApiLite::TCMessageBuffer BuildPayload(const std::string& argumentName,
                                           const std::vector<std::string>& values);

// Valid until the buffer changes.
std::string_view BytesOf(const MavixApiLite::TCMessageBuffer& payload);

// Two digits a byte.
std::string HexText(std::string_view bytes);

// How a command shows payloads: as the values of --decode, in one line of digits with --hex, or as a dump.
class TCPayloadView final {
public:
    // Adds the options; the object outlives the command.
    void AddOptions(CLI::App& command);

    // Prints a payload for people, every line behind `indent`. False, and a complaint on standard error, when
    // it does not hold the values of --decode.
    bool Print(std::string_view payload, std::string_view indent = "") const;
    // The same as members of an object: size, payload and, with --decode, values and rest.
    bool AddTo(Json& object, std::string_view payload) const;

private:
    struct Field {
        std::string name;
        std::size_t size = 0; // of hex:N
    };
    struct Decoded {
        Json values = Json::array();
        std::string_view rest;
        std::string complaint;
    };

    static std::vector<Field> Parse(const std::string& text);
    Decoded Decode(std::string_view payload) const;

    std::vector<Field> m_fields;
    bool m_inHex = false;
};

} // namespace MavixControl

#endif
