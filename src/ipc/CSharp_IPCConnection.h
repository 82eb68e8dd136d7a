#ifndef MAVIX_CSHARP_IPC_CONNECTION_H
#define MAVIX_CSHARP_IPC_CONNECTION_H

/* The functions that the managed binding calls. */

#ifdef __cplusplus
extern "C" {
#endif

/* Releases memory that the library handed out and that is to be released with this function; null is ignored.
 */
void TCFreeMemory(void* memory);

#ifdef __cplusplus
}
#endif

#endif
