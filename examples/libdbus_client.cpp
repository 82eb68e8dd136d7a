// A client of one's own over the transport of libdbus, beside the process-wide one, which uses GDBus.

#include <mavix-api/DbusConnection.h>
#include <mavix-api/IpcClient.h>
#include <mavix-api/IpcConfigurationMavix.h>
#include <mavix-api/MessageBuffer.h>

#include <cstdio>
#include <memory>

using namespace MavixApiLite;

int main() {
    // Ten attempts, a second apart, and a dispatch thread of its own. With `true` everything would be
    // dispatched on the default main context, which another thread would then have to iterate.
    auto connection = std::make_unique<TCDbusConnection>(10, false);
    auto configuration = std::make_unique<IpcConfigurationMavix>("com.norvale.Mavix.SignalIFace",
                                                                 "/com/norvale/Mavix/SignalObject");
    TCIpcClient client(std::move(configuration), g_main_context_default(), std::move(connection));

    TCMessageBuffer input;
    TCMessageBuffer output;
    input.PushConcatenated(5, "hello");
    if (!client.Call("com.norvale.IAVControl", 1, input, output)) {
        std::fputs("the service did not answer\n", stderr);
        return 1;
    }
    std::printf("the service answered over libdbus: %.*s\n", static_cast<int>(output.PayloadSize()),
                output.GetAsCStr(0));
    return 0;
}
