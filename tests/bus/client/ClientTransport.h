#ifndef MAVIX_TEST_CLIENT_TRANSPORT_H
#define MAVIX_TEST_CLIENT_TRANSPORT_H

#include "TransportTable.h"

namespace MavixTest {

// The transport of the client behind the flat functions. A program has one of the files ...Client.cpp, which
// define this function; those of libdbus also put a client of their own in the place of the process's.
const TransportRow& ClientRow();

} // namespace MavixTest

#endif
