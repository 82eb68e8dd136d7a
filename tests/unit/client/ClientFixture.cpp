#include "ClientFixture.h"

namespace MavixTest {

using MavixApiLite::TCIpcClient;
using MavixApiLite::TCMessageBuffer;
using MavixApiLite::TIIpcMessage;

std::unique_ptr<MavixApiLite::IpcConfiguration> MavixConfiguration() {
    return std::make_unique<MavixApiLite::IpcConfigurationMavix>("com.norvale.Mavix.SignalIFace",
                                                                 "/com/norvale/Mavix/SignalObject");
}

FakedClient::FakedClient(std::unique_ptr<MavixApiLite::IpcConfiguration> configuration)
    : m_context(g_main_context_new()), m_connection(*new HookedConnection),
      m_client(std::make_unique<TCIpcClient>(std::move(configuration), m_context.get(),
                                             std::unique_ptr<MavixApiLite::TIIpcConnection>(&m_connection))) {
    // Nothing that a peer or an application does may make GLib complain.
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK | G_LOG_LEVEL_CRITICAL));
    m_connection.onSend = [this](TIIpcMessage& message) {
        TIIpcMessage::IpcMessageType type = TIIpcMessage::MethodCall;
        if (message.IsOfType(&type, nullptr, nullptr)) {
            m_Keep(TakeApart(message));
        }
        return true;
    };
}

void FakedClient::AnswerWith(const std::function<WireMessage()>& reply) {
    m_connection.onSendWithReply = [this, reply](TIIpcMessage& message) {
        m_Keep(TakeApart(message));
        Adopt(message, reply());
        return true;
    };
}

void FakedClient::m_Keep(Request request) {
    const std::lock_guard<std::mutex> lock(m_requestsMutex);
    m_requests.push_back(std::move(request));
}

bool FakedClient::Call(const std::string& interfaceName, short code, const Bytes& input, Bytes& output) {
    TCMessageBuffer in;
    TCMessageBuffer out;
    in.PushConcatenated(input.size(), input.data());
    out.PushConcatenated(output.size(), output.data());
    const bool result = m_client->Call(interfaceName, code, in, out);
    output.resize(out.PayloadSize());
    out.CopyData(output.data(), static_cast<unsigned int>(output.size()), 0);
    return result;
}

bool FakedClient::CallAsync(const std::string& interfaceName, short code, const Bytes& input) {
    TCMessageBuffer in;
    in.PushConcatenated(input.size(), input.data());
    return m_client->CallAsync(interfaceName, code, in);
}

void FakedClient::Handle(WireMessage event) {
    MavixApiLite::TestAccess::MessageHandler(*m_client, *Received(std::move(event)));
}

bool FakedClient::Filter(WireMessage message) {
    return Owner().FilterIpcMessage(*Received(std::move(message)));
}

void FakedClient::DeliverEvents() {
    while (g_main_context_iteration(m_context.get(), FALSE) != FALSE) {
    }
}

ClientTest::ClientTest(std::unique_ptr<MavixApiLite::IpcConfiguration> configuration)
    : FakedClient(std::move(configuration)) {}

std::vector<std::string> LogFrom(int priority) {
    std::vector<std::string> lines;
    for (const LogLine& line : TCRecordingPlatform::Get().Lines()) {
        if (line.priority >= priority) {
            const std::string tag = line.tag == "MAVIX_API" ? "" : "tag " + line.tag + "|";
            lines.push_back(tag + std::to_string(line.priority) + "|" + line.source + "|" + line.text);
        }
    }
    return lines;
}

std::vector<std::string> Errors() {
    std::vector<std::string> lines = LogFrom(6);
    for (std::string& line : lines) {
        line.erase(0, line.find("6|") == 0 ? 2 : 0);
    }
    return lines;
}

} // namespace MavixTest
