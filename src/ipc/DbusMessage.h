#ifndef MAVIX_DBUS_MESSAGE_H
#define MAVIX_DBUS_MESSAGE_H

#include "Handles.h"
#include "IpcMessage.h"

#include <dbus/dbus.h>

namespace MavixApiLite {

// A message of libdbus. Arguments go straight into the raw message, so PushEnd only closes the cursor.
// PushUint writes an int32, which PopInt reads back. libdbus ends the process when it is handed a name or a
// text that D-Bus does not allow, so everything is looked at before.
class MAVIX_API_EXPORT TCDbusMessage : public TIIpcMessage {
public:
    TCDbusMessage();
    ~TCDbusMessage() override;
    TCDbusMessage(const TCDbusMessage&) = delete;
    TCDbusMessage& operator=(const TCDbusMessage&) = delete;

    bool Initialize(IpcMessageType type, const char* destination, const char* path, const char* interface,
                    const char* member) override;
    bool InitializeErrorReply(TIIpcMessage& request, const char* errorName,
                              const char* errorMessage) override;
    bool InitializeReply(TIIpcMessage& request) override;
    // A null type matches nothing, and neither do a signal and a method call when a null interface or member
    // is asked for. The interface of a method call that has none matches any.
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

private:
    friend struct TestAccess;
    friend class TCDbusConnection;

    enum IteratorStatus : std::int32_t { None = 0, Reading = 1, Writing = 2 };

    // libdbus keeps the content of a message that was given to it for sending from changing, and ends the
    // process of those who try.
    static void m_MarkSent(DBusMessage* raw);
    static bool m_IsSent(DBusMessage* raw);

    const char* m_HeaderField(const char* (*getter)(DBusMessage*)) const;
    bool m_SetupIterator(IteratorStatus wanted);
    template <class Value>
    bool m_Pop(int type, Value& value, const char* function, const char* typeError);
    bool m_StartPushing(std::size_t typeCodes);
    bool m_Push(int type, const void* value);
    bool m_AdoptReply(DBusMessage* reply);
    void m_Cleanup();

    DbusMessageHandle m_rawMessage;
    DBusMessageIter m_iterator;
    IteratorStatus m_iteratorStatus;
};

} // namespace MavixApiLite

#endif
