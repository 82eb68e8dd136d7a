#ifndef MAVIX_EXPENDABLE_BUFFER_H
#define MAVIX_EXPENDABLE_BUFFER_H

#include "MessageBuffer.h"

#include <vector>

namespace MavixApiLite {

// The arguments of a flat function's call, which nobody reads after it: the message takes their bytes over
// instead of copying them. Lives on the calling thread's stack; no other thread knows it.
class TCExpendableBuffer final {
public:
    TCExpendableBuffer();
    ~TCExpendableBuffer();
    TCExpendableBuffer(const TCExpendableBuffer&) = delete;
    TCExpendableBuffer& operator=(const TCExpendableBuffer&) = delete;

    TCMessageBuffer& Get() { return m_buffer; }
    // If `buffer` is the calling thread's latest one, moves its bytes to `bytes`.
    static bool Take(TCMessageBuffer& buffer, std::vector<char>& bytes);

private:
    TCMessageBuffer m_buffer;
    TCExpendableBuffer* const m_outer;
};

} // namespace MavixApiLite

#endif
