#include "GdbusMessage.h"

#include "Log.h"
#include "TransportMessage.h"

#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

namespace MavixApiLite {

namespace {

// GIO prints criticals for names that D-Bus does not allow, so they are looked at before GIO sees them.
bool IsNullOr(gboolean (*isValid)(const gchar*), const char* text) {
    return text == nullptr || isValid(text) != FALSE;
}

bool IsValid(gboolean (*isValid)(const gchar*), const char* text) {
    return text != nullptr && isValid(text) != FALSE;
}

// GIO does not know the limit of their length.
gboolean IsMemberName(const gchar* text) {
    constexpr std::size_t longestName = 255;
    return g_dbus_is_member_name(text) != FALSE && std::strlen(text) <= longestName ? TRUE : FALSE;
}

// A call that was never sent has no number that a reply could name.
bool CanBeAnswered(GDBusMessage* message) {
    return g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL &&
           g_dbus_message_get_serial(message) != 0;
}

bool IsUtf8(const char* text, std::size_t size) {
    return g_utf8_validate(text, static_cast<gssize>(size), nullptr) != FALSE;
}

bool FieldEquals(const char* field, const char* expected) {
    if (field == nullptr) {
        throw std::logic_error("TCGdbusMessage::IsOfType: the message lacks the field to compare");
    }
    return std::strcmp(field, expected) == 0;
}

GDBusMessageType GioType(TIIpcMessage::IpcMessageType type) {
    switch (type) {
    case TIIpcMessage::Signal:
        return G_DBUS_MESSAGE_TYPE_SIGNAL;
    case TIIpcMessage::MethodCall:
        return G_DBUS_MESSAGE_TYPE_METHOD_CALL;
    case TIIpcMessage::MethodReturn:
        return G_DBUS_MESSAGE_TYPE_METHOD_RETURN;
    case TIIpcMessage::Error:
        return G_DBUS_MESSAGE_TYPE_ERROR;
    default:
        return G_DBUS_MESSAGE_TYPE_INVALID;
    }
}

// Whether values of a type all have one size, so that an array of them is one run of bytes.
bool IsFixedSize(const GVariantType* type) {
    const char first = *g_variant_type_peek_string(type);
    if (first != '(' && first != '{') {
        return std::strchr("ybnqiuxthd", first) != nullptr;
    }
    for (const GVariantType* item = g_variant_type_first(type); item != nullptr;
         item = g_variant_type_next(item)) {
        if (!IsFixedSize(item)) {
            return false;
        }
    }
    return true;
}

void SetName(GDBusMessage* message, GDBusMessageHeaderField field, const char* name) {
    if (name != nullptr) {
        g_dbus_message_set_header(message, field, g_variant_new_string(name));
    }
}

// Names that were looked at already: GIO's own constructors look at each of them twice more.
ObjectHandle<GDBusMessage> NewMessage(GDBusMessageType type, const char* destination, const char* path,
                                      const char* interface, const char* member) {
    ObjectHandle<GDBusMessage> message(g_dbus_message_new());
    g_dbus_message_set_message_type(message.get(), type);
    if (type == G_DBUS_MESSAGE_TYPE_SIGNAL) {
        g_dbus_message_set_flags(message.get(), G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    }
    SetName(message.get(), G_DBUS_MESSAGE_HEADER_FIELD_DESTINATION, destination);
    g_dbus_message_set_path(message.get(), path);
    SetName(message.get(), G_DBUS_MESSAGE_HEADER_FIELD_MEMBER, member);
    SetName(message.get(), G_DBUS_MESSAGE_HEADER_FIELD_INTERFACE, interface);
    return message;
}

void FreeBytes(void* bytes) {
    delete[] static_cast<char*>(bytes);
}

void FreeVector(void* vector) {
    delete static_cast<std::vector<char>*>(vector);
}

} // namespace

TCGdbusMessage::TCGdbusMessage()
    : m_bodyBuilder{}, m_body(nullptr), m_childIndex(0), m_iteratorStatus(None) {}

TCGdbusMessage::~TCGdbusMessage() {
    m_Cleanup();
}

bool TCGdbusMessage::Initialize(IpcMessageType type, const char* destination, const char* path,
                                const char* interface, const char* member) {
    m_Cleanup();
    const bool valid = IsNullOr(g_dbus_is_name, destination) && IsValid(g_variant_is_object_path, path) &&
                       IsValid(IsMemberName, member) && IsNullOr(g_dbus_is_interface_name, interface) &&
                       !IsReserved(path, interface);
    if (valid && (type == MethodCall || (type == Signal && interface != nullptr))) {
        m_rawMessage = NewMessage(GioType(type), destination, path, interface, member);
    }
    if (!m_rawMessage) {
        MAVIX_LOGE("No message initialized");
        return false;
    }
    return true;
}

bool TCGdbusMessage::InitializeErrorReply(TIIpcMessage& request, const char* errorName,
                                          const char* errorMessage) {
    auto* raw = static_cast<GDBusMessage*>(request.GetRawMessage(false));
    if (raw == nullptr) {
        MAVIX_LOGE("No message to reply");
        return false;
    }
    ObjectHandle<GDBusMessage> reply;
    if (CanBeAnswered(raw) && IsValid(g_dbus_is_error_name, errorName) && errorMessage != nullptr &&
        IsUtf8(errorMessage, std::strlen(errorMessage))) {
        reply.reset(g_dbus_message_new_method_error_literal(raw, errorName, errorMessage));
    }
    return m_AdoptReply(std::move(reply), __FUNCTION__);
}

bool TCGdbusMessage::InitializeReply(TIIpcMessage& request) {
    auto* raw = static_cast<GDBusMessage*>(request.GetRawMessage(false));
    if (raw == nullptr) {
        MAVIX_LOGE("No message to reply");
        return false;
    }
    ObjectHandle<GDBusMessage> reply;
    if (CanBeAnswered(raw)) {
        reply.reset(g_dbus_message_new_method_reply(raw));
    }
    return m_AdoptReply(std::move(reply), __FUNCTION__);
}

bool TCGdbusMessage::IsOfType(IpcMessageType* type, const char* interface, const char* member) {
    if (!m_rawMessage) {
        MAVIX_LOGE("No message");
        return false;
    }
    GDBusMessage* raw = m_rawMessage.get();
    if (type != nullptr && GioType(*type) != g_dbus_message_get_message_type(raw)) {
        return false;
    }
    if (interface != nullptr && !FieldEquals(g_dbus_message_get_interface(raw), interface)) {
        return false;
    }
    return member == nullptr || FieldEquals(g_dbus_message_get_member(raw), member);
}

const char* TCGdbusMessage::GetDestination() {
    return m_HeaderField(g_dbus_message_get_destination, __FUNCTION__);
}

const char* TCGdbusMessage::GetPath() {
    return m_HeaderField(g_dbus_message_get_path, __FUNCTION__);
}

const char* TCGdbusMessage::GetInterface() {
    return m_HeaderField(g_dbus_message_get_interface, __FUNCTION__);
}

const char* TCGdbusMessage::GetMember() {
    return m_HeaderField(g_dbus_message_get_member, __FUNCTION__);
}

const char* TCGdbusMessage::GetSender() {
    return m_HeaderField(g_dbus_message_get_sender, __FUNCTION__);
}

const char* TCGdbusMessage::GetError() {
    return m_HeaderField(g_dbus_message_get_error_name, __FUNCTION__);
}

bool TCGdbusMessage::SetNoReply() {
    if (!m_rawMessage) {
        MAVIX_LOGE("No message");
        return false;
    }
    if (g_dbus_message_get_locked(m_rawMessage.get()) != FALSE) {
        MAVIX_LOGE("Message is locked");
        return false;
    }
    const int flags = g_dbus_message_get_flags(m_rawMessage.get()) | G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED;
    g_dbus_message_set_flags(m_rawMessage.get(), static_cast<GDBusMessageFlags>(flags));
    return true;
}

bool TCGdbusMessage::PopBool(bool& value) {
    const VariantHandle child = m_PopChild(G_VARIANT_TYPE_BOOLEAN, __FUNCTION__, "Expected bool!");
    if (!child) {
        return false;
    }
    value = g_variant_get_boolean(child.get()) == 1;
    return true;
}

bool TCGdbusMessage::PopByte(std::uint8_t& value) {
    const VariantHandle child = m_PopChild(G_VARIANT_TYPE_BYTE, __FUNCTION__, "Expected byte!");
    if (!child) {
        return false;
    }
    value = g_variant_get_byte(child.get());
    return true;
}

bool TCGdbusMessage::PopInt(std::int32_t& value) {
    const VariantHandle child = m_PopChild(G_VARIANT_TYPE_INT32, __FUNCTION__, "Expected int32!");
    if (!child) {
        return false;
    }
    value = g_variant_get_int32(child.get());
    return true;
}

bool TCGdbusMessage::PopUint(std::uint32_t& value) {
    const VariantHandle child = m_PopChild(G_VARIANT_TYPE_UINT32, __FUNCTION__, "Expected uint32!");
    if (!child) {
        return false;
    }
    value = g_variant_get_uint32(child.get());
    return true;
}

bool TCGdbusMessage::PopString(std::string& value) {
    const VariantHandle child = m_PopChild(G_VARIANT_TYPE_STRING, __FUNCTION__, "Expected string!");
    if (!child) {
        return false;
    }
    gsize size = 0;
    const char* text = g_variant_get_string(child.get(), &size);
    value.assign(text, size);
    return true;
}

bool TCGdbusMessage::PopBytes(std::vector<std::uint8_t>& value) {
    return PopCopyOfByteRange(*this, value);
}

bool TCGdbusMessage::PopByteRange(const std::uint8_t*& data, std::size_t& size,
                                  std::vector<std::uint8_t>& /*storage*/) {
    const VariantHandle child = m_PopChild(G_VARIANT_TYPE_ARRAY, "PopBytes", "Expected array!");
    if (!child) {
        return false;
    }
    if (!IsFixedSize(g_variant_type_element(g_variant_get_type(child.get())))) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, "PopBytes", "Expected array!");
        return false;
    }
    // The body keeps the bytes; it is part of the raw message.
    data = static_cast<const std::uint8_t*>(g_variant_get_data(child.get()));
    size = data != nullptr ? g_variant_get_size(child.get()) : 0;
    return true;
}

