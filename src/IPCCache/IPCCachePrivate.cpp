#include "IPCCachePrivate.h"

#include "CacheLog.h"
#include "Handles.h"
#include "SegmentCheck.h"

#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/version.hpp>
#include <cerrno>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace ipc = boost::interprocess;
namespace Layout = MavixApiLite::SegmentLayout;

using MavixApiLite::IsSoundSegment;
using MavixApiLite::TCFileDescriptor;
using MavixApiLite::TCSegmentView;
using Search = TCSegmentView::Search;

namespace {

constexpr const char* guardName = "write_guard";
constexpr const char* initFunction = "init";
constexpr mode_t objectMode = 0644;

bool IsRegularFile(int descriptor) {
    struct stat info {};
    return fstat(descriptor, &info) == 0 && S_ISREG(info.st_mode);
}

void RequireRegularFile(int descriptor) {
    if (!IsRegularFile(descriptor)) {
        throw ipc::interprocess_exception("not a regular file");
    }
}

// Anybody may make a file in the folder of shared memory. Opening one that is a pipe would block, and with it
// every process that waits for the lock.
void RequireRegularObject(const char* name) {
    const TCFileDescriptor object(shm_open(name, O_RDONLY | O_NONBLOCK, 0));
    if (object) {
        RequireRegularFile(object.Get());
    }
}

// The memory is there before anybody writes to it: a full file system fails here and not with a signal.
void SetSize(int descriptor, unsigned long size) {
    int error = 0;
    do {
        error = posix_fallocate(descriptor, 0, static_cast<off_t>(size));
    } while (error == EINTR);
    const bool isSupported = error != EOPNOTSUPP && error != EINVAL && error != ENODEV;
    if (error != 0 && isSupported) {
        throw ipc::interprocess_exception(ipc::error_info(error));
    }
    while (ftruncate(descriptor, static_cast<off_t>(size)) != 0) {
        if (errno != EINTR) {
            throw ipc::interprocess_exception(ipc::error_info(errno));
        }
    }
}

} // namespace

IPCCachePrivate::IPCCachePrivate(const std::string& name, IPCCache::AccessType accessType, unsigned long size)
    : m_accessType(accessType), m_lock(name), m_name(name), m_size(size) {
    static_assert(BOOST_VERSION < 108700, "SegmentLayout describes the segments of older versions");
    static_assert(sizeof(Manager::segment_manager) == Layout::headerSize);
    static_assert(sizeof(Manager::memory_algorithm) == Layout::nameTree);
    static_assert(Manager::memory_algorithm::Alignment == Layout::alignment);
    static_assert(sizeof(ipc::ipcdetail::block_header<Manager::size_type>) ==
                  Layout::value - Layout::valueBytes);
    m_lock.init();
    init();
}

IPCCachePrivate::~IPCCachePrivate() = default;

void IPCCachePrivate::init() {
    if (m_manager) {
        return;
    }
    CACHE_LOGD("%s.lock()", m_name.c_str());
    if (!m_lock.lock()) {
        CACHE_LOGE("%s", "Failed to lock on init");
        return;
    }
    const ipc::scoped_lock<RobustRWLock> lock(m_lock, ipc::accept_ownership);
    if (m_accessType == IPCCache::AccessType::Read) {
        m_InitReader();
    } else {
        m_InitWriter();
    }
}

void IPCCachePrivate::m_InitReader() {
    if ((m_shm || m_OpenObject("open")) && (m_region || m_Map(initFunction)) && !m_OpenSegment()) {
        // The writer may yet change the object's size.
        m_region.reset();
    }
}

void IPCCachePrivate::m_InitWriter() {
    // What an earlier attempt has opened is taken as it is.
    bool isAsExpected = true;
    if (!m_shm) {
        if (!m_OpenObject("construct/open")) {
            return;
        }
        isAsExpected = m_ObjectHasSize(m_size);
    }
    if (isAsExpected) {
        if (!m_region && !m_Map(initFunction)) {
            return;
        }
        if (m_View().HasHeader()) {
            if (m_OpenSegment()) {
                CACHE_LOG_AS(MAVIX_LOG_DEBUG, initFunction, "Opened shmManager:%p",
                             static_cast<void*>(m_manager.get()));
            }
            return;
        }
    }
    m_CreateSegment(initFunction);
}

