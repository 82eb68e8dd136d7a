#include "SegmentView.h"

#include <cstdint>

namespace MavixApiLite {

namespace Layout = SegmentLayout;

bool TCSegmentView::HasHeader() const {
    return m_size > Layout::firstBlock && Word(Layout::segmentSize) == m_size &&
           Word(Layout::reservedBytes) == Layout::headerSize - Layout::nameTree &&
           Word(Layout::allocatedBytes) < m_size;
}

TCSegmentView::Search TCSegmentView::Find(std::string_view name, Object& object) const {
    if (!HasHeader()) {
        return Search::Corrupt;
    }
    std::size_t place = Layout::nameTree + Layout::treeNode + Layout::parent;
    std::size_t distance = Word(place) & ~Layout::black;
    // No way down a sound tree is as long, and damaged ones may lead round in circles.
    for (std::size_t steps = m_size / (Layout::leastUnits * Layout::alignment); steps > 0; --steps) {
        if (distance == Layout::nullPointer) {
            return Search::Absent;
        }
        std::size_t node = 0;
        if (!NodeAt(place, distance, node)) {
            return Search::Corrupt;
        }
        // Names are ordered by their length first: most of them need not be looked at.
        const std::size_t length = m_Value<std::uint16_t>(node + Layout::nameLength);
        int order = name.size() < length ? -1 : 1;
        if (name.size() == length) {
            if (!ObjectAt(node, object)) {
                return Search::Corrupt;
            }
            order = Compare(name, object.name);
        }
        if (order == 0) {
            return Search::Found;
        }
        place = node + (order < 0 ? Layout::left : Layout::right);
        distance = Word(place);
    }
    return Search::Corrupt;
}

bool TCSegmentView::NodeAt(std::size_t place, std::size_t distance, std::size_t& node) const {
    node = place + distance;
    return node % Layout::word == 0 && node >= Layout::firstBlock && node < m_size &&
           m_size - node > Layout::value;
}

bool TCSegmentView::ObjectAt(std::size_t node, Object& object) const {
    const std::size_t left = m_size - node - Layout::value;
    object.offset = node + Layout::value;
    object.size = Word(node + Layout::valueBytes);
    object.alignment = m_Value<unsigned char>(node + Layout::valueAlignment);
    const std::size_t length = m_Value<std::uint16_t>(node + Layout::nameLength);
    // The terminator takes a byte, too.
    if (m_Value<unsigned char>(node + Layout::kind) != Layout::namedKind || object.size >= left ||
        length >= left - object.size) {
        return false;
    }
    object.name = std::string_view(m_page + object.offset + object.size, length);
    return m_page[object.offset + object.size + length] == '\0';
}

int TCSegmentView::Compare(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return a.size() < b.size() ? -1 : 1;
    }
    return std::memcmp(a.data(), b.data(), a.size());
}

} // namespace MavixApiLite
