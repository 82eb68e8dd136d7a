#ifndef MAVIX_IPC_CACHE_C_H
#define MAVIX_IPC_CACHE_C_H

/* Small named values in shared memory, for C and C++.
 *
 * One process writes, any number of processes read, without a call to the service. All values of a cache
 * share 4096 bytes. A cache and its values outlive the processes that use them. A reader that comes before
 * the writer, or may not open the cache yet, works as soon as it can. Every function may be called from any
 * thread; failures are written to the platform's log.
 *
 * - A writer that dies in the middle of a write leaves nothing torn: readers get nothing until the next
 * write, which begins with an empty cache. So does the write that follows one for which there was no room.
 * - Whoever uses a cache gives its lock file, /run/NAME_cache_lock, its owner. A process that may not do that
 * reads no value and stores none.
 * - A value is addressed by a name and an id. An id of all ones, (unsigned long)-1, stands for the name
 * alone. Otherwise bits 0 to 31 of the id count.
 * - Do not change the size of a cache's shared memory from outside: that ends processes that read it.
 * - A cache that is null or was destroyed is only allowed for IPCCache_Destroy, and there only null. */

#include "CSharp_IPCConnection.h"

#include <stddef.h>

#ifndef __cplusplus
#include <stdbool.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Open the cache of this name, which is a file's name: no "/" but at the beginning, and no "..". With another
 * name the cache is of no use; null stops the process. The result is to be released with IPCCache_Destroy; it
 * is null when memory runs out. */
void* IPCCache_CreateReader(const char* cacheName);
void* IPCCache_CreateWriter(const char* cacheName);

/* Closes a cache; the values stay. False for null. */
bool IPCCache_Destroy(void* cache);

/* Reads a value.
 *
 * name   not null: null stops the process
 * data   receives the value's bytes in a new buffer, to be released with TCFreeMemory; not null
 * size   receives their number; may be null
 *
 * False, and nothing written, when there is no such value, the last write did not complete, or the cache may
 * not be used. */
bool IPCCache_GetData(void* cache, const char* name, unsigned long id, char** data, size_t* size);

/* Stores a value. Null as name, or a cache that was opened for reading, stops the process. A value that is
 * there keeps its length: a shorter one leaves the old tail, a longer one is refused; reset it before. The
 * name "write_guard" without an id is refused. Whether the value was stored, only reading it tells. */
void IPCCache_SetData(void* cache, const char* name, unsigned long id, const char* data, size_t size);

/* Removes a value; true when there was one. Null as name, or a cache that was opened for reading, stops the
 * process. */
bool IPCCache_ResetData(void* cache, const char* pName, unsigned long id);

#ifdef __cplusplus
}
#endif

#endif