template <class Body>
bool IPCCachePrivate::m_Try(const char* function, const char* action, const Body& body) const {
    try {
        body();
        return true;
    } catch (const std::exception& error) {
        CACHE_LOG_AS(MAVIX_LOG_ERROR, function, "Exception: Failed to %s: %s", action, error.what());
        return false;
    }
}

bool IPCCachePrivate::m_OpenObject(const char* action) {
    CACHE_LOG_AS(MAVIX_LOG_DEBUG, initFunction, "%s shm:%s", action, m_name.c_str());
    return m_Try(initFunction, "create shm object", [this] {
        RequireRegularObject((m_name[0] == '/' ? m_name : "/" + m_name).c_str());
        auto object =
            m_accessType == IPCCache::AccessType::Read
                ? std::make_unique<ipc::shared_memory_object>(ipc::open_only, m_name.c_str(), ipc::read_only)
                : std::make_unique<ipc::shared_memory_object>(ipc::open_or_create, m_name.c_str(),
                                                              ipc::read_write, ipc::permissions(objectMode));
        RequireRegularFile(object->get_mapping_handle().handle);
        m_shm = std::move(object);
    });
}

bool IPCCachePrivate::m_Map(const char* function) {
    return m_Try(function, "map shm region",
                 [this] { m_region = std::make_unique<ipc::mapped_region>(*m_shm, m_shm->get_mode()); });
}

bool IPCCachePrivate::m_OpenSegment() {
    return m_Try(initFunction, "create shm manager", [this] {
        if (!m_View().HasHeader()) {
            throw ipc::interprocess_exception("no segment");
        }
        m_manager = std::make_unique<Manager>(ipc::open_only, m_Page(), m_region->get_size());
    });
}

bool IPCCachePrivate::m_CreateSegment(const char* function) {
    m_manager.reset();
    m_region.reset();
    CACHE_LOG_AS(MAVIX_LOG_DEBUG, function, "Truncate shm object to: %zu", static_cast<std::size_t>(m_size));
    if (!m_Try(function, "create shm object",
               [this] { SetSize(m_shm->get_mapping_handle().handle, m_size); })) {
        // The next attempt begins anew.
        m_shm.reset();
        return false;
    }
    if (!m_Map(function) || !m_Try(function, "create shm manager", [this] { m_ConstructSegment(); })) {
        return false;
    }
    CACHE_LOG_AS(MAVIX_LOG_DEBUG, function, "Created shmManager:%p", static_cast<void*>(m_manager.get()));
    return true;
}

// A process that dies in here leaves a page that nobody takes for a segment: its size says so from the first
// moment, and its trees lead nowhere until the segment is there.
void IPCCachePrivate::m_ConstructSegment() {
    const std::size_t size = m_region->get_size();
    if (size > Layout::firstBlock) {
        *reinterpret_cast<volatile std::size_t*>(m_Page() + Layout::segmentSize) = 0;
    }
    std::atomic_signal_fence(std::memory_order_seq_cst);
    std::memset(m_Page(), 0, size);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    Manager created(ipc::create_only, m_Page(), size);
    // In place of an older one nothing is allocated, and so nothing can fail.
    if (m_manager) {
        m_manager->swap(created);
    } else {
        m_manager = std::make_unique<Manager>(std::move(created));
    }
}

bool IPCCachePrivate::m_ObjectHasSize(unsigned long size) const {
    struct stat info {};
    return fstat(m_shm->get_mapping_handle().handle, &info) == 0 && info.st_size == static_cast<off_t>(size);
}

bool IPCCachePrivate::m_IsSound() const {
    TCSegmentView::Object guard;
    return IsSoundSegment(m_Page(), m_region->get_size()) &&
           (m_View().Find(guardName, guard) == Search::Absent ||
            (guard.size == sizeof(WriteGuard) && guard.alignment == alignof(WriteGuard) &&
             guard.offset % alignof(WriteGuard) == 0));
}

