#ifndef MAVIX_TEST_PLAIN_H
#define MAVIX_TEST_PLAIN_H

/* What a program in C does with the managed binding's functions. */

#include "CSharp_IPCConnection.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Packs arguments, calls an interface that echoes, and reads the result; 0, or the line that failed. */
int plain_call(void);

/* Registers for Data events with the id 7; the values of the last one that arrived. */
int plain_register(void* handle);
extern int plain_event_id;
extern int plain_event_value;

#ifdef __cplusplus
}
#endif

#endif
