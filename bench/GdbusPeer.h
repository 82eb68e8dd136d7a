#ifndef MAVIX_BENCH_GDBUS_PEER_H
#define MAVIX_BENCH_GDBUS_PEER_H

#include "Handles.h"

namespace MavixBench {

// A connection of plain GDBus to the system bus. A failure is thrown as std::runtime_error.
MavixApiLite::ObjectHandle<GDBusConnection> ConnectGdbus();

} // namespace MavixBench

#endif
