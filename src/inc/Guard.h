#ifndef MAVIX_GUARD_H
#define MAVIX_GUARD_H

#include "Log.h"

#include <cxxabi.h>
#include <exception>
#include <utility>

namespace MavixApiLite {

// Runs `body` where a C frame calls our C++: whatever it throws is logged once and becomes `failure`. Thread
// cancellation is let through, because swallowing it would end the process.
template <class Result, class Body>
Result GuardedCall(const char* source, const char* function, int line, Result failure, Body&& body) {
    try {
        return std::forward<Body>(body)();
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& error) {
        MAVIX_LOG_FORMATTED(MAVIX_LOG_ERROR, source, function, line, "[API_LITE] exception: %s",
                            error.what());
    } catch (...) {
        MAVIX_LOG_TEXT(MAVIX_LOG_ERROR, source, function, line, "[API_LITE] exception of unknown type");
    }
    return failure;
}

// The same for a body without result.
template <class Body>
void GuardedRun(const char* source, const char* function, int line, Body&& body) {
    GuardedCall(source, function, line, false, [&body] {
        body();
        return true;
    });
}

} // namespace MavixApiLite

#endif
