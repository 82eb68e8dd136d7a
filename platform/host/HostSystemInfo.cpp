#include "HostSupport.h"

#include <cstdlib>
#include <glib.h>
#include <memory>

// Feature flags come from a key file:
//
//   [features]
//   com.norvale/featureconf/broadcasting.mavix_supported=true
//
// It is read on each call; callers cache what they got.

namespace MavixPlatformHost {

namespace {

constexpr const char* DefaultFile = "/etc/mavix/system-info.conf";
constexpr const char* Group = "features";

struct Release {
    void operator()(GKeyFile* file) const { g_key_file_unref(file); }
    void operator()(GError* error) const { g_error_free(error); }
};
using ErrorHandle = std::unique_ptr<GError, Release>;

// What is there and cannot be understood is told; what is absent is a normal answer.
int Refuse(const char* file, const GError& error, int result) {
    MAVIX_HOST_LOG(MAVIX_LOG_WARNING, "HostSystemInfo", "%s: %s", file, error.message);
    return result;
}

int ReadFlag(const char* file, const char* key, bool& value) {
    const std::unique_ptr<GKeyFile, Release> keys(g_key_file_new());
    GError* raised = nullptr;
    if (g_key_file_load_from_file(keys.get(), file, G_KEY_FILE_NONE, &raised) == FALSE) {
        const ErrorHandle error(raised);
        const bool isAbsent = g_error_matches(raised, G_FILE_ERROR, G_FILE_ERROR_NOENT) != FALSE;
        return isAbsent ? -ENOENT : Refuse(file, *error, raised->domain == G_FILE_ERROR ? -EIO : -EINVAL);
    }
    const bool read = g_key_file_get_boolean(keys.get(), Group, key, &raised) != FALSE;
    if (raised != nullptr) {
        const ErrorHandle error(raised);
        const bool isAbsent =
            g_error_matches(raised, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_GROUP_NOT_FOUND) != FALSE ||
            g_error_matches(raised, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_KEY_NOT_FOUND) != FALSE;
        return isAbsent ? -ENOENT : Refuse(file, *error, -EINVAL);
    }
    value = read;
    return 0;
}

} // namespace

} // namespace MavixPlatformHost

int system_info_get_custom_bool(const char* key, bool* value) {
    using namespace MavixPlatformHost;
    if (key == nullptr || value == nullptr) {
        return -EINVAL;
    }
    const char* file = ::secure_getenv("MAVIX_SYSTEM_INFO");
    return ReadFlag(file != nullptr && *file != '\0' ? file : DefaultFile, key, *value);
}
