#include "MessageBuffer.h"

#include "MavixAssert.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace MavixApiLite {

namespace {

// The end of a read, computed as the callers know it: in 32 bits, wrapping.
constexpr std::size_t WrappingEnd(unsigned int offset, unsigned int width) {
    return static_cast<unsigned int>(offset + width);
}

} // namespace

TCMessageBuffer::TCMessageBuffer() : m_nonPayloadSize(0), m_reserved(0) {}

TCMessageBuffer::~TCMessageBuffer() {
    m_bufferData.clear();
}

void TCMessageBuffer::Reserve(unsigned int count) {
    m_bufferData.reserve(count);
}

void TCMessageBuffer::Resize(unsigned int count) {
    m_bufferData.resize(m_bufferData.size() + count);
}

void TCMessageBuffer::Clean() {
    m_bufferData.clear();
    m_nonPayloadSize = 0;
}

bool TCMessageBuffer::PushChar(char value) {
    m_bufferData.push_back(value);
    return true;
}

bool TCMessageBuffer::PushShort(short value) {
    m_PushBytes(&value, sizeof value);
    return true;
}

bool TCMessageBuffer::PushInt(int value) {
    m_PushBytes(&value, sizeof value);
    return true;
}

bool TCMessageBuffer::PushLongLong(long long value) {
    m_PushBytes(&value, sizeof value);
    return true;
}

bool TCMessageBuffer::PushConcatenated(unsigned long size, const void* data) {
    if (size == 0 || data == nullptr) {
        return true;
    }
    m_RequireRoomFor(size);
    const char* bytes = static_cast<const char*>(data);
    m_bufferData.insert(m_bufferData.end(), bytes, bytes + size);
    return true;
}

bool TCMessageBuffer::PushBuffer(TCMessageBuffer* other) {
    const std::size_t count = other->m_bufferData.size();
    if (count != 0) {
        const std::size_t position = m_bufferData.size();
        m_bufferData.resize(position + count);
        std::memcpy(m_bufferData.data() + position, other->m_bufferData.data(), count);
    }
    return true;
}

void TCMessageBuffer::ReadShort(short* out, unsigned int offset) {
    MAVIX_ASSERT_TEXT(m_bufferData.size() >= WrappingEnd(offset, 2), "m_bufferData.size() >= offset + 2");
    CopyData(out, 2, offset);
}

void TCMessageBuffer::ReadInt(int* out, unsigned int offset) {
    MAVIX_ASSERT_TEXT(m_bufferData.size() >= WrappingEnd(offset, 4), "m_bufferData.size() >= offset + 4");
    CopyData(out, 4, offset);
}

void TCMessageBuffer::ReadLongLong(long long* out, unsigned int offset) {
    MAVIX_ASSERT_TEXT(m_bufferData.size() >= WrappingEnd(offset, 8), "m_bufferData.size() >= offset + 8");
    CopyData(out, 8, offset);
}

void TCMessageBuffer::ReadConcatenated(unsigned long sizeOfData, void* out, unsigned int offset) {
    MAVIX_ASSERT(m_bufferData.size() >= offset + sizeOfData);
    CopyData(out, static_cast<unsigned int>(sizeOfData), offset);
}

void TCMessageBuffer::CopyData(void* out, unsigned int size, unsigned int offset) {
    if (size == 0 || m_bufferData.size() < WrappingEnd(offset, size)) {
        return;
    }
    // A range that wraps in 32 bits passes the test above and is still not in the buffer.
    const std::size_t end = static_cast<std::size_t>(offset) + size;
    if (end <= m_bufferData.size()) {
        std::memcpy(out, m_bufferData.data() + offset, size);
    }
}

const char* TCMessageBuffer::GetAsCStr(unsigned int offset) const {
    return offset < m_bufferData.size() ? m_bufferData.data() + offset : nullptr;
}

const void* TCMessageBuffer::GetAsVoidFromOffset(unsigned int offset) const {
    if (offset >= m_bufferData.size()) {
        std::abort();
    }
    return m_bufferData.data() + offset;
}

bool TCMessageBuffer::WriteInt(int value, int offset) {
    MAVIX_ASSERT_TEXT(offset <= static_cast<int>(m_bufferData.size()), "offset <= (int) m_bufferData.size()");
    m_InsertBytes(&value, sizeof value, m_InsertPosition(offset));
    return true;
}

bool TCMessageBuffer::WriteLongLong(long long value, int offset) {
    MAVIX_ASSERT_TEXT(offset <= static_cast<int>(m_bufferData.size()), "offset <= (int) m_bufferData.size()");
    m_InsertBytes(&value, sizeof value, m_InsertPosition(offset));
    return true;
}

bool TCMessageBuffer::WriteConcatenated(unsigned long size, void* data, int offset) {
    MAVIX_ASSERT_TEXT(offset <= static_cast<int>(m_bufferData.size()), "offset <= (int) m_bufferData.size()");
    if (size == 0) {
        return true;
    }
    m_InsertBytes(data, size, m_InsertPosition(offset));
    return true;
}

void TCMessageBuffer::SetSender(const char* pSender) {
    MAVIX_ASSERT(pSender);
    if (pSender != nullptr) {
        m_sender = pSender;
    }
}

void TCMessageBuffer::SetSenderAppName(const char* pSender) {
    MAVIX_ASSERT(pSender);
    if (pSender != nullptr) {
        m_senderAppName = pSender;
    }
}

void TCMessageBuffer::Print() {
    std::printf("print m_bufferData\n");
    for (const char byte : m_bufferData) {
        std::printf("%u ", static_cast<unsigned int>(static_cast<unsigned char>(byte)));
    }
    std::printf("\n m_bufferData.size = %zu\n", m_bufferData.size());
}

// Before the sum of both sizes or the end of the bytes is formed: either may wrap.
void TCMessageBuffer::m_RequireRoomFor(std::size_t width) const {
    if (width > m_bufferData.max_size() - m_bufferData.size()) {
        throw std::length_error("TCMessageBuffer: too many bytes");
    }
}

void TCMessageBuffer::m_PushBytes(const void* value, std::size_t width) {
    const std::size_t position = m_bufferData.size();
    m_bufferData.resize(position + width);
    std::memcpy(m_bufferData.data() + position, value, width);
}

void TCMessageBuffer::m_InsertBytes(const void* value, std::size_t width, std::size_t position) {
    m_RequireRoomFor(width);
    const std::size_t oldSize = m_bufferData.size();
    m_bufferData.resize(oldSize + width);
    char* at = m_bufferData.data() + position;
    if (oldSize > position) {
        std::memmove(at + width, at, oldSize - position);
    }
    std::memcpy(at, value, width);
}

// An insert outside the buffer would write past its end, so it stops the process on every build.
std::size_t TCMessageBuffer::m_InsertPosition(int offset) const {
    if (offset == -1) {
        return m_bufferData.size();
    }
    if (offset < 0 || static_cast<std::size_t>(offset) > m_bufferData.size()) {
        std::abort();
    }
    return static_cast<std::size_t>(offset);
}

} // namespace MavixApiLite
