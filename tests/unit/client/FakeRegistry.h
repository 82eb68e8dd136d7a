#ifndef MAVIX_TEST_FAKE_REGISTRY_H
#define MAVIX_TEST_FAKE_REGISTRY_H

#include "IpcClientInterface.h"

#include <memory>

namespace MavixTest {

// Stands in the place of the instance registry in a program that is linked for it: the flat functions get the
// client that a test gives them. One thread.
struct FakeRegistry {
    static std::shared_ptr<MavixApiLite::TIIpcClient> client;
    static bool isGone;
    static bool isForkedChild;
    static bool fails; // asking throws
};

} // namespace MavixTest

#endif
