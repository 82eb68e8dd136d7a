#ifndef MAVIX_PLATFORM_H
#define MAVIX_PLATFORM_H

// The functions that the library expects from the platform it runs on. The library defines none of them: a
// device links its own, every other build links libmavix-platform-host, and a test program defines what it
// wants to record. All of them may be called from any thread.

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

// Log identifiers and priorities of the platform's log service.
enum { MAVIX_LOG_ID_MAIN = 0 };
enum { MAVIX_LOG_DEBUG = 3, MAVIX_LOG_INFO = 4, MAVIX_LOG_WARNING = 5, MAVIX_LOG_ERROR = 6 };

// Writes one line to the platform's log. The level is tested before the text is formatted.
int __dlog_print(int logId, int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Reads a feature flag. 0 is success; on failure *value is left as it was.
int system_info_get_custom_bool(const char* key, bool* value);

// Lends the scheduling of `thread` (0: the calling one) to a process for `timeLimit` at most. 0 is success.
int resource_set_cpu_inheritance(int thread, const char* process, int timeLimit);

// Ends what resource_set_cpu_inheritance began. 0 is success.
int resource_clear_cpu_inheritance(int thread, const char* process);

// Watches the calling thread: it must notify at least once in every period, until it unregisters.
int smart_deadlock_register_watchdog_service(int periodSeconds);
int smart_deadlock_watchdog_notify(void);
int smart_deadlock_unregister_watchdog_service(void);

// Waits for an event that is named by a path. Negative is failure, a passed time limit included.
int LwipcWaitEvent(const char* path, int timeoutMs);

#ifdef __cplusplus
}
#endif

#endif
