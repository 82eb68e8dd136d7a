#ifndef MAVIX_IPC_TYPES_H
#define MAVIX_IPC_TYPES_H

/* Types of the connection API, for C and C++. */

#ifdef __cplusplus
#include <cstdint>
#define MAVIX_ENUM_32 : std::int32_t
#else
#include <stdint.h>
#define MAVIX_ENUM_32
#endif

/* The types of the service's events. IPC_MESSAGE_MAX is their number and no type. */
typedef enum EIPCMessageType MAVIX_ENUM_32 {
    IPC_MESSAGE_SIGNAL = 0,
    IPC_MESSAGE_PIPELINE_EVENT = 1,
    IPC_MESSAGE_DATA = 2,
    IPC_MESSAGE_PROGRAM = 3,
    IPC_MESSAGE_SECTION = 4,
    IPC_MESSAGE_TEXTDATA = 5,
    IPC_MESSAGE_DSM = 6,
    IPC_MESSAGE_COPY_PROTECTION = 7,
    IPC_MESSAGE_PESDATA = 8,
    IPC_MESSAGE_EXPESDATA = 9,
    IPC_MESSAGE_HT = 10,
    IPC_MESSAGE_ATSC3_SIGNALLING = 11,
    IPC_MESSAGE_ATSC3_MPD = 12,
    IPC_MESSAGE_ATSC3_LINKAGE = 13,
    IPC_MESSAGE_MAX = 14
} EIPCMessageType;

/* The enumeration travels as 32 bits. */
typedef char MavixMessageTypeIs32Bits[sizeof(EIPCMessageType) == 4 ? 1 : -1];

/* Receives an event: its id and `length` bytes of payload, which are valid during the call only; null when
 * there are none. Called on the thread that runs the default GLib main context, one event at a time. What a
 * callback in C++ throws is logged and goes no further. */
typedef void (*MavixEventCallback)(int id, const char* data, int length);

#ifdef __cplusplus
namespace MavixApiLite {

// What an event is about. Both parts go into one word of a match rule: (high << 16) | low, unmasked.
struct MAVIXHandle {
    std::uint32_t high;
    std::uint32_t low;
};

} // namespace MavixApiLite
#endif

#undef MAVIX_ENUM_32

#endif
