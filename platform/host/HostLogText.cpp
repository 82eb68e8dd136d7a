#include "HostLogText.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>

namespace MavixPlatformHost {

namespace {

constexpr std::size_t MaxTextLength = 64 * 1024 - 1;

} // namespace

TCLineText::TCLineText(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int savedErrno = errno;
    const int length = std::vsnprintf(m_short, sizeof(m_short), format, arguments);
    if (length < 0) {
        m_text = format;
    } else if (static_cast<std::size_t>(length) < sizeof(m_short)) {
        m_text = {m_short, static_cast<std::size_t>(length)};
    } else {
        errno = savedErrno;
        m_FormatLong(static_cast<std::size_t>(length), format, again);
    }
    va_end(again);
}

void TCLineText::m_FormatLong(std::size_t length, const char* format, va_list arguments) {
    const std::size_t kept = std::min(length, MaxTextLength);
    m_long.reset(new (std::nothrow) char[kept + 1]);
    if (!m_long) {
        m_text = m_Marked(m_short, sizeof(m_short) - 1);
        return;
    }
    if (std::vsnprintf(m_long.get(), kept + 1, format, arguments) < 0) {
        m_text = format;
        return;
    }
    m_text = length == kept ? std::string_view(m_long.get(), kept) : m_Marked(m_long.get(), kept);
}

// Ends a cut text in dots, without leaving half a UTF-8 character before them.
std::string_view TCLineText::m_Marked(char* text, std::size_t length) {
    constexpr std::string_view mark = "...";
    std::size_t end = length - mark.size();
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) {
        --end;
    }
    mark.copy(text + end, mark.size());
    return {text, end + mark.size()};
}

SourcePosition FindPosition(std::string_view text) {
    const std::size_t fileEnd = text.find(": ");
    const std::size_t prefixEnd = text.find(") > ");
    if (fileEnd == std::string_view::npos || prefixEnd == std::string_view::npos || prefixEnd < fileEnd) {
        return {};
    }
    const std::size_t open = text.rfind('(', prefixEnd);
    if (open == std::string_view::npos || open <= fileEnd + 2) {
        return {};
    }
    const SourcePosition found{text.substr(0, fileEnd), text.substr(fileEnd + 2, open - fileEnd - 2),
                               text.substr(open + 1, prefixEnd - open - 1)};
    const bool isPosition = !found.file.empty() && !found.line.empty() &&
                            found.file.find_first_of(" \t\n") == std::string_view::npos &&
                            found.function.find('\n') == std::string_view::npos &&
                            found.line.find_first_not_of("0123456789") == std::string_view::npos;
    return isPosition ? found : SourcePosition{};
}

} // namespace MavixPlatformHost
