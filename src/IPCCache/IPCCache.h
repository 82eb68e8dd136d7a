#ifndef MAVIX_IPC_CACHE_H
#define MAVIX_IPC_CACHE_H

#include "Export.h"

#include <memory>
#include <string>

namespace MavixApiLite {
struct TestAccess;
}

class IPCCachePrivate;

// Small named values in shared memory: one process writes, any number of processes read. Belongs to its
// caller; any thread. What the guarantees are, and what is outside of them, stands in the project's
// docs/cache.md.
class MAVIX_API_EXPORT IPCCache final {
public:
    enum class AccessType { Read = 0, Write = 1 };

    // Opens the cache as far as it can; what is missing is tried again by every operation.
    IPCCache(const std::string& name, AccessType accessType);
    // Shared memory and lock file stay.
    ~IPCCache();

    IPCCache(const IPCCache&) = delete;
    IPCCache& operator=(const IPCCache&) = delete;

    // Copies the value if it has exactly `size` bytes. Allocates nothing.
    bool getData(const std::string& key, char* buffer, unsigned long size);

    // Copies the value into a new buffer, to be released with TCFreeMemory. `size` may be null.
    bool getDataNew(const std::string& key, char** buffer, unsigned long* size);

    // Stores a value. Aborts the process when called on a reader. A value of the same key that is longer
    // keeps its length and its tail; one that is shorter is kept, and an error logged: reset it first.
    void setData(const std::string& key, const char* data, unsigned long size);

    // Removes a value; true when there was one. Aborts the process when called on a reader.
    bool resetData(const std::string& key);

private:
    friend struct MavixApiLite::TestAccess;

    std::unique_ptr<IPCCachePrivate> d;
};

#endif
