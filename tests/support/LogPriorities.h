#ifndef MAVIX_TEST_LOG_PRIORITIES_H
#define MAVIX_TEST_LOG_PRIORITIES_H

namespace MavixTest {

// The priorities of the platform's log, written down again so that a change of the library's own shows.
constexpr int debugLine = 3;
constexpr int infoLine = 4;
constexpr int errorLine = 6;

} // namespace MavixTest

#endif
