#ifndef MAVIX_CONTROL_CACHE_PAGE_H
#define MAVIX_CONTROL_CACHE_PAGE_H

#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace MavixControl {

constexpr std::size_t cachePageSize = 4096;

// A file of a cache: whether it can be read, and who may do what with it.
struct TSCacheFile {
    std::string path;
    std::string complaint; // empty when it can be read
    std::size_t size = 0;
    unsigned int mode = 0;
    uid_t user = 0;
    gid_t group = 0;

    bool IsThere() const { return complaint.empty(); }
};

struct TSCacheValue {
    std::string key;
    std::string bytes;
};

// A copy of a cache's memory, taken under its lock where there is one. It needs no more than the right to
// read, and changes nothing. Owner: a command.
class TCCachePage final {
public:
    enum class EState {
        Absent,      // no memory
        Damaged,     // what stands there is no sound segment
        Unwritten,   // nobody has written yet
        Complete,    // the last write is complete
        Interrupted, // it is not: readers get nothing until the next one
    };

    // Throws TCFailure when the lock stays taken.
    explicit TCCachePage(const std::string& cacheName);

    const TSCacheFile& Object() const { return m_object; }
    const TSCacheFile& LockFile() const { return m_lockFile; }
    EState State() const { return m_state; }
    // As the library's writers see it.
    bool IsSound() const;
    bool HasHeader() const;
    std::size_t FreeBytes() const;
    // Whether the segment, which is sound, takes a new value of that size, or one in the place of an old one.
    bool HasRoomFor(const std::string& key, std::size_t size) const;
    // In the order of the segment; only what can be reached without running into damage.
    const std::vector<TSCacheValue>& Values() const { return m_values; }

private:
    void m_Read();
    bool m_Walk(std::size_t place, std::size_t distance, unsigned int depth);

    TSCacheFile m_object;
    TSCacheFile m_lockFile;
    std::string m_page;
    std::size_t m_nodes = 0;
    std::vector<TSCacheValue> m_values;
    EState m_state = EState::Absent;
};

const char* Name(TCCachePage::EState state);

} // namespace MavixControl

#endif
