#include "ClientBus.h"

#include "ChildProgram.h"
#include "DbusConnection.h"
#include "GdbusConnection.h"
#include "IpcClient.h"
#include "IpcConfigurationMavix.h"

#include <thread>

// The end of a client that belongs to the application.

using namespace MavixTest;
using namespace MavixApiLite;
using MavixSim::Behaviour;

namespace {

constexpr EIPCMessageType data = IPC_MESSAGE_DATA;

struct {
    TCIpcClient* client = nullptr;
    TCSimDriver* service = nullptr;
    std::thread end;
    bool called = false;
} own;

bool Call(Behaviour behaviour, int parameter) {
    TCMessageBuffer input;
    TCMessageBuffer output;
    input.PushInt(parameter);
    return own.client->Call(MavixSim::testInterface, static_cast<short>(behaviour), input, output);
}

// Ends the client on another thread, which waits for this callback. Further events come before the answer.
void CallWhileTheClientEnds(int /*id*/, const char* /*data*/, int /*length*/) {
    own.end = std::thread([] { delete own.client; });
    const bool began =
        TCRecordingPlatform::Get().WaitForCalls("smart_deadlock_unregister_watchdog_service()", 1);
    for (int at = 0; at < 50; ++at) {
        own.service->Emit(data, 1, {});
    }
    own.called = began && Call(Behaviour::Delay, 200);
}

} // namespace

// Argument: the transport.
MAVIX_CHILD(EndAClientWhileItsCallbackCalls) {
    ServiceBus bus;
    std::unique_ptr<TIIpcConnection> connection;
    if (arguments.at(0) == "libdbus") {
        connection = std::make_unique<TCDbusConnection>(60, false);
    } else {
        connection = std::make_unique<TCGdbusConnection>();
    }
    own.client = new TCIpcClient(std::make_unique<IpcConfigurationMavix>("com.norvale.Mavix.SignalIFace",
                                                                         "/com/norvale/Mavix/SignalObject"),
                                 nullptr, std::move(connection));
    own.service = &bus.daemon;
    own.client->SetCallbackFunction(data, CallWhileTheClientEnds);
    // The answer comes after the rule is in place.
    if (!own.client->AddMatchRule(data, 1, MAVIXHandle{0, 0}) || !Call(Behaviour::Echo, 0)) {
        return 1;
    }
    bus.daemon.Emit(data, 1, {});
    if (!IterateUntil([] { return own.end.joinable(); })) {
        return 2;
    }
    own.end.join();
    return own.called ? 0 : 3;
}

TEST(OwnClient, EndsWhenACallbackHasItsAnswer) {
    for (const char* transport : {"gdbus", "libdbus"}) {
        const ChildResult result = RunChildProgram("EndAClientWhileItsCallbackCalls", plainFlavour,
                                                   {transport}, std::chrono::seconds(30));
        EXPECT_FALSE(result.timedOut) << transport;
        EXPECT_EQ(0, result.exitCode) << transport << ": " << result.signal << result.errors;
    }
}
