#include "LineReader.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>

namespace MavixTools {

TCLineReader::TCLineReader(TCDescriptor descriptor) : m_descriptor(std::move(descriptor)) {}

std::optional<std::string> TCLineReader::ReadLine(std::chrono::milliseconds limit) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + limit;
    for (;;) {
        if (std::optional<std::string> line = m_TakeLine())
            return line;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        pollfd wanted{m_descriptor.Get(), POLLIN, 0};
        const int ready = ::poll(&wanted, 1, static_cast<int>(std::max<long>(left.count(), 0)));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return std::nullopt;
        char chunk[512];
        const ssize_t count = ::read(m_descriptor.Get(), chunk, sizeof chunk);
        if (count <= 0)
            return std::nullopt;
        m_buffer.append(chunk, static_cast<std::size_t>(count));
    }
}

std::optional<std::string> TCLineReader::m_TakeLine() {
    const std::size_t length = m_buffer.find('\n');
    if (length == std::string::npos)
        return std::nullopt;
    std::string line = m_buffer.substr(0, length);
    m_buffer.erase(0, length + 1);
    return line;
}

} // namespace MavixTools
