#ifndef MAVIX_SEGMENT_CHECK_H
#define MAVIX_SEGMENT_CHECK_H

#include <cstddef>

namespace MavixApiLite {

// Whether the page holds a segment that is whole: its blocks, the tree of the free ones and the tree of names
// agree with each other in every respect on which Boost.Interprocess relies when it changes them. Reads
// nothing outside the page and always ends.
bool IsSoundSegment(const void* page, std::size_t size);

} // namespace MavixApiLite

#endif