bool TCGdbusMessage::PopSkip() {
    return m_SetupIterator(Reading);
}

bool TCGdbusMessage::PopEnd() {
    return m_SetupIterator(None);
}

bool TCGdbusMessage::PushBool(bool value) {
    return m_PushChild(g_variant_new_boolean(value ? TRUE : FALSE));
}

bool TCGdbusMessage::PushByte(std::uint8_t value) {
    return m_PushChild(g_variant_new_byte(value));
}

bool TCGdbusMessage::PushInt(std::int32_t value) {
    return m_PushChild(g_variant_new_int32(value));
}

bool TCGdbusMessage::PushUint(std::uint32_t value) {
    return m_PushChild(g_variant_new_uint32(value));
}

bool TCGdbusMessage::PushString(const std::string& value) {
    // Also refuses a zero byte within, which D-Bus cannot carry.
    if (!IsUtf8(value.data(), value.size())) {
        MAVIX_LOGE("Invalid string");
        return false;
    }
    return m_PushChild(g_variant_new_string(value.c_str()));
}

bool TCGdbusMessage::PushBytes(const std::vector<std::uint8_t>& value) {
    return PushByteRange(value.data(), value.size());
}

bool TCGdbusMessage::PushByteRange(const void* data, std::size_t size) {
    if (size == 0) {
        return m_PushChild(
            g_variant_new_from_data(G_VARIANT_TYPE_BYTESTRING, nullptr, 0, TRUE, nullptr, nullptr));
    }
    // The one copy of the bytes; the variant owns it. Not made by make_unique, which would write zeros first.
    std::unique_ptr<char[]> copy(new char[size]);
    std::memcpy(copy.get(), data, size);
    char* bytes = copy.release();
    return m_PushChild(
        g_variant_new_from_data(G_VARIANT_TYPE_BYTESTRING, bytes, size, TRUE, FreeBytes, bytes));
}

