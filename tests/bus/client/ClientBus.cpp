#include "ClientBus.h"

#include <glib.h>

namespace MavixTest {

using MavixSim::Behaviour;

ServiceBus::ServiceBus() : service(bus, {"--respawn"}, true) {
    // Nothing that a peer or an application does may make GLib complain.
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));
}

ServiceBus& ServiceBus::OfProcess() {
    static ServiceBus bus;
    return bus;
}

std::string ServiceBus::FindClient() {
    EXPECT_TRUE(Settle());
    return daemon.Records().back().at("sender");
}

RawCall PeerCall(const std::string& destination, const char* interface, const std::string& member) {
    RawCall call;
    call.destination = destination;
    call.path = "/";
    if (interface != nullptr) {
        call.interface = interface;
    } else {
        call.interface.reset();
    }
    call.member = member;
    call.body = [](sd_bus_message*) {};
    return call;
}

RawCall IntrospectionOf(const std::string& client) {
    return PeerCall(client, "org.freedesktop.DBus.Introspectable", "Introspect");
}

CallResult Call(const std::string& interface, short code, const Bytes& input) {
    void* output = &output;
    unsigned int length = ~0U;
    CallResult result;
    result.success = IPCConnection__Call(interface.c_str(), code, input.data(),
                                         static_cast<int>(input.size()), &output, &length);
    if (output != nullptr) {
        const auto* bytes = static_cast<const std::uint8_t*>(output);
        result.output.emplace(bytes, bytes + length);
    } else {
        EXPECT_EQ(0U, length);
    }
    IPCConnection__CallDisposeOutputBuffer(output);
    return result;
}

CallResult Call(Behaviour behaviour, const Bytes& parameter) {
    return Call(MavixSim::testInterface, static_cast<short>(behaviour), parameter);
}

bool CallAsync(const std::string& interface, short code, const Bytes& input) {
    return IPCConnection__CallAsync(interface.c_str(), code, input.data(), static_cast<int>(input.size()));
}

bool Settle() {
    return Call(Behaviour::Echo).success;
}

bool IterateUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    bool expired = false;
    const auto expire = [](gpointer flag) -> gboolean {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_CONTINUE;
    };
    const guint timer = g_timeout_add(static_cast<guint>(limit.count()), expire, &expired);
    while (!condition() && !expired) {
        g_main_context_iteration(nullptr, TRUE);
    }
    g_source_remove(timer);
    return condition();
}

void ForgetBus(const char* busName) {
    ServiceBus& bus = ServiceBus::OfProcess();
    const bool session = std::string(busName) == sessionBus;
    TCSimDriver& driver = session ? bus.lite : bus.daemon;
    const std::string client = bus.FindClient();
    // Functions that change nothing.
    ASSERT_TRUE(session ? Call(sessionBus, 5).success : Call(Behaviour::Echo).success);
    const std::string line = std::string("[API_LITE] Owner of bus name: ") + busName + " has been removed";
    TCRecordingPlatform& platform = TCRecordingPlatform::Get();
    const std::size_t before = platform.Count(4, line);
    driver.DropName(busName);
    ASSERT_TRUE(platform.WaitFor(line, before + 1));
    driver.TakeName(busName);
    // The client may have got a notice of that, too: it is handled before what comes after it.
    ASSERT_FALSE(bus.peer.Call(IntrospectionOf(client)).IsError());
}

ClientBusTest::ClientBusTest() {
    m_bus.daemon.ClearReplies();
    m_bus.daemon.ClearRecords();
    m_bus.lite.ClearRecords();
}

ClientBusTest::~ClientBusTest() {
    for (int type = 0; type < IPC_MESSAGE_MAX; ++type) {
        IPCConnection__UnsetCallbackFunction(static_cast<EIPCMessageType>(type));
    }
}

std::vector<std::string> ClientBusTest::Errors() const {
    std::vector<std::string> errors;
    for (const LogLine& line : m_platform.Lines()) {
        if (line.priority == 6 && line.text.find("tarted main loop: ") == std::string::npos &&
            line.text != "[API_LITE] No such type. 'NameAcquired'") {
            errors.push_back(line.source + "|" + line.text);
        }
    }
    return errors;
}

} // namespace MavixTest
