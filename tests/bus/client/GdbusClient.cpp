#include "ClientTransport.h"

namespace MavixTest {

const TransportRow& ClientRow() {
    return gdbusRow;
}

} // namespace MavixTest
