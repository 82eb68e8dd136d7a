#ifndef MAVIX_TEST_FAKE_CLIENT_H
#define MAVIX_TEST_FAKE_CLIENT_H

#include "IpcClientInterface.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace MavixTest {

// An int32 as it travels.
std::string Int(int value);

struct SentCall {
    std::string interfaceName;
    short code = 0;
    bool async = false;
    std::string input;
};

// A client without a bus: keeps what is sent and answers as told. Calls may come from any thread.
class FakeClient : public MavixApiLite::TIIpcClient {
public:
    // The answer of the service, or false for a failed call; by default the result 0 and nothing else.
    std::function<bool(short code, std::string& reply)> onCall;
    std::atomic<bool> sendsAsync{true};

    void AnswerWith(const std::string& reply);
    void FailCalls();

    std::vector<SentCall> Sent() const;
    // The codes of the calls, in order.
    std::vector<short> Codes() const;
    void Forget();

    bool Call(const std::string& interfaceName, short functionCode, MavixApiLite::TCMessageBuffer& input,
              MavixApiLite::TCMessageBuffer& output) override;
    bool CallAsync(const std::string& interfaceName, short functionCode,
                   MavixApiLite::TCMessageBuffer& input) override;
    bool AddMatchRule(EIPCMessageType, int, const MavixApiLite::MAVIXHandle&) override { return false; }
    bool RemoveMatchRule(EIPCMessageType, int, const MavixApiLite::MAVIXHandle&) override { return false; }
    bool WaitForCreateInterface(const char*) override { return false; }
    void SetCallbackFunction(EIPCMessageType, void (*)(int, const char*, int)) override {}
    void UnsetCallbackFunction(EIPCMessageType) override {}
    bool UseBoostingInheritance(bool) override { return false; }

private:
    void m_Keep(const std::string& interfaceName, short code, bool async,
                const MavixApiLite::TCMessageBuffer& input);

    mutable std::mutex m_mutex;
    std::vector<SentCall> m_sent;
};

} // namespace MavixTest

#endif
