#ifndef MAVIX_GDBUS_MESSAGE_H
#define MAVIX_GDBUS_MESSAGE_H

#include "Handles.h"
#include "IpcMessage.h"

#include <gio/gio.h>

namespace MavixApiLite {

// A message of GIO's D-Bus implementation. Received and sent messages are locked: their arguments can be read
// any number of times and no more be changed. The body is attached only by PushEnd.
class MAVIX_API_EXPORT TCGdbusMessage : public TIIpcMessage {
public:
    TCGdbusMessage();
    ~TCGdbusMessage() override;
    TCGdbusMessage(const TCGdbusMessage&) = delete;
    TCGdbusMessage& operator=(const TCGdbusMessage&) = delete;

    bool Initialize(IpcMessageType type, const char* destination, const char* path, const char* interface,
                    const char* member) override;
    bool InitializeErrorReply(TIIpcMessage& request, const char* errorName,
                              const char* errorMessage) override;
    bool InitializeReply(TIIpcMessage& request) override;
    // Throws std::logic_error when a field that is to be compared is missing. A null type matches every type.
    bool IsOfType(IpcMessageType* type, const char* interface, const char* member) override;

    const char* GetDestination() override;
    const char* GetPath() override;
    const char* GetInterface() override;
    const char* GetMember() override;
    const char* GetSender() override;
    const char* GetError() override;
    bool SetNoReply() override;

    bool PopBool(bool& value) override;
    bool PopByte(std::uint8_t& value) override;
    bool PopInt(std::int32_t& value) override;
    bool PopUint(std::uint32_t& value) override;
    bool PopString(std::string& value) override;
    bool PopBytes(std::vector<std::uint8_t>& value) override;
    bool PopSkip() override;
    bool PopEnd() override;

    bool PushBool(bool value) override;
    bool PushByte(std::uint8_t value) override;
    bool PushInt(std::int32_t value) override;
    bool PushUint(std::uint32_t value) override;
    bool PushString(const std::string& value) override;
    bool PushBytes(const std::vector<std::uint8_t>& value) override;
    bool PushEnd() override;

    void* GetRawMessage(bool addReference) override;
    void SetRawMessage(void* raw) override;

    bool PushByteRange(const void* data, std::size_t size) override;
    bool PopByteRange(const std::uint8_t*& data, std::size_t& size,
                      std::vector<std::uint8_t>& storage) override;
    bool PushOwnedBytes(std::vector<char> bytes) override;

private:
    friend struct TestAccess;

    enum IteratorStatus : std::int32_t { None = 0, Reading = 1, Writing = 2 };

    const char* m_HeaderField(const gchar* (*getter)(GDBusMessage*), const char* function) const;
    bool m_SetupIterator(IteratorStatus wanted);
    bool m_StartReading();
    VariantHandle m_PopChild(const GVariantType* type, const char* function, const char* typeError);
    bool m_PushChild(GVariant* child);
    bool m_AdoptReply(ObjectHandle<GDBusMessage> reply, const char* function);
    void m_Cleanup();

    ObjectHandle<GDBusMessage> m_rawMessage;
    GVariantBuilder m_bodyBuilder;
    GVariant* m_body; // borrowed from the raw message
    std::uint32_t m_childIndex;
    IteratorStatus m_iteratorStatus;
};

} // namespace MavixApiLite

#endif
