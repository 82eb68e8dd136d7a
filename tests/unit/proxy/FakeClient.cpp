#include "FakeClient.h"

namespace MavixTest {

using MavixApiLite::TCMessageBuffer;

std::string Int(int value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

void FakeClient::AnswerWith(const std::string& reply) {
    onCall = [reply](short, std::string& answer) {
        answer = reply;
        return true;
    };
}

void FakeClient::FailCalls() {
    onCall = [](short, std::string&) { return false; };
}

std::vector<SentCall> FakeClient::Sent() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_sent;
}

std::vector<short> FakeClient::Codes() const {
    std::vector<short> codes;
    for (const SentCall& call : Sent()) {
        codes.push_back(call.code);
    }
    return codes;
}

void FakeClient::Forget() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_sent.clear();
}

bool FakeClient::Call(const std::string& interfaceName, short functionCode, TCMessageBuffer& input,
                      TCMessageBuffer& output) {
    m_Keep(interfaceName, functionCode, false, input);
    std::string reply = Int(0);
    const bool success = !onCall || onCall(functionCode, reply);
    if (success) {
        output.PushConcatenated(reply.size(), reply.data());
    }
    return success;
}

bool FakeClient::CallAsync(const std::string& interfaceName, short functionCode, TCMessageBuffer& input) {
    m_Keep(interfaceName, functionCode, true, input);
    return sendsAsync;
}

void FakeClient::m_Keep(const std::string& interfaceName, short code, bool async,
                        const TCMessageBuffer& input) {
    const char* bytes = input.GetAsCStr(0);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_sent.push_back({interfaceName, code, async,
                      bytes != nullptr ? std::string(bytes, input.PayloadSize()) : std::string()});
}

} // namespace MavixTest
