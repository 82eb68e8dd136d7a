#include "DbusMessage.h"

#include "Log.h"
#include "TransportMessage.h"

#include <cstring>

namespace MavixApiLite {

namespace {

using Validator = dbus_bool_t (*)(const char* text, DBusError* error);

bool IsValid(Validator isValid, const char* text) {
    return text != nullptr && isValid(text, nullptr) != FALSE;
}

bool IsNullOr(Validator isValid, const char* text) {
    return text == nullptr || isValid(text, nullptr) != FALSE;
}

// A call that was never sent has no number that a reply could name.
bool CanBeAnswered(DBusMessage* message) {
    return dbus_message_get_serial(message) != 0;
}

// Of an array with elements of any other type libdbus does not give the bytes.
bool HasFixedSize(int type) {
    return dbus_type_is_valid(type) != FALSE && dbus_type_is_fixed(type) != FALSE &&
           type != DBUS_TYPE_UNIX_FD;
}

dbus_int32_t SentSlot() {
    static const dbus_int32_t slot = [] {
        dbus_int32_t allocated = -1;
        dbus_message_allocate_data_slot(&allocated);
        return allocated;
    }();
    return slot;
}

} // namespace

TCDbusMessage::TCDbusMessage() : m_iterator{}, m_iteratorStatus(None) {}

TCDbusMessage::~TCDbusMessage() {
    m_Cleanup();
}

bool TCDbusMessage::Initialize(IpcMessageType type, const char* destination, const char* path,
                               const char* interface, const char* member) {
    m_Cleanup();
    if (!IsNullOr(dbus_validate_bus_name, destination) || !IsValid(dbus_validate_path, path) ||
        !IsValid(dbus_validate_member, member) || IsReserved(path, interface)) {
        return false;
    }
    if (type == Signal && IsValid(dbus_validate_interface, interface)) {
        m_rawMessage.reset(dbus_message_new_signal(path, interface, member));
        if (m_rawMessage && destination != nullptr &&
            dbus_message_set_destination(m_rawMessage.get(), destination) == FALSE) {
            m_rawMessage.reset();
        }
    } else if (type == MethodCall && IsNullOr(dbus_validate_interface, interface)) {
        m_rawMessage.reset(dbus_message_new_method_call(destination, path, interface, member));
    }
    return m_rawMessage != nullptr;
}

bool TCDbusMessage::InitializeErrorReply(TIIpcMessage& request, const char* errorName,
                                         const char* errorMessage) {
    auto* raw = static_cast<DBusMessage*>(request.GetRawMessage(false));
    if (raw == nullptr || !CanBeAnswered(raw) || !IsValid(dbus_validate_error_name, errorName) ||
        !IsNullOr(dbus_validate_utf8, errorMessage)) {
        return false;
    }
    return m_AdoptReply(dbus_message_new_error(raw, errorName, errorMessage));
}

bool TCDbusMessage::InitializeReply(TIIpcMessage& request) {
    auto* raw = static_cast<DBusMessage*>(request.GetRawMessage(false));
    if (raw == nullptr || !CanBeAnswered(raw)) {
        return false;
    }
    return m_AdoptReply(dbus_message_new_method_return(raw));
}

bool TCDbusMessage::IsOfType(IpcMessageType* type, const char* interface, const char* member) {
    if (type == nullptr || !m_rawMessage) {
        return false;
    }
    DBusMessage* raw = m_rawMessage.get();
    const bool canBeAsked = interface != nullptr && member != nullptr;
    switch (*type) {
    case Signal:
        return canBeAsked && dbus_message_is_signal(raw, interface, member) != FALSE;
    case MethodCall:
        return canBeAsked && dbus_message_is_method_call(raw, interface, member) != FALSE;
    case MethodReturn:
        return dbus_message_get_type(raw) == DBUS_MESSAGE_TYPE_METHOD_RETURN;
    case Error:
        return dbus_message_get_type(raw) == DBUS_MESSAGE_TYPE_ERROR;
    default:
        return false;
    }
}

const char* TCDbusMessage::GetDestination() {
    return m_HeaderField(dbus_message_get_destination);
}

const char* TCDbusMessage::GetPath() {
    return m_HeaderField(dbus_message_get_path);
}

const char* TCDbusMessage::GetInterface() {
    return m_HeaderField(dbus_message_get_interface);
}

const char* TCDbusMessage::GetMember() {
    return m_HeaderField(dbus_message_get_member);
}

const char* TCDbusMessage::GetSender() {
    return m_HeaderField(dbus_message_get_sender);
}

const char* TCDbusMessage::GetError() {
    return m_HeaderField(dbus_message_get_error_name);
}

bool TCDbusMessage::SetNoReply() {
    if (!m_rawMessage) {
        return false;
    }
    if (m_IsSent(m_rawMessage.get())) {
        MAVIX_LOGE("Message is locked");
        return false;
    }
    dbus_message_set_no_reply(m_rawMessage.get(), TRUE);
    return true;
}

bool TCDbusMessage::PopBool(bool& value) {
    dbus_bool_t popped = FALSE;
    if (!m_Pop(DBUS_TYPE_BOOLEAN, popped, __FUNCTION__, "Expected bool")) {
        return false;
    }
    value = popped != FALSE;
    return true;
}

bool TCDbusMessage::PopByte(std::uint8_t& value) {
    return m_Pop(DBUS_TYPE_BYTE, value, __FUNCTION__, "Expected byte");
}

bool TCDbusMessage::PopInt(std::int32_t& value) {
    return m_Pop(DBUS_TYPE_INT32, value, __FUNCTION__, "Expected int32");
}

bool TCDbusMessage::PopUint(std::uint32_t& value) {
    return m_Pop(DBUS_TYPE_UINT32, value, __FUNCTION__, "Expected uint32");
}

bool TCDbusMessage::PopString(std::string& value) {
    const char* popped = nullptr;
    if (!m_Pop(DBUS_TYPE_STRING, popped, __FUNCTION__, "Expected string")) {
        return false;
    }
    value = popped;
    return true;
}

bool TCDbusMessage::PopBytes(std::vector<std::uint8_t>& value) {
    return PopCopyOfByteRange(*this, value);
}

bool TCDbusMessage::PopByteRange(const std::uint8_t*& data, std::size_t& size,
                                 std::vector<std::uint8_t>& /*storage*/) {
    if (!m_SetupIterator(Reading)) {
        return false;
    }
    if (dbus_message_iter_get_arg_type(&m_iterator) != DBUS_TYPE_ARRAY ||
        !HasFixedSize(dbus_message_iter_get_element_type(&m_iterator))) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, "PopBytes", "Expected array");
        return false;
    }
    DBusMessageIter elements;
    dbus_message_iter_recurse(&m_iterator, &elements);
    const std::uint8_t* bytes = nullptr;
    int count = 0;
    dbus_message_iter_get_fixed_array(&elements, &bytes, &count);
    // The raw message keeps the bytes. Of wider elements there are more bytes than these.
    data = bytes;
    size = bytes != nullptr ? static_cast<std::size_t>(count) : 0;
    return true;
}

