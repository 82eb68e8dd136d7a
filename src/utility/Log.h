#ifndef MAVIX_LOG_H
#define MAVIX_LOG_H

#include "Platform.h"

// The one family of log macros. Every line goes to the platform's main log with the prefix
// "<source>: <function>(<line>) > ". The platform tests the level before it formats, so a filtered line costs
// its arguments only. MAVIX_SOURCE is set by the build for every source file as "<folder>/<base name>".

#ifndef MAVIX_LOG_TAG
#define MAVIX_LOG_TAG "MAVIX_API"
#endif

namespace MavixApiLite {

// The part of a source's name behind the last slash.
constexpr const char* SourceBaseName(const char* source) {
    const char* base = source;
    for (const char* at = source; *at != '\0'; ++at) {
        if (*at == '/') {
            base = at + 1;
        }
    }
    return base;
}

} // namespace MavixApiLite

#define MAVIX_LOG_SOURCE_NAME (::MavixApiLite::SourceBaseName(MAVIX_SOURCE))

#define MAVIX_LOG_PREFIX "%s: %s(%d) > "
#define MAVIX_LOG_TEXT(priority, source, function, line, format)                                             \
    static_cast<void>(__dlog_print(MAVIX_LOG_ID_MAIN, priority, MAVIX_LOG_TAG, MAVIX_LOG_PREFIX format,      \
                                   source, function, line))
#define MAVIX_LOG_FORMATTED(priority, source, function, line, format, ...)                                   \
    static_cast<void>(__dlog_print(MAVIX_LOG_ID_MAIN, priority, MAVIX_LOG_TAG, MAVIX_LOG_PREFIX format,      \
                                   source, function, line, __VA_ARGS__))
#define MAVIX_LOG_PICK(a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12, picked, ...) picked

// Logs under a stated source and function name: for lambdas, callbacks and headers.
#define MAVIX_LOG_AS(priority, source, function, ...)                                                        \
    MAVIX_LOG_PICK(__VA_ARGS__, MAVIX_LOG_FORMATTED, MAVIX_LOG_FORMATTED, MAVIX_LOG_FORMATTED,               \
                   MAVIX_LOG_FORMATTED, MAVIX_LOG_FORMATTED, MAVIX_LOG_FORMATTED, MAVIX_LOG_FORMATTED,       \
                   MAVIX_LOG_FORMATTED, MAVIX_LOG_FORMATTED, MAVIX_LOG_FORMATTED, MAVIX_LOG_FORMATTED,       \
                   MAVIX_LOG_TEXT, unused)                                                                   \
    (priority, source, function, __LINE__, __VA_ARGS__)

#define MAVIX_LOGD(...) MAVIX_LOG_AS(MAVIX_LOG_DEBUG, MAVIX_LOG_SOURCE_NAME, __FUNCTION__, __VA_ARGS__)
#define MAVIX_LOGI(...) MAVIX_LOG_AS(MAVIX_LOG_INFO, MAVIX_LOG_SOURCE_NAME, __FUNCTION__, __VA_ARGS__)
#define MAVIX_LOGW(...) MAVIX_LOG_AS(MAVIX_LOG_WARNING, MAVIX_LOG_SOURCE_NAME, __FUNCTION__, __VA_ARGS__)
#define MAVIX_LOGE(...) MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, __FUNCTION__, __VA_ARGS__)

#endif
