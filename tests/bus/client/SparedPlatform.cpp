#include "AllocationCounter.h"

#include "Platform.h"

#include <cstdarg>
#include <cstdio>

// A device's platform copes without memory, the recording one does not: its allocations never fail. The
// linker puts these functions between the library and the platform.

using MavixTest::AllocationCounter;

extern "C" {

int RealLog(int logId, int priority, const char* tag, const char* format, ...) asm("__real___dlog_print");
int RealSystemInfo(const char* key, bool* value) asm("__real_system_info_get_custom_bool");
int RealSet(int thread, const char* process, int limit) asm("__real_resource_set_cpu_inheritance");
int RealClear(int thread, const char* process) asm("__real_resource_clear_cpu_inheritance");

int SparedLog(int logId, int priority, const char* tag, const char* format, ...) asm("__wrap___dlog_print");
int SparedSystemInfo(const char* key, bool* value) asm("__wrap_system_info_get_custom_bool");
int SparedSet(int thread, const char* process, int limit) asm("__wrap_resource_set_cpu_inheritance");
int SparedClear(int thread, const char* process) asm("__wrap_resource_clear_cpu_inheritance");

int SparedLog(int logId, int priority, const char* tag, const char* format, ...) {
    const AllocationCounter::Spared spared;
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::vsnprintf(text, sizeof text, format, arguments);
#pragma GCC diagnostic pop
    va_end(arguments);
    return RealLog(logId, priority, tag, "%s", text);
}

int SparedSystemInfo(const char* key, bool* value) {
    const AllocationCounter::Spared spared;
    return RealSystemInfo(key, value);
}

int SparedSet(int thread, const char* process, int limit) {
    const AllocationCounter::Spared spared;
    return RealSet(thread, process, limit);
}

int SparedClear(int thread, const char* process) {
    const AllocationCounter::Spared spared;
    return RealClear(thread, process);
}

} // extern "C"
