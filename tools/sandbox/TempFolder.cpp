#include "TempFolder.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace MavixTools {

namespace {

// A socket's path has to fit into 107 characters, and the socket's name follows.
constexpr std::size_t longestBase = 80;

} // namespace

TCTempFolder::TCTempFolder() {
    const std::array<const char*, 3> bases{std::getenv("XDG_RUNTIME_DIR"), std::getenv("TMPDIR"), "/tmp"};
    for (const char* base : bases) {
        if (base == nullptr || base[0] != '/')
            continue;
        std::string path = std::string(base) + "/mavix-XXXXXX";
        if (path.size() <= longestBase && ::mkdtemp(path.data()) != nullptr) {
            m_path = path;
            return;
        }
    }
    throw std::runtime_error("no writable folder in XDG_RUNTIME_DIR, TMPDIR or /tmp");
}

TCTempFolder::~TCTempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

void TCTempFolder::OpenToOtherUsers() const {
    ::chmod(m_path.c_str(), 0711);
}

} // namespace MavixTools
