#include "IpcConnection.h"

namespace MavixApiLite {

TIIpcConnectionOwner::~TIIpcConnectionOwner() = default;

TIIpcConnection::~TIIpcConnection() = default;

} // namespace MavixApiLite
