#ifndef MAVIX_IPC_UTILITY_H
#define MAVIX_IPC_UTILITY_H

#include "Export.h"

#include <string>

struct DBusMessageIter;

// The name under which the process was invoked.
MAVIX_API_EXPORT std::string get_current_process_name();

namespace MavixApiLite {

// Names of processes and connections, and a look at a message of libdbus. All functions may be called from
// any thread.
class MAVIX_API_EXPORT TCIPCUtility {
public:
    // First element of a process's command line, usually its path; empty, with an error line, when the
    // process does not exist or has none. Where it cannot be read, the name of the file that should say it.
    static std::string GetProcessName(int pid);
    // The unique connection name behind a name that GenerateSubConnectionName made; empty when it is none.
    static std::string ConnectionNameToSenderString(const std::string& name);
    // The bus name that a client with this unique connection name owns, at most 255 characters:
    // ":1.234" becomes "com.norvale.Mavix.Signal.mavix1.mavix234".
    static std::string GenerateSubConnectionName(const std::string& uniqueName);
    // Whether the argument under the iterator has the D-Bus type code `expectedType`; with `advance` it is
    // the next one, which need not exist.
    static bool m_CheckArgumentType(DBusMessageIter& iterator, int expectedType, bool advance);
};

} // namespace MavixApiLite

#endif
