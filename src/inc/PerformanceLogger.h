#ifndef MAVIX_PERFORMANCE_LOGGER_H
#define MAVIX_PERFORMANCE_LOGGER_H

#include "Export.h"

#include <cstdint>
#include <string>

namespace MavixApiLite {

// Reports a scope that took more than 4 whole seconds, in the debug flavour only. Belongs to the thread whose
// scope holds it.
class MAVIX_API_EXPORT PerformanceLogger {
public:
    // `file` and `line` name the scope in the report; the formatted message is cut at 127 characters.
    PerformanceLogger(const char* file, int line, const char* format, ...)
        __attribute__((format(printf, 4, 5)));
    ~PerformanceLogger();

    PerformanceLogger(const PerformanceLogger&) = delete;
    PerformanceLogger& operator=(const PerformanceLogger&) = delete;

private:
    friend struct TestAccess;

    char m_message[128];
    std::int64_t m_startSeconds;
    std::string m_file;
    std::int32_t m_line;
};

} // namespace MavixApiLite

#endif
