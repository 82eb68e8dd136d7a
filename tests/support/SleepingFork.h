#ifndef MAVIX_TEST_SLEEPING_FORK_H
#define MAVIX_TEST_SLEEPING_FORK_H

#include <sys/types.h>

namespace MavixTest {

// Forks. Under AddressSanitizer it does so while all other threads of the process sleep: the locks of that
// allocator are not given back in a child, which would wait for ever for one that another thread held.
// Negative when they do not come to rest, or the fork fails.
pid_t ForkWhileOthersSleep();

} // namespace MavixTest

#endif
