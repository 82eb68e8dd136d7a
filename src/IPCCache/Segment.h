#ifndef MAVIX_SEGMENT_H
#define MAVIX_SEGMENT_H

#include <boost/interprocess/managed_external_buffer.hpp>

namespace MavixApiLite {

// The segment of named objects that a cache's page holds. The file lock guards it, not a mutex of its own.
using TCSegment = boost::interprocess::basic_managed_external_buffer<
    char,
    boost::interprocess::rbtree_best_fit<boost::interprocess::null_mutex_family,
                                         boost::interprocess::offset_ptr<void>>,
    boost::interprocess::iset_index>;

} // namespace MavixApiLite

#endif
