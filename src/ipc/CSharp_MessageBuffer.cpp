#include "CSharp_MessageBuffer.h"

#include "Export.h"
#include "Guard.h"
#include "MessageBuffer.h"

#include <climits>
#include <cstddef>
#include <cstring>

namespace {

using MavixApiLite::TCMessageBuffer;

constexpr int atTheEnd = -1;

// The result of `body`, which is not asked for a null buffer; false after an exception.
template <class Body>
bool Change(const char* function, TCMessageBuffer* buffer, const Body& body) {
    return buffer != nullptr &&
           MavixApiLite::GuardedCall(MAVIX_LOG_SOURCE_NAME, function, __LINE__, false, body);
}

bool HasRange(const TCMessageBuffer* buffer, unsigned int offset, unsigned long size) {
    if (buffer == nullptr) {
        return false;
    }
    const std::size_t payloadSize = buffer->PayloadSize();
    return offset <= payloadSize && size <= payloadSize - offset;
}

// The class takes the offset of an insert and the size before it as 32 bits.
bool HasPlace(const TCMessageBuffer* buffer, int offset) {
    if (buffer == nullptr || buffer->PayloadSize() > INT_MAX) {
        return false;
    }
    return offset == atTheEnd || (offset >= 0 && static_cast<std::size_t>(offset) <= buffer->PayloadSize());
}

// Copied from where it lies: the class's reads take the end of a value as 32 bits.
bool Read(const TCMessageBuffer* buffer, void* out, unsigned int offset, unsigned long size) {
    if (!HasRange(buffer, offset, size) || (out == nullptr && size != 0)) {
        return false;
    }
    if (size != 0) {
        std::memcpy(out, buffer->GetAsCStr(offset), size);
    }
    return true;
}

} // namespace

extern "C" {

MAVIX_API_EXPORT TCMessageBuffer* TCMessageBuffer_Create(void) {
    return MavixApiLite::GuardedCall(MAVIX_LOG_SOURCE_NAME, __FUNCTION__, __LINE__,
                                     static_cast<TCMessageBuffer*>(nullptr),
                                     [] { return new TCMessageBuffer; });
}

MAVIX_API_EXPORT void TCMessageBuffer_Destroy(TCMessageBuffer* buffer) {
    delete buffer;
}

MAVIX_API_EXPORT bool TCMessageBuffer_Reserve(TCMessageBuffer* buffer, unsigned int count) {
    return Change(__FUNCTION__, buffer, [&] {
        buffer->Reserve(count);
        return true;
    });
}

MAVIX_API_EXPORT bool TCMessageBuffer_Resize(TCMessageBuffer* buffer, unsigned int count) {
    return Change(__FUNCTION__, buffer, [&] {
        buffer->Resize(count);
        return true;
    });
}

MAVIX_API_EXPORT bool TCMessageBuffer_Clean(TCMessageBuffer* buffer) {
    return Change(__FUNCTION__, buffer, [&] {
        buffer->Clean();
        return true;
    });
}

MAVIX_API_EXPORT bool TCMessageBuffer_PushChar(TCMessageBuffer* buffer, char value) {
    return Change(__FUNCTION__, buffer, [&] { return buffer->PushChar(value); });
}

MAVIX_API_EXPORT bool TCMessageBuffer_PushShort(TCMessageBuffer* buffer, short value) {
    return Change(__FUNCTION__, buffer, [&] { return buffer->PushShort(value); });
}

MAVIX_API_EXPORT bool TCMessageBuffer_PushInt(TCMessageBuffer* buffer, int value) {
    return Change(__FUNCTION__, buffer, [&] { return buffer->PushInt(value); });
}

MAVIX_API_EXPORT bool TCMessageBuffer_PushLongLong(TCMessageBuffer* buffer, long long value) {
    return Change(__FUNCTION__, buffer, [&] { return buffer->PushLongLong(value); });
}

MAVIX_API_EXPORT bool TCMessageBuffer_PushConcatenated(TCMessageBuffer* buffer, unsigned long size,
                                                       const void* data) {
    return Change(__FUNCTION__, buffer, [&] { return buffer->PushConcatenated(size, data); });
}

MAVIX_API_EXPORT bool TCMessageBuffer_PushBuffer(TCMessageBuffer* buffer, TCMessageBuffer* other) {
    return other != nullptr && Change(__FUNCTION__, buffer, [&] { return buffer->PushBuffer(other); });
}

MAVIX_API_EXPORT bool TCMessageBuffer_ReadShort(TCMessageBuffer* buffer, short* out, unsigned int offset) {
    return Read(buffer, out, offset, sizeof *out);
}

MAVIX_API_EXPORT bool TCMessageBuffer_ReadInt(TCMessageBuffer* buffer, int* out, unsigned int offset) {
    return Read(buffer, out, offset, sizeof *out);
}

MAVIX_API_EXPORT bool TCMessageBuffer_ReadLongLong(TCMessageBuffer* buffer, long long* out,
                                                   unsigned int offset) {
    return Read(buffer, out, offset, sizeof *out);
}

MAVIX_API_EXPORT bool TCMessageBuffer_ReadConcatenated(TCMessageBuffer* buffer, unsigned long size, void* out,
                                                       unsigned int offset) {
    return Read(buffer, out, offset, size);
}

MAVIX_API_EXPORT bool TCMessageBuffer_WriteInt(TCMessageBuffer* buffer, int value, int offset) {
    return HasPlace(buffer, offset) &&
           Change(__FUNCTION__, buffer, [&] { return buffer->WriteInt(value, offset); });
}

MAVIX_API_EXPORT bool TCMessageBuffer_WriteLongLong(TCMessageBuffer* buffer, long long value, int offset) {
    return HasPlace(buffer, offset) &&
           Change(__FUNCTION__, buffer, [&] { return buffer->WriteLongLong(value, offset); });
}

MAVIX_API_EXPORT bool TCMessageBuffer_WriteConcatenated(TCMessageBuffer* buffer, unsigned long size,
                                                        void* data, int offset) {
    return HasPlace(buffer, offset) && (data != nullptr || size == 0) &&
           Change(__FUNCTION__, buffer, [&] { return buffer->WriteConcatenated(size, data, offset); });
}

MAVIX_API_EXPORT const void* TCMessageBuffer_Payload(TCMessageBuffer* buffer) {
    return buffer != nullptr ? buffer->GetAsCStr(0) : nullptr;
}

MAVIX_API_EXPORT unsigned long TCMessageBuffer_PayloadSize(TCMessageBuffer* buffer) {
    return buffer != nullptr ? buffer->PayloadSize() : 0;
}

MAVIX_API_EXPORT const char* TCMessageBuffer_Sender(TCMessageBuffer* buffer) {
    return buffer != nullptr ? buffer->Sender().c_str() : nullptr;
}

MAVIX_API_EXPORT const char* TCMessageBuffer_SenderAppName(TCMessageBuffer* buffer) {
    return buffer != nullptr ? buffer->SenderAppName().c_str() : nullptr;
}

} // extern "C"
