#include "MavixAssert.h"

#include "LiteUtility.h"
#include "Log.h"

#include <cstdarg>
#include <cstdlib>

namespace MavixApiLite {

bool _TCApiAssert(const char* expression, const char* file, unsigned long line, const char* message) {
    constexpr unsigned long logDrainMs = 100;
    if (message != nullptr) {
        TCApiPrintMessage("MAVIX Assertion failed [%s:%lu:%s]: %s", file, line, expression, message);
    } else {
        TCApiPrintMessage("MAVIX Assertion failed [%s:%lu:%s]", file, line, expression);
    }
    LiteUtility::SleepMs(logDrainMs);
    if (!LiteUtility::IsRelease()) {
        std::abort();
    }
    return true;
}

void TCApiPrintMessage(const char* format, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    MAVIX_LOGE("%s", text);
}

} // namespace MavixApiLite
