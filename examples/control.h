#ifndef MAVIX_EXAMPLES_CONTROL_H
#define MAVIX_EXAMPLES_CONTROL_H

/* Steers the stand-in service from outside, the way a test does. A real service has nothing like it. */

#include <stdbool.h>

/* Has it emit an event with a text as payload. */
bool control_emit(const char* type, int id, unsigned int handle_high, unsigned int handle_low,
                  const char* payload);

/* Waits until it has a record of a call without reply from this process with these bytes. */
bool control_wait_for_async_call(const char* payload);

/* Its process id; 0 when it does not run. */
int control_service_pid(void);

/* Ends it and waits until a new process has taken its place, whose id is the result; 0 on failure. */
int control_restart_service(void);

#endif
