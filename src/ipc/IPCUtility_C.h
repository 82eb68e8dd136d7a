#ifndef MAVIX_IPC_UTILITY_C_H
#define MAVIX_IPC_UTILITY_C_H

#ifdef __cplusplus
extern "C" {
#endif

/* Makes the bus name that a client owns beside its unique connection name, for example
 * "com.norvale.Mavix.Signal.mavix1.mavix42" for ":1.42".
 *
 * uniqueName   the unique connection name; need not be terminated
 * length       its length in characters
 * output       receives the name WITHOUT a terminator
 * capacity     in: how many characters fit into output; out: the name's length when that is smaller than the
 *              capacity. A name of at least `*capacity` characters is cut there, and *capacity is kept.
 *
 * Does nothing when a pointer is null or length is 0. May be called from any thread. */
void IPCUtility_GenerateSubConnectionName(const char* uniqueName, unsigned int length, char* output,
                                          unsigned int* capacity);

#ifdef __cplusplus
}
#endif

#endif
