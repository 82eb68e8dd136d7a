#ifndef MAVIX_SEGMENT_VIEW_H
#define MAVIX_SEGMENT_VIEW_H

#include "SegmentLayout.h"

#include <cstring>
#include <string_view>

namespace MavixApiLite {

// Reads a managed segment without trusting a byte of it: whatever stands there, nothing outside the page is
// touched and every look-up ends. Owns nothing and allocates nothing. The page's lock is the caller's
// concern.
class TCSegmentView final {
public:
    enum class Search { Found, Absent, Corrupt };

    // A named object: where its value lies in the page, and its name.
    struct Object {
        std::size_t offset = 0;
        std::size_t size = 0;
        std::size_t alignment = 0;
        std::string_view name;
    };

    TCSegmentView(const void* page, std::size_t size)
        : m_page(static_cast<const char*>(page)), m_size(size) {}

    // Whether the page begins like a segment that fills it.
    bool HasHeader() const;
    Search Find(std::string_view name, Object& object) const;

    // The word at a place, the node that a distance leads to from there, and the object whose node it is. The
    // latter two are false where that, or what belongs to it, does not lie behind the header and in the page.
    std::size_t Word(std::size_t offset) const { return m_Value<std::size_t>(offset); }
    bool NodeAt(std::size_t place, std::size_t distance, std::size_t& node) const;
    bool ObjectAt(std::size_t node, Object& object) const;

    // The order of names in the tree: by length first. Negative, 0 or positive.
    static int Compare(std::string_view a, std::string_view b);

private:
    template <class T>
    T m_Value(std::size_t offset) const {
        T value;
        std::memcpy(&value, m_page + offset, sizeof value);
        return value;
    }

    const char* m_page;
    std::size_t m_size;
};

} // namespace MavixApiLite

#endif
