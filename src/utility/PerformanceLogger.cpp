#include "PerformanceLogger.h"

#include "LiteUtility.h"
#include "Log.h"

#include <cstdarg>
#include <cstdio>

namespace MavixApiLite {

PerformanceLogger::PerformanceLogger(const char* file, int line, const char* format, ...)
    : m_message{}, m_startSeconds(0), m_line(0) {
    if (!LiteUtility::IsDebug()) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(m_message, sizeof m_message, format, arguments);
    va_end(arguments);
    m_startSeconds = LiteUtility::GetTimestamp().tv_sec;
    m_file = file;
    m_line = line;
}

PerformanceLogger::~PerformanceLogger() {
    constexpr int tolerableSeconds = 4;
    if (!LiteUtility::IsDebug()) {
        return;
    }
    const int seconds = static_cast<int>(LiteUtility::GetTimestamp().tv_sec - m_startSeconds);
    if (seconds > tolerableSeconds) {
        MAVIX_LOGE("[%s][%d] %s, took too long = %d seconds", m_file.c_str(), m_line, m_message, seconds);
    }
}

} // namespace MavixApiLite