bool TCDbusMessage::PopSkip() {
    return m_SetupIterator(Reading);
}

bool TCDbusMessage::PopEnd() {
    return m_SetupIterator(None);
}

bool TCDbusMessage::PushBool(bool value) {
    const dbus_bool_t pushed = value ? TRUE : FALSE;
    return m_Push(DBUS_TYPE_BOOLEAN, &pushed);
}

bool TCDbusMessage::PushByte(std::uint8_t value) {
    return m_Push(DBUS_TYPE_BYTE, &value);
}

bool TCDbusMessage::PushInt(std::int32_t value) {
    return m_Push(DBUS_TYPE_INT32, &value);
}

bool TCDbusMessage::PushUint(std::uint32_t value) {
    return m_Push(DBUS_TYPE_INT32, &value);
}

bool TCDbusMessage::PushString(const std::string& value) {
    const char* text = value.c_str();
    // D-Bus cannot carry a zero byte within.
    if (std::strlen(text) != value.size() || !IsValid(dbus_validate_utf8, text)) {
        MAVIX_LOGE("Invalid string");
        return false;
    }
    return m_Push(DBUS_TYPE_STRING, &text);
}

bool TCDbusMessage::PushBytes(const std::vector<std::uint8_t>& value) {
    return PushByteRange(value.data(), value.size());
}

