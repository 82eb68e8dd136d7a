#ifndef MAVIX_MESSAGE_BUFFER_H
#define MAVIX_MESSAGE_BUFFER_H

#include "Export.h"

#include <cstddef>
#include <string>
#include <vector>

namespace MavixApiLite {

class TCFlatCallBuffers;

// The arguments of a call, the result of a call or the payload of an event: a flat run of values in the order
// in which they were appended, in machine byte order, without alignment, tags or lengths. The reader knows
// the layout and reads by byte offset. A buffer has no lock: one thread at a time uses it.
//
// Every Push* and Write* returns true; growing throws std::length_error or std::bad_alloc. An offset is in
// bytes from the start. A violated precondition is an assertion: it stops the process unless the device is a
// release build.
class MAVIX_API_EXPORT TCMessageBuffer {
public:
    TCMessageBuffer();
    ~TCMessageBuffer();
    TCMessageBuffer(const TCMessageBuffer&) = default;
    TCMessageBuffer& operator=(const TCMessageBuffer&) = default;

    // Makes room for `count` bytes in all, so that appending up to there allocates nothing. The contents
    // stay.
    void Reserve(unsigned int count);
    // Grows the buffer BY `count` zero bytes; never shrinks it.
    void Resize(unsigned int count);
    // Empties the payload; the storage and the sender texts are kept.
    void Clean();

    bool PushChar(char value);
    bool PushShort(short value);
    bool PushInt(int value);
    bool PushLongLong(long long value);
    // Appends a copy of `size` bytes; nothing when `size` is 0 or `data` is null.
    bool PushConcatenated(unsigned long size, const void* data);
    // Appends all bytes of `other`, which is not null and may be this buffer.
    bool PushBuffer(TCMessageBuffer* other);

    // Copy a value from `offset` to *out. Beyond the end: assertion; on a release build *out is left as it
    // was.
    void ReadShort(short* out, unsigned int offset);
    void ReadInt(int* out, unsigned int offset);
    void ReadLongLong(long long* out, unsigned int offset);
    void ReadConcatenated(unsigned long sizeOfData, void* out, unsigned int offset);
    // Copies `size` bytes from `offset` to `out`; copies nothing, silently, when the range is not in the
    // buffer.
    void CopyData(void* out, unsigned int size, unsigned int offset);
    // The bytes from `offset` on, valid until the buffer changes size; null when `offset` is at or past the
    // end.
    const char* GetAsCStr(unsigned int offset) const;
    // The same; an `offset` at or past the end stops the process on every build.
    const void* GetAsVoidFromOffset(unsigned int offset) const;

    // Insert at `offset` and move the rest up: existing bytes are never replaced. -1 is the end. An offset
    // past the end is an assertion, and on a release build stops the process all the same, as does any other
    // negative one. `data` is not null unless `size` is 0, and does not lie in this buffer.
    bool WriteInt(int value, int offset);
    bool WriteLongLong(long long value, int offset);
    bool WriteConcatenated(unsigned long size, void* data, int offset);

    // The peer whose message the payload came in. Null is an assertion; on a release build nothing changes.
    void SetSender(const char* pSender);
    void SetSenderAppName(const char* pSender);
    // What SetSender and SetSenderAppName stored; empty by default.
    const std::string& Sender() const { return m_sender; }
    const std::string& SenderAppName() const { return m_senderAppName; }

    // The payload's length in bytes; its first byte is GetAsCStr(0).
    std::size_t PayloadSize() const {
        return m_bufferData.size() - static_cast<std::size_t>(m_nonPayloadSize);
    }

    // Writes every byte as a decimal number to standard output.
    void Print();

private:
    friend struct TestAccess;
    friend class TCFlatCallBuffers;

    void m_RequireRoomFor(std::size_t width) const;
    void m_PushBytes(const void* value, std::size_t width);
    void m_InsertBytes(const void* value, std::size_t width, std::size_t position);
    std::size_t m_InsertPosition(int offset) const;

    std::vector<char> m_bufferData;
    unsigned long long m_nonPayloadSize;
    unsigned long long m_reserved;
    std::string m_sender;
    std::string m_senderAppName;
};

} // namespace MavixApiLite

#endif
