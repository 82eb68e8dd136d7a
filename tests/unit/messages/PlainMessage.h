#ifndef MAVIX_TEST_PLAIN_MESSAGE_H
#define MAVIX_TEST_PLAIN_MESSAGE_H

#include "IpcMessage.h"

#include <string>
#include <vector>

namespace MavixTest {

// A message of another transport, which implements only what it must. Each operation records its name and
// returns `result`; bytes are kept.
class PlainMessage : public MavixApiLite::TIIpcMessage {
public:
    explicit PlainMessage(std::vector<std::string>& calls) : m_calls(calls) {}
    ~PlainMessage() override { m_calls.emplace_back("destructor"); }

    bool result = true;
    std::vector<std::uint8_t> bytes;

    bool Initialize(IpcMessageType /*type*/, const char* /*destination*/, const char* /*path*/,
                    const char* /*interface*/, const char* /*member*/) override {
        return m_Called("Initialize");
    }
    bool InitializeErrorReply(TIIpcMessage& /*request*/, const char* /*errorName*/,
                              const char* /*errorMessage*/) override {
        return m_Called("InitializeErrorReply");
    }
    bool InitializeReply(TIIpcMessage& /*request*/) override { return m_Called("InitializeReply"); }
    bool IsOfType(IpcMessageType* /*type*/, const char* /*interface*/, const char* /*member*/) override {
        return m_Called("IsOfType");
    }
    const char* GetDestination() override { return m_Text("GetDestination"); }
    const char* GetPath() override { return m_Text("GetPath"); }
    const char* GetInterface() override { return m_Text("GetInterface"); }
    const char* GetMember() override { return m_Text("GetMember"); }
    const char* GetSender() override { return m_Text("GetSender"); }
    const char* GetError() override { return m_Text("GetError"); }
    bool SetNoReply() override { return m_Called("SetNoReply"); }
    bool PopBool(bool& /*value*/) override { return m_Called("PopBool"); }
    bool PopByte(std::uint8_t& /*value*/) override { return m_Called("PopByte"); }
    bool PopInt(std::int32_t& /*value*/) override { return m_Called("PopInt"); }
    bool PopUint(std::uint32_t& /*value*/) override { return m_Called("PopUint"); }
    bool PopString(std::string& /*value*/) override { return m_Called("PopString"); }
    bool PopBytes(std::vector<std::uint8_t>& value) override {
        if (result) {
            value = bytes;
        }
        return m_Called("PopBytes");
    }
    bool PopSkip() override { return m_Called("PopSkip"); }
    bool PopEnd() override { return m_Called("PopEnd"); }
    bool PushBool(bool /*value*/) override { return m_Called("PushBool"); }
    bool PushByte(std::uint8_t /*value*/) override { return m_Called("PushByte"); }
    bool PushInt(std::int32_t /*value*/) override { return m_Called("PushInt"); }
    bool PushUint(std::uint32_t /*value*/) override { return m_Called("PushUint"); }
    bool PushString(const std::string& /*value*/) override { return m_Called("PushString"); }
    bool PushBytes(const std::vector<std::uint8_t>& value) override {
        bytes = value;
        return m_Called("PushBytes");
    }
    bool PushEnd() override { return m_Called("PushEnd"); }
    void* GetRawMessage(bool /*addReference*/) override {
        m_Called("GetRawMessage");
        return this;
    }
    void SetRawMessage(void* /*raw*/) override { m_Called("SetRawMessage"); }

private:
    bool m_Called(const char* name) {
        m_calls.emplace_back(name);
        return result;
    }
    const char* m_Text(const char* name) {
        m_Called(name);
        return name;
    }

    std::vector<std::string>& m_calls;
};

} // namespace MavixTest

#endif