bool TCGdbusMessage::PushOwnedBytes(std::vector<char> bytes) {
    if (bytes.empty()) {
        return PushByteRange(nullptr, 0);
    }
    auto owned = std::make_unique<std::vector<char>>(std::move(bytes));
    std::vector<char>* vector = owned.release();
    return m_PushChild(g_variant_new_from_data(G_VARIANT_TYPE_BYTESTRING, vector->data(), vector->size(),
                                               TRUE, FreeVector, vector));
}

bool TCGdbusMessage::PushEnd() {
    if (m_iteratorStatus != Writing) {
        MAVIX_LOGE("Pushing not started!");
        return false;
    }
    if (!m_SetupIterator(None)) {
        return false;
    }
    if (g_dbus_message_get_locked(m_rawMessage.get()) != FALSE) {
        MAVIX_LOGE("Message is locked");
        g_variant_builder_clear(&m_bodyBuilder);
        return false;
    }
    g_dbus_message_set_body(m_rawMessage.get(), g_variant_builder_end(&m_bodyBuilder));
    return true;
}

void* TCGdbusMessage::GetRawMessage(bool addReference) {
    return addReference ? RefObject(m_rawMessage.get()).release() : m_rawMessage.get();
}

void TCGdbusMessage::SetRawMessage(void* raw) {
    m_Cleanup();
    m_rawMessage.reset(static_cast<GDBusMessage*>(raw));
}

