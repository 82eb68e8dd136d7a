#include "ExpendableBuffer.h"

#include <utility>

namespace MavixApiLite {

namespace {

thread_local TCExpendableBuffer* latest = nullptr;

} // namespace

TCExpendableBuffer::TCExpendableBuffer() : m_outer(std::exchange(latest, this)) {}

TCExpendableBuffer::~TCExpendableBuffer() {
    latest = m_outer;
}

bool TCExpendableBuffer::Take(TCMessageBuffer& buffer, std::vector<char>& bytes) {
    if (latest == nullptr || &latest->m_buffer != &buffer) {
        return false;
    }
    bytes = std::move(buffer.m_bufferData);
    return true;
}

} // namespace MavixApiLite
