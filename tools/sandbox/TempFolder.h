#ifndef MAVIX_TOOLS_TEMP_FOLDER_H
#define MAVIX_TOOLS_TEMP_FOLDER_H

#include "Descriptor.h"

#include <string>
#include <sys/types.h>

namespace MavixTools {

// A private folder under XDG_RUNTIME_DIR, TMPDIR or /tmp, the first that can be written to; removed, with
// what it holds, by the destructor. Its owner holds a lock on it, by which the next one knows, and removes,
// what a killed process has left in these places that nobody has cleared up after.
class TCTempFolder final {
public:
    // Throws std::runtime_error when there is no such place.
    TCTempFolder();
    TCTempFolder(const TCTempFolder&) = delete;
    TCTempFolder& operator=(const TCTempFolder&) = delete;
    ~TCTempFolder();

    const std::string& Path() const { return m_path; }
    // Lets other users reach the files whose names they know.
    void OpenToOtherUsers() const;

    // Removes what a process has left that has ended.
    static void RemoveThoseOf(pid_t ended);

private:
    std::string m_path;
    TCDescriptor m_lock;
};

} // namespace MavixTools

#endif
