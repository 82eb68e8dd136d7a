#include "Peer.h"

#include "DbusConnection.h"
#include "IPCConnection_C.h"
#include "IpcClient.h"
#include "IpcConfigurationMavix.h"
#include "MessageBuffer.h"

namespace MavixBench {

namespace {

class TCOurs final : public TIPeer {
public:
    void Call(const std::vector<char>& payload) override {
        void* output = nullptr;
        unsigned int length = 0;
        if (!IPCConnection__Call(calledInterface, echoCode, payload.data(), static_cast<int>(payload.size()),
                                 &output, &length)) {
            Fail("IPCConnection__Call failed");
        }
        IPCConnection__CallDisposeOutputBuffer(output);
        ExpectSize(payload.size(), length);
    }

    void CallAsync(const std::vector<char>& payload) override {
        if (!IPCConnection__CallAsync(calledInterface, echoCode, payload.data(),
                                      static_cast<int>(payload.size()))) {
            Fail("IPCConnection__CallAsync failed");
        }
    }
};

class TCOursOverLibdbus final : public TIPeer {
public:
    TCOursOverLibdbus()
        : m_client(std::make_unique<MavixApiLite::IpcConfigurationMavix>("com.norvale.Mavix.SignalIFace",
                                                                         "/com/norvale/Mavix/SignalObject"),
                   g_main_context_default(), std::make_unique<MavixApiLite::TCDbusConnection>(10, false)) {}

    // The input is copied as the flat functions copy it.
    void Call(const std::vector<char>& payload) override {
        MavixApiLite::TCMessageBuffer input;
        MavixApiLite::TCMessageBuffer output;
        input.PushConcatenated(static_cast<unsigned int>(payload.size()), payload.data());
        if (!m_client.Call(calledInterface, echoCode, input, output)) {
            Fail("TCIpcClient::Call failed");
        }
        TakeAnswer(payload.size(), output.GetAsCStr(0), output.PayloadSize());
    }

private:
    MavixApiLite::TCIpcClient m_client;
};

} // namespace

std::unique_ptr<TIPeer> CreateOurs() {
    return std::make_unique<TCOurs>();
}

std::unique_ptr<TIPeer> CreateOursOverLibdbus() {
    return std::make_unique<TCOursOverLibdbus>();
}

} // namespace MavixBench
