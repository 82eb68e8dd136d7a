#include "ClientTransport.h"
#include "IpcClient.h"
#include "IpcConfigurationMavix.h"
#include "IteratedConnection.h"

#include <cstdlib>
#include <memory>

// A client over libdbus for the whole program. MAVIX_TEST_CONNECTION makes its connection.

namespace MavixTest {

namespace {

using MavixApiLite::IpcConfigurationMavix;
using MavixApiLite::TCDbusConnection;
using MavixApiLite::TCIpcClient;
using MavixApiLite::TIIpcClient;

std::shared_ptr<TIIpcClient>& TheClient() {
    static auto& client = *new std::shared_ptr<TIIpcClient>;
    return client;
}

void Create() {
    auto configuration = std::make_unique<IpcConfigurationMavix>("com.norvale.Mavix.SignalIFace",
                                                                 "/com/norvale/Mavix/SignalObject");
    TheClient() = std::make_shared<TCIpcClient>(std::move(configuration), g_main_context_default(),
                                                MAVIX_TEST_CONNECTION);
    std::atexit([] { TheClient().reset(); });
}

} // namespace

const TransportRow& ClientRow() {
    return libdbusRow;
}

// The linker puts this in the place of TCIpcClientInstance's function.
std::shared_ptr<TIIpcClient>
GetInstance() asm("__wrap__ZN12MavixApiLite19TCIpcClientInstance11GetInstanceEv");

std::shared_ptr<TIIpcClient> GetInstance() {
    static const bool created = [] {
        Create();
        return true;
    }();
    static_cast<void>(created);
    return TheClient();
}

} // namespace MavixTest
