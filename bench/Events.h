#ifndef MAVIX_BENCH_EVENTS_H
#define MAVIX_BENCH_EVENTS_H

#include "Numbers.h"

namespace MavixBench {

// What the event sender sends, and its receivers ask for.
constexpr const char* eventObject = "/com/norvale/Mavix/SignalObject";
constexpr const char* eventInterface = "com.norvale.Mavix.SignalIFace";
constexpr const char* eventMember = "Data";

} // namespace MavixBench

#endif
