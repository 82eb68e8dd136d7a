#ifndef MAVIX_CACHE_LOG_H
#define MAVIX_CACHE_LOG_H

#include "Log.h"

// The lines of the cache and its lock: under their own tag, which the build sets for these sources, and with
// the function and the line once more in front of the text.

#define CACHE_LOG_AS(priority, function, format, ...)                                                        \
    MAVIX_LOG_AS(priority, MAVIX_LOG_SOURCE_NAME, function, "%s():%d " format, function, __LINE__,           \
                 __VA_ARGS__)

#define CACHE_LOGD(...) CACHE_LOG_AS(MAVIX_LOG_DEBUG, __FUNCTION__, __VA_ARGS__)
#define CACHE_LOGI(...) CACHE_LOG_AS(MAVIX_LOG_INFO, __FUNCTION__, __VA_ARGS__)
#define CACHE_LOGW(...) CACHE_LOG_AS(MAVIX_LOG_WARNING, __FUNCTION__, __VA_ARGS__)
#define CACHE_LOGE(...) CACHE_LOG_AS(MAVIX_LOG_ERROR, __FUNCTION__, __VA_ARGS__)

#endif
