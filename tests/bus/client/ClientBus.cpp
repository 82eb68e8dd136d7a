#include "ClientBus.h"

#include <glib.h>

#include <cstring>

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

Bytes IntBytes(std::int32_t value) {
    Bytes bytes(sizeof value);
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

Bytes TextBytes(const std::string& text) {
    return {text.begin(), text.end()};
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
    ASSERT_TRUE(Call(session ? sessionBus : MavixSim::testInterface, 0).success);
    const std::string line = std::string("[API_LITE] Owner of bus name: ") + busName + " has been removed";
    TCRecordingPlatform& platform = TCRecordingPlatform::Get();
    const std::size_t before = platform.Count(4, line);
    driver.DropName(busName);
    ASSERT_TRUE(platform.WaitFor(line, before + 1));
    driver.TakeName(busName);
}

ClientBusTest::ClientBusTest() {
    EXPECT_TRUE(Settle());
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
