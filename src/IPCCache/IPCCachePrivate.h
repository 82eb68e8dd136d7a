#ifndef MAVIX_IPC_CACHE_PRIVATE_H
#define MAVIX_IPC_CACHE_PRIVATE_H

#include "IPCCache.h"
#include "RobustRWLock.h"
#include "Segment.h"
#include "SegmentView.h"

#include <atomic>
#include <boost/interprocess/mapped_region.hpp>
#include <boost/interprocess/shared_memory_object.hpp>
#include <memory>
#include <mutex>
#include <string>

// The state of one IPCCache, which owns it: the lock file, the shared memory and the segment in it. m_mutex
// serialises its operations within the process and is taken before the file lock.
class IPCCachePrivate final {
public:
    // One page is every cache's size; others are for tests.
    IPCCachePrivate(const std::string& name, IPCCache::AccessType accessType, unsigned long size);
    ~IPCCachePrivate();

    IPCCachePrivate(const IPCCachePrivate&) = delete;
    IPCCachePrivate& operator=(const IPCCachePrivate&) = delete;

    // Opens what is not open yet, under the exclusive file lock.
    void init();

    // Empties the segment. Under the exclusive file lock.
    void destroyAllObjects();

    IPCCache::AccessType accessType() const { return m_accessType; }

private:
    friend class IPCCache;
    friend struct MavixApiLite::TestAccess;

    using Manager = MavixApiLite::TCSegment;
    using WriteGuard = std::atomic<int>;

    void m_InitReader();
    void m_InitWriter();
    template <class Body>
    bool m_Try(const char* function, const char* action, const Body& body) const;
    bool m_OpenObject(const char* action);
    bool m_Map(const char* function);
    bool m_OpenSegment();
    bool m_CreateSegment(const char* function);
    void m_ConstructSegment();
    bool m_ObjectHasSize(unsigned long size) const;

    // The guard protocol of a write, under the exclusive file lock. Null, with a log line, when nothing can
    // be written.
    WriteGuard* m_BeginWrite(const char* function);
    void m_EndWrite(WriteGuard& guard) { guard.exchange(0); }
    WriteGuard* m_SettledGuard();
    WriteGuard* m_ConstructGuard();
    bool m_IsSound() const;
    void m_LogNoMemory(const char* function, unsigned long needed) const;

    // Looks a value up for a read, under the file lock; logs what is in its way.
    bool m_FindForRead(const char* function, const char* key,
                       MavixApiLite::TCSegmentView::Object& object) const;
    MavixApiLite::TCSegmentView m_View() const { return {m_Page(), m_region->get_size()}; }
    char* m_Page() const { return static_cast<char*>(m_region->get_address()); }

    const IPCCache::AccessType m_accessType;
    RobustRWLock m_lock;
    std::mutex m_mutex;
    std::unique_ptr<boost::interprocess::shared_memory_object> m_shm;
    std::unique_ptr<boost::interprocess::mapped_region> m_region;
    std::unique_ptr<Manager> m_manager;
    const std::string m_name;
    const unsigned long m_size;
};

#endif
