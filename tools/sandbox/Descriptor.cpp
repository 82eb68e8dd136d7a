#include "Descriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <system_error>

namespace MavixTools {

Pipe MakePipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot create a pipe");
    return Pipe{TCDescriptor(ends[0]), TCDescriptor(ends[1])};
}

} // namespace MavixTools
