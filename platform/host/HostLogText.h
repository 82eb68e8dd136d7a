#ifndef MAVIX_HOST_LOG_TEXT_H
#define MAVIX_HOST_LOG_TEXT_H

#include <cstdarg>
#include <cstddef>
#include <memory>
#include <string_view>

namespace MavixPlatformHost {

// The formatted text of one line: on the stack, or on the heap when it is long. Never empty-handed: what
// cannot be formatted is given as its format, what is too long is cut and marked.
class TCLineText final {
public:
    TCLineText(const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));
    TCLineText(const TCLineText&) = delete;
    TCLineText& operator=(const TCLineText&) = delete;

    std::string_view Get() const { return m_text; }

private:
    void m_FormatLong(std::size_t length, const char* format, va_list arguments)
        __attribute__((format(printf, 3, 0)));
    static std::string_view m_Marked(char* text, std::size_t length);

    char m_short[1024];
    std::unique_ptr<char[]> m_long;
    std::string_view m_text;
};

// Where a line comes from.
struct SourcePosition {
    std::string_view file;
    std::string_view function;
    std::string_view line;
};

// Finds "<file>: <function>(<line>) > " at the beginning of a text; what is no such prefix gives empty parts.
SourcePosition FindPosition(std::string_view text);

} // namespace MavixPlatformHost

#endif
