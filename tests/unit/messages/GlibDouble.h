#ifndef MAVIX_TEST_GLIB_DOUBLE_H
#define MAVIX_TEST_GLIB_DOUBLE_H

#include <glib.h>

#include <vector>

namespace MavixTest::GlibDouble {

// Stands between the library and a few functions of GLib and of the system in this program.
void Reset();
// The intervals of the timeout sources that were made since, in milliseconds.
std::vector<guint> TimeoutIntervals();
// Whether contexts and loops can be made.
void SetContextsFail(bool fail);
void SetLoopsFail(bool fail);
// Whether threads can be started.
void SetThreadsFail(bool fail);

} // namespace MavixTest::GlibDouble

#endif
