#ifndef MAVIX_TEST_FAKE_CONNECTION_H
#define MAVIX_TEST_FAKE_CONNECTION_H

#include "GdbusMessage.h"
#include "IpcConnection.h"

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace MavixTest {

// A connection without a bus: it records what it is asked as text ("AddMatch(rule)") and answers as told. Its
// messages are real ones. Any thread may use it; the answers are set before others do.
class FakeConnection : public MavixApiLite::TIIpcConnection, public MavixApiLite::TIIpcMessageAllocator {
public:
    std::function<bool(MavixApiLite::TIIpcConnectionOwner*)> onConnect; // default: true, calls nothing
    std::function<bool(MavixApiLite::TIIpcMessage&)> onSend;            // default: true
    std::function<bool(MavixApiLite::TIIpcMessage&)> onSendWithReply;   // default: false
    std::function<bool(const std::string&, int, bool&)> onBusHasOwner;  // default: answered, has an owner
    std::function<std::unique_ptr<MavixApiLite::TIIpcMessage>(void*)> onNewMessage; // default: a GIO message
    std::function<void()> onDeleteRawMessage;
    bool waitConnected = true;
    bool addMatch = true;
    bool removeMatch = true;
    bool requestName = true;
    bool hasAllocator = true;
    std::string uniqueName = ":1.42";

    std::vector<std::string> Calls() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }
    void ClearCalls() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_calls.clear();
    }

    bool Connect(std::string name, MavixApiLite::TIIpcConnectionOwner* owner) override {
        m_Add("Connect(" + name + ")");
        return onConnect ? onConnect(owner) : true;
    }
    bool WaitConnected() override { return waitConnected; }
    bool Send(MavixApiLite::TIIpcMessage& message) override {
        m_Add("Send");
        message.PushEnd();
        return onSend ? onSend(message) : true;
    }
    bool SendWithReply(MavixApiLite::TIIpcMessage& message, int timeoutMs) override {
        m_Add("SendWithReply(" + std::to_string(timeoutMs) + ")");
        message.PushEnd();
        return onSendWithReply ? onSendWithReply(message) : false;
    }
    bool AddMatch(const char* rule) override {
        m_Add(std::string("AddMatch(") + rule + ")");
        return addMatch;
    }
    bool RemoveMatch(const char* rule) override {
        m_Add(std::string("RemoveMatch(") + rule + ")");
        return removeMatch;
    }
    std::string GetUniqueName() override { return uniqueName; }
    bool RequestName(const std::string& name) override {
        m_Add("RequestName(" + name + ")");
        return requestName;
    }
    bool ReleaseName(const std::string& name) override {
        m_Add("ReleaseName(" + name + ")");
        return true;
    }
    bool BusHasOwner(const std::string& name, int timeoutMs, bool& hasOwner) override {
        m_Add("BusHasOwner(" + name + ", " + std::to_string(timeoutMs) + ")");
        if (onBusHasOwner) {
            return onBusHasOwner(name, timeoutMs, hasOwner);
        }
        hasOwner = true;
        return true;
    }
    MavixApiLite::TIIpcMessageAllocator* GetMessageAllocatorInstance() override {
        return hasAllocator ? this : nullptr;
    }

    std::unique_ptr<MavixApiLite::TIIpcMessage> NewMessage(void* raw) override {
        if (onNewMessage) {
            return onNewMessage(raw);
        }
        auto message = std::make_unique<MavixApiLite::TCGdbusMessage>();
        if (raw != nullptr) {
            message->SetRawMessage(raw);
        }
        return message;
    }
    void DeleteRawMessage(void* raw) override {
        if (onDeleteRawMessage) {
            onDeleteRawMessage();
        }
        if (raw != nullptr) {
            g_object_unref(raw);
        }
    }
    void (*GetRawMessageDeleter())(void*) override { return g_object_unref; }

private:
    void m_Add(const std::string& call) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_calls.push_back(call);
    }

    mutable std::mutex m_mutex;
    std::vector<std::string> m_calls;
};

} // namespace MavixTest

#endif
