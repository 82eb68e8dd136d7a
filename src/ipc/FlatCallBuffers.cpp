#include "FlatCallBuffers.h"

#include <cstring>
#include <utility>

namespace MavixApiLite {

namespace {

thread_local TCFlatCallBuffers* latest = nullptr;

std::unique_ptr<char[]> ArrayOf(const void* data, std::size_t size) {
    // Not made by make_unique, which would write zeros first.
    std::unique_ptr<char[]> array(new char[size]);
    std::memcpy(array.get(), data, size);
    return array;
}

} // namespace

TCFlatCallBuffers::TCFlatCallBuffers() : m_outer(std::exchange(latest, this)) {}

TCFlatCallBuffers::~TCFlatCallBuffers() {
    latest = m_outer;
}

std::unique_ptr<char[]> TCFlatCallBuffers::ReleaseResult(std::size_t& size) {
    size = std::exchange(m_resultSize, 0);
    if (!m_result && m_output.PayloadSize() != 0) {
        std::vector<char>().swap(m_input.m_bufferData);
        size = m_output.PayloadSize();
        m_result = ArrayOf(m_output.GetAsCStr(0), size);
    }
    return std::move(m_result);
}

bool TCFlatCallBuffers::TakeInput(TCMessageBuffer& input, std::vector<char>& bytes) {
    if (latest == nullptr || &latest->m_input != &input) {
        return false;
    }
    bytes = std::move(input.m_bufferData);
    return true;
}

void TCFlatCallBuffers::Append(TCMessageBuffer& output, const std::uint8_t* data, std::size_t size) {
    if (latest == nullptr || &latest->m_output != &output || !latest->m_AppendFirst(data, size)) {
        output.PushConcatenated(size, data);
    }
}

bool TCFlatCallBuffers::m_AppendFirst(const std::uint8_t* data, std::size_t size) {
    if (m_result) {
        const std::unique_ptr<char[]> first = std::move(m_result);
        m_output.PushConcatenated(std::exchange(m_resultSize, 0), first.get());
        return false;
    }
    if (m_output.PayloadSize() != 0 || size == 0 || data == nullptr) {
        return false;
    }
    m_result = ArrayOf(data, size);
    m_resultSize = size;
    return true;
}

} // namespace MavixApiLite
