#include "Platform.h"
#include "Sockets.h"

#include <cstdlib>
#include <gmock/gmock.h>

// This program's own log, which takes the place of the platform's for the platform itself too.

static int s_lines = 0;

extern "C" __attribute__((visibility("default"))) int
__dlog_print(int /*logId*/, int /*priority*/, const char* /*tag*/, const char* /*format*/, ...) {
    ++s_lines;
    return 0;
}

namespace {

TEST(HostPlatform, FunctionThatTheProgramDefinesReplacesThePlatforms) {
    const TestFolder folder;
    WriteFile(folder / "broken.conf", "no key file");
    ::setenv("MAVIX_SYSTEM_INFO", (folder / "broken.conf").c_str(), 1);
    bool value = false;
    EXPECT_LT(system_info_get_custom_bool("key", &value), 0);
    EXPECT_EQ(s_lines, 1);
}

} // namespace
