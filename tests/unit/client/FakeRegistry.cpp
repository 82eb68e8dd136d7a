#include "FakeRegistry.h"

#include <stdexcept>

namespace MavixTest {

std::shared_ptr<MavixApiLite::TIIpcClient> FakeRegistry::client;
bool FakeRegistry::isGone = false;
bool FakeRegistry::isForkedChild = false;
bool FakeRegistry::fails = false;

// The linker puts these in the place of TCIpcClientInstance's functions.
std::shared_ptr<MavixApiLite::TIIpcClient>
FakeGetInstance() asm("__wrap__ZN12MavixApiLite19TCIpcClientInstance11GetInstanceEv");
bool FakeIsGone() asm("__wrap__ZN12MavixApiLite19TCIpcClientInstance6IsGoneEv");
bool FakeIsForkedChild() asm("__wrap__ZN12MavixApiLite19TCIpcClientInstance13IsForkedChildEv");

std::shared_ptr<MavixApiLite::TIIpcClient> FakeGetInstance() {
    if (FakeRegistry::fails) {
        throw std::runtime_error("no thread");
    }
    return FakeRegistry::client;
}

bool FakeIsGone() {
    return FakeRegistry::isGone;
}

bool FakeIsForkedChild() {
    return FakeRegistry::isForkedChild;
}

} // namespace MavixTest