bool TCDbusMessage::PushByteRange(const void* data, std::size_t size) {
    constexpr const char* function = "PushBytes";
    if (!m_StartPushing(2)) {
        return false;
    }
    DBusMessageIter elements;
    if (dbus_message_iter_open_container(&m_iterator, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE_AS_STRING, &elements) ==
        FALSE) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function,
                     "dbus_message_iter_open_container failed");
        return false;
    }
    // The one copy of the bytes; libdbus does not check their number in time.
    if (size > DBUS_MAXIMUM_ARRAY_LENGTH ||
        dbus_message_iter_append_fixed_array(&elements, DBUS_TYPE_BYTE, &data, static_cast<int>(size)) ==
            FALSE) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function,
                     "dbus_message_iter_append_fixed_array failed");
        dbus_message_iter_abandon_container(&m_iterator, &elements);
        return false;
    }
    return dbus_message_iter_close_container(&m_iterator, &elements) != FALSE;
}

bool TCDbusMessage::PushEnd() {
    return m_SetupIterator(None);
}

void* TCDbusMessage::GetRawMessage(bool addReference) {
    if (addReference && m_rawMessage) {
        return dbus_message_ref(m_rawMessage.get());
    }
    return m_rawMessage.get();
}

void TCDbusMessage::SetRawMessage(void* raw) {
    m_Cleanup();
    m_rawMessage.reset(static_cast<DBusMessage*>(raw));
}

void TCDbusMessage::m_MarkSent(DBusMessage* raw) {
    static char mark;
    dbus_message_set_data(raw, SentSlot(), &mark, nullptr);
}

bool TCDbusMessage::m_IsSent(DBusMessage* raw) {
    return dbus_message_get_data(raw, SentSlot()) != nullptr;
}

const char* TCDbusMessage::m_HeaderField(const char* (*getter)(DBusMessage*)) const {
    return m_rawMessage ? getter(m_rawMessage.get()) : nullptr;
}

bool TCDbusMessage::m_SetupIterator(IteratorStatus wanted) {
    if (m_iteratorStatus == wanted) {
        if (wanted == Reading && dbus_message_iter_next(&m_iterator) == FALSE) {
            MAVIX_LOGE("No more params!");
            return false;
        }
        return true;
    }
    if (!m_rawMessage) {
        return false;
    }
    if (wanted == None) {
        dbus_message_iter_init_closed(&m_iterator);
        m_iteratorStatus = None;
        return true;
    }
    if (m_iteratorStatus != None) {
        MAVIX_LOGE("Invalid state %d vs %d", m_iteratorStatus, wanted);
        return false;
    }
    if (wanted == Writing) {
        if (m_IsSent(m_rawMessage.get())) {
            MAVIX_LOGE("Message is locked");
            return false;
        }
        dbus_message_iter_init_append(m_rawMessage.get(), &m_iterator);
    } else if (dbus_message_iter_init(m_rawMessage.get(), &m_iterator) == FALSE) {
        MAVIX_LOGE("dbus_message_iter_init failed");
        return false;
    }
    m_iteratorStatus = wanted;
    return true;
}

template <class Value>
bool TCDbusMessage::m_Pop(int type, Value& value, const char* function, const char* typeError) {
    if (!m_SetupIterator(Reading)) {
        return false;
    }
    if (dbus_message_iter_get_arg_type(&m_iterator) != type) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function, "%s", typeError);
        return false;
    }
    dbus_message_iter_get_basic(&m_iterator, &value);
    return true;
}

// libdbus does not notice when the type codes of a message become too many.
bool TCDbusMessage::m_StartPushing(std::size_t typeCodes) {
    if (!m_SetupIterator(Writing)) {
        return false;
    }
    if (std::strlen(dbus_message_get_signature(m_rawMessage.get())) + typeCodes >
        DBUS_MAXIMUM_SIGNATURE_LENGTH) {
        MAVIX_LOGE("Too many arguments");
        return false;
    }
    return true;
}

bool TCDbusMessage::m_Push(int type, const void* value) {
    return m_StartPushing(1) && dbus_message_iter_append_basic(&m_iterator, type, value) != FALSE;
}

// The old content dies only now: the request may be this object, and names may be borrowed from it.
bool TCDbusMessage::m_AdoptReply(DBusMessage* reply) {
    if (reply == nullptr) {
        return false;
    }
    SetRawMessage(reply);
    return true;
}

void TCDbusMessage::m_Cleanup() {
    if (m_iteratorStatus != None) {
        dbus_message_iter_init_closed(&m_iterator);
        m_iteratorStatus = None;
    }
    m_rawMessage.reset();
}

} // namespace MavixApiLite
