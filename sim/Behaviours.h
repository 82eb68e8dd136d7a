#ifndef MAVIX_SIM_BEHAVIOURS_H
#define MAVIX_SIM_BEHAVIOURS_H

#include <array>
#include <cstdint>

namespace MavixSim {

// The interface whose function codes are behaviours. It is routed to the service's default bus name.
inline constexpr const char* testInterface = "com.norvale.ISimTest";

// What the service can do with a call. The parameter is the call's payload; numbers are int32, texts have no
// terminator, variants are one byte; what is missing takes the default.
enum class Behaviour : std::int16_t {
    Echo = 0,         // answers with the payload
    Delay = 1,        // milliseconds (0); then echo
    Error = 2,        // "name\ntext"; a D-Bus error ("com.norvale.Error.Refused", "Refused on request.")
    BrokenByte = 3,   // variant (0); reply byte with bit 0 clear: 0 alone, 1 with an auxiliary block
    Aux = 4,          // variant (0); echo with an auxiliary block: see AuxVariant
    AuxAbsent = 5,    // echo that announces an auxiliary block and has none
    Never = 6,        // no answer
    WrongTypes = 7,   // variant (0); arguments of wrong types: see WrongTypesVariant
    DropName = 8,     // milliseconds (0); echo, then gives the addressed name up for that time
    Exit = 9,         // exit code (0); ends the process without an answer
    BigReply = 10,    // bytes (0); a payload of that size, byte n being n modulo 256
    LengthLies = 11,  // echo with a length argument that is 1000 too large
    EmptyReturn = 12, // a method return without arguments
    ErrorNoText = 13, // a D-Bus error without arguments
    ErrorIntText = 14 // a D-Bus error whose first argument is an int32
};

inline constexpr std::int16_t behaviourCount = 15;

// Auxiliary blocks of Behaviour::Aux. The reply byte announces what the block is meant to hold.
enum class AuxVariant : std::uint8_t {
    Both = 0,
    ReceivedOnly = 1,
    SentOnly = 2,
    EmptyValue = 3, // a record of length 0 after a good one
    Truncated = 4,  // the last record is cut
    UnknownTag = 5, // a record of tag 64 before the good ones
    ShortValue = 6, // a timestamp of 4 bytes
    WrongType = 7   // a text in the place of the block
};

// Bodies of Behaviour::WrongTypes, as D-Bus signatures.
enum class WrongTypesVariant : std::uint8_t {
    TextForByte = 0,      // s i ay
    IntForByte = 1,       // i i ay
    ByteOnly = 2,         // y
    NoPayload = 3,        // y i
    TextPayload = 4,      // y i s
    TextsPayload = 5,     // y i as
    IntsPayload = 6,      // y i ai
    VariantPayload = 7,   // y i v
    PayloadForLength = 8, // y ay
    TextForLength = 9,    // y s ay, which clients that skip the length accept
    MoreArguments = 10    // y i ay s
};

} // namespace MavixSim

#endif
