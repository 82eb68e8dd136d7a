#ifndef MAVIX_CSHARP_MESSAGE_BUFFER_H
#define MAVIX_CSHARP_MESSAGE_BUFFER_H

/* Message buffers for those who cannot use the class: the managed binding, and C.
 *
 * A buffer is a flat run of values in the order in which they were appended, in machine byte order, without
 * alignment, tags or lengths; offsets are in bytes from its start. One thread at a time uses a buffer.
 *
 * Every function that gives a bool gives false where the class would stop the process or throw: for a null
 * buffer, for a value or a place that is not in the buffer, for null where bytes are needed, and when memory
 * runs out. Nothing has changed then, neither the buffer nor *out. */

#ifdef __cplusplus
namespace MavixApiLite {
class TCMessageBuffer;
}
typedef MavixApiLite::TCMessageBuffer MavixMessageBuffer;
#else
#include <stdbool.h>
typedef struct TCMessageBuffer MavixMessageBuffer;
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* A new, empty buffer, to be released with TCMessageBuffer_Destroy, which ignores null; null when memory runs
 * out. */
MavixMessageBuffer* TCMessageBuffer_Create(void);
void TCMessageBuffer_Destroy(MavixMessageBuffer* buffer);

/* Makes room for `count` bytes in all; the contents stay. */
bool TCMessageBuffer_Reserve(MavixMessageBuffer* buffer, unsigned int count);
/* Grows the buffer BY `count` zero bytes; never shrinks it. */
bool TCMessageBuffer_Resize(MavixMessageBuffer* buffer, unsigned int count);
/* Empties the payload. */
bool TCMessageBuffer_Clean(MavixMessageBuffer* buffer);

/* Append a value. PushConcatenated appends nothing when `size` is 0 or `data` is null, and PushBuffer all
 * bytes of `other`, which may be the buffer itself. */
bool TCMessageBuffer_PushChar(MavixMessageBuffer* buffer, char value);
bool TCMessageBuffer_PushShort(MavixMessageBuffer* buffer, short value);
bool TCMessageBuffer_PushInt(MavixMessageBuffer* buffer, int value);
bool TCMessageBuffer_PushLongLong(MavixMessageBuffer* buffer, long long value);
bool TCMessageBuffer_PushConcatenated(MavixMessageBuffer* buffer, unsigned long size, const void* data);
bool TCMessageBuffer_PushBuffer(MavixMessageBuffer* buffer, MavixMessageBuffer* other);

/* Copy the value at `offset` to *out; false when the buffer does not have it whole. */
bool TCMessageBuffer_ReadShort(MavixMessageBuffer* buffer, short* out, unsigned int offset);
bool TCMessageBuffer_ReadInt(MavixMessageBuffer* buffer, int* out, unsigned int offset);
bool TCMessageBuffer_ReadLongLong(MavixMessageBuffer* buffer, long long* out, unsigned int offset);
bool TCMessageBuffer_ReadConcatenated(MavixMessageBuffer* buffer, unsigned long size, void* out,
                                      unsigned int offset);

/* Insert a value at `offset` and move the rest up: existing bytes are never replaced. -1 is the end; false
 * for an offset past it, and for any other negative one. `data` does not lie in this buffer. */
bool TCMessageBuffer_WriteInt(MavixMessageBuffer* buffer, int value, int offset);
bool TCMessageBuffer_WriteLongLong(MavixMessageBuffer* buffer, long long value, int offset);
bool TCMessageBuffer_WriteConcatenated(MavixMessageBuffer* buffer, unsigned long size, void* data,
                                       int offset);

/* The payload's bytes, null when there are none, and their number. The bytes are valid until the buffer
 * changes. */
const void* TCMessageBuffer_Payload(MavixMessageBuffer* buffer);
unsigned long TCMessageBuffer_PayloadSize(MavixMessageBuffer* buffer);

/* The peer whose message the payload came in, and its application; empty when not known, null for a null
 * buffer. Valid until the text is set anew. */
const char* TCMessageBuffer_Sender(MavixMessageBuffer* buffer);
const char* TCMessageBuffer_SenderAppName(MavixMessageBuffer* buffer);

#ifdef __cplusplus
}
#endif

#endif
