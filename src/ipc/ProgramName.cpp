#include "ProgramName.h"

#include "Handles.h"

extern "C" const char* __progname;

namespace MavixApiLite {

const std::string& ProgramName() {
    static const std::string& name = *new std::string(TextHandle(g_utf8_make_valid(__progname, -1)).get());
    return name;
}

} // namespace MavixApiLite