void IPCCachePrivate::destroyAllObjects() {
    if (!m_manager) {
        return;
    }
    if (!m_IsSound()) {
        m_Try(__FUNCTION__, "create shm manager", [this] { m_ConstructSegment(); });
        return;
    }
    Manager::segment_manager& segment = *m_manager->get_segment_manager();
    while (const std::size_t count = segment.get_num_named_objects()) {
        const std::string name(segment.named_begin()->name());
        CACHE_LOGI("Delete object:%s from shm:%s", name.c_str(), m_name.c_str());
        if (name == guardName) {
            m_manager->destroy<WriteGuard>(name.c_str());
        } else {
            m_manager->destroy<char>(name.c_str());
        }
        if (m_manager->find<char>(name.c_str()).first != nullptr) {
            CACHE_LOGI("Failed to remove %s", name.c_str());
        }
        // What cannot be destroyed goes with the segment.
        if (segment.get_num_named_objects() >= count) {
            m_Try(__FUNCTION__, "create shm manager", [this] { m_ConstructSegment(); });
            return;
        }
    }
}

IPCCachePrivate::WriteGuard* IPCCachePrivate::m_ConstructGuard() {
    return m_manager->construct<WriteGuard>(guardName, std::nothrow)(0);
}

// The guard, if the last write has completed.
IPCCachePrivate::WriteGuard* IPCCachePrivate::m_SettledGuard() {
    if (!m_IsSound()) {
        return nullptr;
    }
    TCSegmentView::Object found;
    if (m_View().Find(guardName, found) == Search::Found) {
        auto* guard = reinterpret_cast<WriteGuard*>(m_Page() + found.offset);
        return guard->load() == 0 ? guard : nullptr;
    }
    // Values without a guard are what a process left that died while it removed them all.
    return m_manager->get_num_named_objects() == 0 ? m_ConstructGuard() : nullptr;
}

IPCCachePrivate::WriteGuard* IPCCachePrivate::m_BeginWrite(const char* function) {
    // Every write asks, and the end of the file is found in half the time of its status.
    const bool hasObject =
        lseek(m_shm->get_mapping_handle().handle, 0, SEEK_END) == static_cast<off_t>(m_region->get_size());
    WriteGuard* guard = hasObject ? m_SettledGuard() : nullptr;
    if (guard == nullptr) {
        CACHE_LOG_AS(
            MAVIX_LOG_WARNING, function,
            "Last write operation left data in corrupted state, all data saved in shm:%s will be removed",
            m_name.c_str());
        if (hasObject) {
            destroyAllObjects();
        } else if (!m_CreateSegment(function)) {
            return nullptr;
        }
        guard = m_ConstructGuard();
        if (guard == nullptr) {
            m_LogNoMemory(function, sizeof(WriteGuard));
            return nullptr;
        }
    }
    guard->exchange(1);
    return guard;
}

void IPCCachePrivate::m_LogNoMemory(const char* function, unsigned long needed) const {
    CACHE_LOG_AS(MAVIX_LOG_ERROR, function, "No free memory in shm:%s, currently available %zu needed %zu",
                 m_name.c_str(), static_cast<std::size_t>(m_manager->get_free_memory()),
                 static_cast<std::size_t>(needed));
}

bool IPCCachePrivate::m_FindForRead(const char* function, const char* key,
                                    TCSegmentView::Object& object) const {
    const TCSegmentView view = m_View();
    TCSegmentView::Object guard;
    const bool isSettled = view.Find(guardName, guard) == Search::Found && guard.size == sizeof(WriteGuard) &&
                           guard.offset % alignof(WriteGuard) == 0 &&
                           reinterpret_cast<const WriteGuard*>(m_Page() + guard.offset)->load() == 0;
    const Search search = isSettled ? view.Find(key, object) : Search::Corrupt;
    if (search == Search::Corrupt) {
        CACHE_LOG_AS(MAVIX_LOG_WARNING, function, "Last write op failed to complete on shm:%s",
                     m_name.c_str());
        return false;
    }
    // The guard is no value.
    if (search == Search::Absent || object.offset == guard.offset) {
        CACHE_LOG_AS(MAVIX_LOG_WARNING, function, "Trying to get non existing data:%s from shm:%s", key,
                     m_name.c_str());
        return false;
    }
    return true;
}
