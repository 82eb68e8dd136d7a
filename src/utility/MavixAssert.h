#ifndef MAVIX_ASSERT_H
#define MAVIX_ASSERT_H

#include <cstdio>

namespace MavixApiLite {

// Reports a failed check: one error line, 100 ms for the line to reach the log, then the process is aborted
// unless the device is a release build. Returns true when it returns. `message` may be null.
bool _TCApiAssert(const char* expression, const char* file, unsigned long line, const char* message);

// Formats into 256 characters (longer text is cut) and logs at error level.
void TCApiPrintMessage(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The line on standard output by which a function that leaves after a failed check says so.
inline void PrintAssertLine(const char* function, int line) {
    std::printf("ASSERT!!! - function %s, line %d\n", function, line);
    std::fflush(stdout);
}

} // namespace MavixApiLite

#define MAVIX_ASSERT_FILE "../../../src/" MAVIX_SOURCE
#define MAVIX_ASSERT_FAIL(text)                                                                              \
    static_cast<void>(::MavixApiLite::_TCApiAssert(text, MAVIX_ASSERT_FILE, __LINE__, nullptr))

// Reports a failed check under the given text and carries on.
#define MAVIX_ASSERT_TEXT(condition, text)                                                                   \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            MAVIX_ASSERT_FAIL(text);                                                                         \
        }                                                                                                    \
    } while (0)
#define MAVIX_ASSERT(condition) MAVIX_ASSERT_TEXT(condition, #condition)

// The same with a message behind the check's own text.
#define MAVIX_ASSERT_MESSAGE(condition, message)                                                             \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            static_cast<void>(                                                                               \
                ::MavixApiLite::_TCApiAssert(#condition, MAVIX_ASSERT_FILE, __LINE__, message));             \
        }                                                                                                    \
    } while (0)

// Reports a failed check, says so on standard output and carries on.
#define MAVIX_ASSERT_PRINT(function, text)                                                                   \
    do {                                                                                                     \
        MAVIX_ASSERT_FAIL(text);                                                                             \
        ::MavixApiLite::PrintAssertLine(function, __LINE__);                                                 \
    } while (0)

// Reports a failed check and leaves the function with a result.
#define MAVIX_ASSERT_RETURN(condition, text, result)                                                         \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            MAVIX_ASSERT_PRINT(__FUNCTION__, text);                                                          \
            return result;                                                                                   \
        }                                                                                                    \
    } while (0)

// The same in a function without result.
#define MAVIX_ASSERT_LEAVE(condition, text)                                                                  \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            MAVIX_ASSERT_PRINT(__FUNCTION__, text);                                                          \
            return;                                                                                          \
        }                                                                                                    \
    } while (0)

#endif
