#include "IPCCache_C.h"

#include "CacheLog.h"
#include "Export.h"
#include "Guard.h"
#include "IPCCache.h"

#include <string>

#include "AlwaysAssert.h"

namespace {

template <class Result, class Body>
Result Guarded(const char* function, Result failure, const Body& body) {
    return MavixApiLite::GuardedCall(MAVIX_LOG_SOURCE_NAME, function, __LINE__, failure, body);
}

std::string KeyOf(const char* name, unsigned long id) {
    constexpr unsigned long nameAlone = ~0UL;
    constexpr unsigned long half = 0xFFFF;
    if (id == nameAlone) {
        return name;
    }
    return name + std::to_string((id >> 16U) & half) + ":" + std::to_string(id & half);
}

void* Create(const char* function, const char* cacheName, IPCCache::AccessType accessType) {
    return Guarded<IPCCache*>(function, nullptr, [&] { return new IPCCache(cacheName, accessType); });
}

} // namespace

extern "C" {

MAVIX_API_EXPORT void* IPCCache_CreateReader(const char* cacheName) {
    assert(cacheName && "null string argument");
    return Create(__FUNCTION__, cacheName, IPCCache::AccessType::Read);
}

MAVIX_API_EXPORT void* IPCCache_CreateWriter(const char* cacheName) {
    assert(cacheName && "null string argument");
    return Create(__FUNCTION__, cacheName, IPCCache::AccessType::Write);
}

MAVIX_API_EXPORT bool IPCCache_Destroy(void* cache) {
    if (cache == nullptr) {
        return false;
    }
    delete static_cast<IPCCache*>(cache);
    return true;
}

MAVIX_API_EXPORT bool IPCCache_GetData(void* cache, const char* name, unsigned long id, char** data,
                                       size_t* size) {
    assert(name && "null string argument");
    return Guarded(__FUNCTION__, false, [&] {
        unsigned long length = 0;
        if (!static_cast<IPCCache*>(cache)->getDataNew(KeyOf(name, id), data, &length)) {
            return false;
        }
        if (size != nullptr) {
            *size = length;
        }
        return true;
    });
}

MAVIX_API_EXPORT void IPCCache_SetData(void* cache, const char* name, unsigned long id, const char* data,
                                       size_t size) {
    assert(name && "null string argument");
    Guarded(__FUNCTION__, false, [&] {
        static_cast<IPCCache*>(cache)->setData(KeyOf(name, id), data, size);
        return true;
    });
}

MAVIX_API_EXPORT bool IPCCache_ResetData(void* cache, const char* pName, unsigned long id) {
    assert(pName && "null string argument");
    return Guarded(__FUNCTION__, false,
                   [&] { return static_cast<IPCCache*>(cache)->resetData(KeyOf(pName, id)); });
}

} // extern "C"
