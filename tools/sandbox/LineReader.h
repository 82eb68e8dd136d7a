#ifndef MAVIX_TOOLS_LINE_READER_H
#define MAVIX_TOOLS_LINE_READER_H

#include "Descriptor.h"

#include <chrono>
#include <optional>
#include <string>

namespace MavixTools {

// Reads lines from a pipe with a time limit. Owner: who waits for the process at the other end. One thread.
class TCLineReader final {
public:
    TCLineReader() = default;
    explicit TCLineReader(TCDescriptor descriptor);

    // The next line without its newline; none at the end of the pipe or of the time.
    std::optional<std::string> ReadLine(std::chrono::milliseconds limit);

private:
    std::optional<std::string> m_TakeLine();

    TCDescriptor m_descriptor;
    std::string m_buffer;
};

} // namespace MavixTools

#endif