const char* TCGdbusMessage::m_HeaderField(const gchar* (*getter)(GDBusMessage*), const char* function) const {
    if (!m_rawMessage) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function, "Invalid message");
        return nullptr;
    }
    return getter(m_rawMessage.get());
}

bool TCGdbusMessage::m_SetupIterator(IteratorStatus wanted) {
    if (!m_rawMessage) {
        MAVIX_LOGE("No message");
        return false;
    }
    if (m_iteratorStatus == wanted) {
        if (wanted != Reading) {
            return true;
        }
        const gsize children = g_variant_n_children(m_body);
        // The index stays at the end once it is there, however often an argument is asked for.
        if (m_childIndex < children) {
            ++m_childIndex;
        }
        if (m_childIndex >= children) {
            MAVIX_LOGE("No more params");
            return false;
        }
        return true;
    }
    if (wanted == None) {
        m_iteratorStatus = None;
        return true;
    }
    if (m_iteratorStatus == Reading) {
        MAVIX_LOGE("Attempt to write while reading");
        return false;
    }
    if (m_iteratorStatus == Writing) {
        MAVIX_LOGE("Attempt to read while writing");
        return false;
    }
    if (wanted == Reading) {
        return m_StartReading();
    }
    g_variant_builder_clear(&m_bodyBuilder);
    g_variant_builder_init(&m_bodyBuilder, G_VARIANT_TYPE_TUPLE);
    m_iteratorStatus = Writing;
    return true;
}

bool TCGdbusMessage::m_StartReading() {
    m_body = g_dbus_message_get_body(m_rawMessage.get());
    m_childIndex = 0;
    if (m_body == nullptr) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, "m_SetupIterator", "No body!");
        return false;
    }
    if (g_variant_n_children(m_body) == 0) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, "m_SetupIterator", "No children");
        return false;
    }
    m_iteratorStatus = Reading;
    return true;
}

VariantHandle TCGdbusMessage::m_PopChild(const GVariantType* type, const char* function,
                                         const char* typeError) {
    if (!m_SetupIterator(Reading)) {
        return nullptr;
    }
    VariantHandle child(g_variant_get_child_value(m_body, m_childIndex));
    // A class is named by the letter with which its types begin.
    if (static_cast<char>(g_variant_classify(child.get())) != *g_variant_type_peek_string(type)) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function, "%s", typeError);
        return nullptr;
    }
    return child;
}

// Adopts a floating child whether it can be appended or not.
bool TCGdbusMessage::m_PushChild(GVariant* child) {
    if (!m_SetupIterator(Writing)) {
        const VariantHandle unused = SinkVariant(child);
        return false;
    }
    g_variant_builder_add_value(&m_bodyBuilder, child);
    return true;
}

// The old content dies only now: the request may be this object, and names may be borrowed from it.
bool TCGdbusMessage::m_AdoptReply(ObjectHandle<GDBusMessage> reply, const char* function) {
    if (!reply) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function, "new reply failed");
        return false;
    }
    SetRawMessage(reply.release());
    return true;
}

void TCGdbusMessage::m_Cleanup() {
    m_iteratorStatus = None;
    g_variant_builder_clear(&m_bodyBuilder);
    m_body = nullptr;
    m_rawMessage.reset();
}

} // namespace MavixApiLite
