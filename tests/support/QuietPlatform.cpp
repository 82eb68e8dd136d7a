#include "Platform.h"

// For programs that are not about the log and must not spend on it: linked with --wrap=__dlog_print, every
// line of the library ends here.

extern "C" {

int QuietLog(int logId, int priority, const char* tag, const char* format, ...) asm("__wrap___dlog_print");

int QuietLog(int /*logId*/, int /*priority*/, const char* /*tag*/, const char* /*format*/, ...) {
    return 0;
}

} // extern "C"
