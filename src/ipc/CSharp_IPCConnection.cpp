#include "CSharp_IPCConnection.h"

#include "Export.h"

#include <cstdlib>

extern "C" {

MAVIX_API_EXPORT void TCFreeMemory(void* memory) {
    std::free(memory);
}

} // extern "C"
