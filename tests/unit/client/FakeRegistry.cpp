#include "FakeRegistry.h"

namespace MavixTest {

std::shared_ptr<MavixApiLite::TIIpcClient> FakeRegistry::client;
bool FakeRegistry::isGone = false;

// The linker puts these in the place of TCIpcClientInstance's functions.
std::shared_ptr<MavixApiLite::TIIpcClient>
FakeGetInstance() asm("__wrap__ZN12MavixApiLite19TCIpcClientInstance11GetInstanceEv");
bool FakeIsGone() asm("__wrap__ZN12MavixApiLite19TCIpcClientInstance6IsGoneEv");

std::shared_ptr<MavixApiLite::TIIpcClient> FakeGetInstance() {
    return FakeRegistry::client;
}

bool FakeIsGone() {
    return FakeRegistry::isGone;
}

} // namespace MavixTest
