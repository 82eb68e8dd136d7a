#include "CachePage.h"

#include "Command.h"

#include <IPCCache/Segment.h>
#include <IPCCache/SegmentCheck.h>
#include <IPCCache/SegmentView.h>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <mavix-api/Handles.h>
#include <new>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>

namespace MavixControl {

namespace {

namespace Layout = MavixApiLite::SegmentLayout;

using MavixApiLite::TCFileDescriptor;
using MavixApiLite::TCSegmentView;

constexpr std::string_view guardName = "write_guard";

// Other files than regular ones are not read: that could block, or do anything.
TCFileDescriptor Look(TSCacheFile& file, int descriptor) {
    TCFileDescriptor owned(descriptor);
    struct stat info {};
    if (!owned || ::fstat(owned.Get(), &info) != 0) {
        file.complaint = std::strerror(errno);
        return TCFileDescriptor();
    }
    if (!S_ISREG(info.st_mode)) {
        file.complaint = "not a regular file";
        return TCFileDescriptor();
    }
    file.size = static_cast<std::size_t>(info.st_size);
    file.mode = info.st_mode & 07777U;
    file.user = info.st_uid;
    file.group = info.st_gid;
    return owned;
}

// A write takes microseconds, but a writer may have been stopped in the middle of one.
void LockToRead(const TCFileDescriptor& file, const std::string& path) {
    constexpr std::chrono::seconds limit{2};
    constexpr std::chrono::milliseconds pause{1};
    const auto end = std::chrono::steady_clock::now() + limit;
    while (::flock(file.Get(), LOCK_SH | LOCK_NB) != 0) {
        if (std::chrono::steady_clock::now() >= end)
            throw TCFailure(Refused, fmt::format("{} stays locked by a writer", path));
        std::this_thread::sleep_for(pause);
    }
}

// Read and not mapped: a mapping ends its process when the object is cut.
std::string ReadAll(const TCFileDescriptor& file, std::size_t size) {
    std::string bytes(std::min(size, cachePageSize), '\0');
    const ssize_t count = ::pread(file.Get(), bytes.data(), bytes.size(), 0);
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
}

} // namespace

TCCachePage::TCCachePage(const std::string& cacheName) {
    const std::string name = cacheName.front() == '/' ? cacheName.substr(1) : cacheName;
    m_lockFile.path = fmt::format("/run/{}_cache_lock", name);
    m_object.path = "/dev/shm/" + name;
    constexpr int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;
    const TCFileDescriptor lock = Look(m_lockFile, ::open(m_lockFile.path.c_str(), flags));
    if (lock)
        LockToRead(lock, m_lockFile.path);
    const TCFileDescriptor object = Look(m_object, ::shm_open(("/" + name).c_str(), flags, 0));
    if (!object)
        return;
    m_page = ReadAll(object, m_object.size);
    m_Read();
}

void TCCachePage::m_Read() {
    const TCSegmentView view(m_page.data(), m_page.size());
    const std::size_t root = Layout::nameTree + Layout::treeNode + Layout::parent;
    m_state = EState::Damaged;
    if (!view.HasHeader() || !m_Walk(root, view.Word(root) & ~Layout::black, 0))
        return;
    m_state = EState::Unwritten;
    TCSegmentView::Object guard;
    std::int32_t value = 0;
    if (view.Find(guardName, guard) == TCSegmentView::Search::Found && guard.size == sizeof value) {
        std::memcpy(&value, m_page.data() + guard.offset, sizeof value);
        m_state = value == 0 ? EState::Complete : EState::Interrupted;
    }
    if (!IsSound())
        m_state = EState::Damaged;
}

bool TCCachePage::m_Walk(std::size_t place, std::size_t distance, unsigned int depth) {
    // No sound tree of a page is as deep or as large; damaged ones may lead to the same nodes again and
    // again.
    constexpr unsigned int deepest = 32;
    constexpr std::size_t mostNodes = cachePageSize / (Layout::leastUnits * Layout::alignment);
    const TCSegmentView view(m_page.data(), m_page.size());
    std::size_t node = 0;
    TCSegmentView::Object object;
    if (distance == Layout::nullPointer)
        return true;
    if (depth > deepest || ++m_nodes > mostNodes || !view.NodeAt(place, distance, node) ||
        !view.ObjectAt(node, object))
        return false;
    const std::size_t left = node + Layout::left;
    const std::size_t right = node + Layout::right;
    if (!m_Walk(left, view.Word(left), depth + 1))
        return false;
    if (object.name != guardName)
        m_values.push_back({std::string(object.name), m_page.substr(object.offset, object.size)});
    return m_Walk(right, view.Word(right), depth + 1);
}

bool TCCachePage::HasHeader() const {
    return TCSegmentView(m_page.data(), m_page.size()).HasHeader();
}

bool TCCachePage::IsSound() const {
    return MavixApiLite::IsSoundSegment(m_page.data(), m_page.size());
}

std::size_t TCCachePage::FreeBytes() const {
    if (!HasHeader())
        return 0;
    const std::size_t used =
        TCSegmentView(m_page.data(), m_page.size()).Word(Layout::allocatedBytes) + Layout::firstBlock;
    return m_page.size() - std::min(used, m_page.size());
}

// Tried on a copy, as the library does it: bookkeeping takes room, too, and what is free may be in pieces.
bool TCCachePage::HasRoomFor(const std::string& key, std::size_t size) const {
    std::vector<std::max_align_t> copy(m_page.size() / sizeof(std::max_align_t) + 1);
    std::memcpy(copy.data(), m_page.data(), m_page.size());
    MavixApiLite::TCSegment segment(boost::interprocess::open_only, copy.data(), m_page.size());
    segment.destroy<char>(key.c_str());
    // Boost takes a longer name for a short one.
    return size <= segment.get_free_memory() && key.size() <= Layout::longestName &&
           segment.construct<char>(key.c_str(), std::nothrow)[size]() != nullptr;
}

const char* Name(TCCachePage::EState state) {
    switch (state) {
    case TCCachePage::EState::Absent:
        return "absent";
    case TCCachePage::EState::Damaged:
        return "damaged";
    case TCCachePage::EState::Unwritten:
        return "unwritten";
    case TCCachePage::EState::Complete:
        return "complete";
    case TCCachePage::EState::Interrupted:
        return "interrupted";
    }
    return "";
}

} // namespace MavixControl
