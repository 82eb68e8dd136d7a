#ifndef MAVIX_FLAT_CALL_BUFFERS_H
#define MAVIX_FLAT_CALL_BUFFERS_H

#include "MessageBuffer.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace MavixApiLite {

// The arguments and the result of a flat function's call, which nobody else looks at: the message takes the
// arguments' bytes over, and the reply's payload goes straight into the array that the function returns.
// Lives on the calling thread's stack; no other thread knows it.
class TCFlatCallBuffers final {
public:
    TCFlatCallBuffers();
    ~TCFlatCallBuffers();
    TCFlatCallBuffers(const TCFlatCallBuffers&) = delete;
    TCFlatCallBuffers& operator=(const TCFlatCallBuffers&) = delete;

    TCMessageBuffer& Input() { return m_input; }
    TCMessageBuffer& Output() { return m_output; }
    // Moves the result to an array of its own; null when there is none. Frees the arguments.
    std::unique_ptr<char[]> ReleaseResult(std::size_t& size);

    // If `input` is that of the calling thread's latest call, moves its bytes to `bytes`.
    static bool TakeInput(TCMessageBuffer& input, std::vector<char>& bytes);
    // Appends the bytes to `output`; straight to the array that is returned, if it is that of the calling
    // thread's latest call.
    static void Append(TCMessageBuffer& output, const std::uint8_t* data, std::size_t size);

private:
    bool m_AppendFirst(const std::uint8_t* data, std::size_t size);

    TCMessageBuffer m_input;
    TCMessageBuffer m_output;
    std::unique_ptr<char[]> m_result;
    std::size_t m_resultSize = 0;
    TCFlatCallBuffers* const m_outer;
};

} // namespace MavixApiLite

#endif
