#include "IPCCache.h"

#include "CacheLog.h"
#include "IPCCachePrivate.h"

#include <algorithm>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/interprocess/sync/sharable_lock.hpp>
#include <cstdlib>
#include <cstring>

#include "AlwaysAssert.h"

namespace ipc = boost::interprocess;

using MavixApiLite::TCSegmentView;
using ExclusiveLock = ipc::scoped_lock<RobustRWLock>;
using SharedLock = ipc::sharable_lock<RobustRWLock>;

namespace {

constexpr unsigned long pageSize = 4096;

// Names of objects end at the first terminator. The guard's name is not a value's.
bool IsReserved(const std::string& key) {
    return std::strcmp(key.c_str(), "write_guard") == 0;
}

void CopyBytes(char* to, const char* from, unsigned long size) {
    if (size != 0) {
        std::memcpy(to, from, size);
    }
}

} // namespace

IPCCache::IPCCache(const std::string& name, AccessType accessType)
    : d(std::make_unique<IPCCachePrivate>(name, accessType, pageSize)) {}

IPCCache::~IPCCache() = default;

bool IPCCache::getData(const std::string& key, char* buffer, unsigned long size) {
    const std::lock_guard<std::mutex> guard(d->m_mutex);
    d->init();
    const char* const name = d->m_name.c_str();
    if (!d->m_manager) {
        CACHE_LOGD("%s.getData(%s, %zu) no shm created", name, key.c_str(), static_cast<std::size_t>(size));
        return false;
    }
    if (!d->m_lock.lock_sharable()) {
        return false;
    }
    const SharedLock lock(d->m_lock, ipc::accept_ownership);
    TCSegmentView::Object object;
    if (!d->m_FindForRead(__FUNCTION__, key.c_str(), object)) {
        return false;
    }
    if (object.size != size) {
        CACHE_LOGE("Shm object size mismatch %zu != %zu in shm:%s", static_cast<std::size_t>(size),
                   object.size, name);
        return false;
    }
    CopyBytes(buffer, d->m_Page() + object.offset, size);
    CACHE_LOGI("%s.getData(%s, %zu) OK", name, key.c_str(), static_cast<std::size_t>(size));
    return true;
}

bool IPCCache::getDataNew(const std::string& key, char** buffer, unsigned long* size) {
    const std::lock_guard<std::mutex> guard(d->m_mutex);
    d->init();
    const char* const name = d->m_name.c_str();
    if (!d->m_manager) {
        CACHE_LOGD("%s.getData(%s) no shm created", name, key.c_str());
        return false;
    }
    if (!d->m_lock.lock_sharable()) {
        return false;
    }
    const SharedLock lock(d->m_lock, ipc::accept_ownership);
    TCSegmentView::Object object;
    if (!d->m_FindForRead(__FUNCTION__, key.c_str(), object)) {
        return false;
    }
    auto* const copy = static_cast<char*>(std::malloc(std::max<std::size_t>(object.size, 1)));
    if (copy == nullptr) {
        CACHE_LOGE("%s.getData(%s) no memory for %zu bytes", name, key.c_str(), object.size);
        return false;
    }
    CopyBytes(copy, d->m_Page() + object.offset, object.size);
    *buffer = copy;
    if (size != nullptr) {
        *size = object.size;
    }
    CACHE_LOGI("%s.getData(%s) OK", name, key.c_str());
    return true;
}

void IPCCache::setData(const std::string& key, const char* data, unsigned long size) {
    const std::lock_guard<std::mutex> guard(d->m_mutex);
    const char* const name = d->m_name.c_str();
    CACHE_LOGD("%s.setData(%s)", name, key.c_str());
    assert(d->accessType() == AccessType::Write && "Calling setData on readonly cache");
    if (IsReserved(key)) {
        CACHE_LOGE("%s.setData(%s) refused: the key is reserved", name, key.c_str());
        return;
    }
    d->init();
    if (!d->m_manager) {
        return;
    }
    CACHE_LOGD("%s.lock()", name);
    if (!d->m_lock.lock()) {
        return;
    }
    const ExclusiveLock lock(d->m_lock, ipc::accept_ownership);
    IPCCachePrivate::WriteGuard* const writeGuard = d->m_BeginWrite(__FUNCTION__);
    if (writeGuard == nullptr) {
        return;
    }
    char* value = nullptr;
    TCSegmentView::Object stored;
    if (d->m_View().Find(key.c_str(), stored) == TCSegmentView::Search::Found) {
        if (stored.size < size) {
            CACHE_LOGE("%s.setData(%s, %zu) refused: the stored value has %zu bytes", name, key.c_str(),
                       static_cast<std::size_t>(size), stored.size);
            d->m_EndWrite(*writeGuard);
            return;
        }
        value = d->m_Page() + stored.offset;
    } else if (size <= d->m_manager->get_free_memory() &&
               std::strlen(key.c_str()) <= MavixApiLite::SegmentLayout::longestName) {
        // Boost looks at neither: the sum could overflow, and a longer name would be taken for a short one.
        value = d->m_manager->find_or_construct<char>(key.c_str(), std::nothrow)[size]();
    }
    if (value == nullptr) {
        // The guard stays, so that the next write makes room.
        d->m_LogNoMemory(__FUNCTION__, size);
        return;
    }
    CopyBytes(value, data, size);
    CACHE_LOGI("%s.setData(%s, %zu) OK", name, key.c_str(), static_cast<std::size_t>(size));
    d->m_EndWrite(*writeGuard);
}

bool IPCCache::resetData(const std::string& key) {
    const std::lock_guard<std::mutex> guard(d->m_mutex);
    const char* const name = d->m_name.c_str();
    CACHE_LOGD("%s.resetData(%s)", name, key.c_str());
    assert(d->accessType() == AccessType::Write && "Calling setData on readonly cache");
    if (IsReserved(key)) {
        CACHE_LOGE("%s.resetData(%s) refused: the key is reserved", name, key.c_str());
        return false;
    }
    d->init();
    if (!d->m_manager) {
        return false;
    }
    CACHE_LOGD("%s.lock()", name);
    if (!d->m_lock.lock()) {
        return false;
    }
    const ExclusiveLock lock(d->m_lock, ipc::accept_ownership);
    IPCCachePrivate::WriteGuard* const writeGuard = d->m_BeginWrite(__FUNCTION__);
    if (writeGuard == nullptr) {
        return false;
    }
    const bool existed = d->m_manager->destroy<char>(key.c_str());
    CACHE_LOGI("%s.resetData(%s) OK", name, key.c_str());
    d->m_EndWrite(*writeGuard);
    return existed;
}
