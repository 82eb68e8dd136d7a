#include "IpcClient.h"

#include "FlatCallBuffers.h"
#include "IPCUtility.h"
#include "LiteUtility.h"
#include "Log.h"
#include "MavixAssert.h"
#include "PerformanceLogger.h"
#include "PriorityInheritanceWrapper.h"
#include "ProgramName.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <stdexcept>
#include <unistd.h>
#include <utility>
#include <vector>

namespace MavixApiLite {

namespace {

constexpr const char* callObjectPath = "/com/norvale/Object";
constexpr const char* callMember = "MethodCall";
constexpr const char* callFunction = "Call";
constexpr unsigned int flagNoReply = 1;
constexpr unsigned int flagProgramName = 2;
constexpr std::uint8_t replyWellFormed = 1;
constexpr std::size_t payloadLimit = 0x1000000;
constexpr std::size_t matchRuleCapacity = 256;
constexpr std::int32_t supportNotKnown = -1;

constexpr const char* introspectionText = "<node>  <interface name='org.freedesktop.DBus.Introspectable'>"
                                          "        <method name='Introspect'>"
                                          "          <arg type='s' name='xml_data' direction='out'/>"
                                          "        </method>"
                                          "  </interface></node>";

struct MessageTypeName {
    EIPCMessageType type;
    const char* name;
};

constexpr MessageTypeName messageTypeNames[] = {
    {IPC_MESSAGE_SIGNAL, "Signal"},
    {IPC_MESSAGE_PIPELINE_EVENT, "PipelineSignal"},
    {IPC_MESSAGE_DATA, "Data"},
    {IPC_MESSAGE_PROGRAM, "Program"},
    {IPC_MESSAGE_SECTION, "Section"},
    {IPC_MESSAGE_TEXTDATA, "TextData"},
    {IPC_MESSAGE_DSM, "Dsm"},
    {IPC_MESSAGE_COPY_PROTECTION, "CopyProtectionInfo"},
    {IPC_MESSAGE_PESDATA, "PESData"},
    {IPC_MESSAGE_EXPESDATA, "ExPESData"},
    {IPC_MESSAGE_HT, "Ht"},
    {IPC_MESSAGE_ATSC3_SIGNALLING, "ATSC3Signalling"},
    {IPC_MESSAGE_ATSC3_MPD, "ATSC3Mpd"},
    {IPC_MESSAGE_ATSC3_LINKAGE, "ATSC3Linkage"},
};

bool IsKnownType(EIPCMessageType type) {
    return static_cast<std::uint32_t>(type) < static_cast<std::uint32_t>(IPC_MESSAGE_MAX);
}

unsigned long long NowMs() {
    return LiteUtility::TimestampInMiliseconds(LiteUtility::GetTimestamp());
}

// A difference of timestamps in seconds, as the report shows it.
double Seconds(unsigned long long laterMs, unsigned long long earlierMs) {
    return static_cast<std::uint32_t>(laterMs - earlierMs) / 1000.0;
}

std::int32_t CallingProcess() {
    static const std::int32_t pid = getpid();
    return pid;
}

// Leading white space, a sign and trailing text are allowed.
bool ParseMessageId(const std::string& text, int& id) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (end == text.c_str() || errno == ERANGE || value < INT_MIN || value > INT_MAX) {
        return false;
    }
    id = static_cast<int>(value);
    return true;
}

bool HasExtraArgument(EIPCMessageType type) {
    return type == IPC_MESSAGE_SIGNAL || type == IPC_MESSAGE_PIPELINE_EVENT || type == IPC_MESSAGE_HT;
}

} // namespace

TIIpcClient::~TIIpcClient() = default;

TCIpcClient::TCIpcClient(std::unique_ptr<IpcConfiguration> configuration, GMainContext* defaultContext,
                         std::unique_ptr<TIIpcConnection> connection)
    : m_callbacks{}, m_connection(std::move(connection)), m_configuration(std::move(configuration)),
      m_useBoostingInheritance(true), m_mavixSupported(supportNotKnown), m_defaultContext(defaultContext) {
    for (const MessageTypeName& entry : messageTypeNames) {
        m_messageTypeByName.emplace(entry.name, entry.type);
    }
    for (const auto& [name, type] : m_messageTypeByName) {
        m_messageNameByType.emplace(type, name);
    }
    m_connection->Connect("DbusThread", this);
}

TCIpcClient::~TCIpcClient() {
    MAVIX_LOGD("[API_LITE] Closing connection for interfaceName:%s, objectName:%s",
               m_configuration->SignalInterfaceName().c_str(), m_configuration->SignalObjectName().c_str());
    // The connecting thread fills in what is destroyed next.
    m_connection->WaitConnected();
    m_signalsLoopHandler.reset();
    // Waits for a running callback while messages can still be filtered: libdbus gives the answer that it may
    // be waiting for on the thread that filters.
    for (std::size_t slot = 0; slot < m_callbacks.size(); ++slot) {
        const std::lock_guard<std::recursive_mutex> lock(m_callbackMutexes[slot]);
        m_callbacks[slot] = nullptr;
    }
    {
        const std::lock_guard<std::mutex> lock(m_sourceHandlersMutex);
        m_busSourceHandler.reset();
        m_methodSourceHandler.reset();
    }
    {
        std::map<std::string, std::shared_ptr<DbusBusWrapper>> busWrappers;
        const std::unique_lock<std::shared_mutex> lock(m_busWrappersLock);
        busWrappers.swap(m_busWrappers);
    }
    m_connection.reset();
    m_messageTypeByName.clear();
    m_messageNameByType.clear();
    m_configuration.reset();
}

bool TCIpcClient::InitializeIpcConnection(TIIpcConnection* pConnection) {
    constexpr unsigned long assertionLine = 664;
    if (pConnection == nullptr) {
        _TCApiAssert("pConnection", MAVIX_ASSERT_FILE, assertionLine, nullptr);
        PrintAssertLine(__FUNCTION__, static_cast<int>(assertionLine));
        return false;
    }
    m_signalsLoopHandler = std::make_unique<TCGMainLoopHandler>(std::make_unique<TCWatchdogHandler>());
    GMainContext* signalsContext =
        m_signalsLoopHandler->Start("SignalsThread", LiteUtility::IsDebug() ? 60 : 30);
    TIIpcMessageAllocator* allocator = pConnection->GetMessageAllocatorInstance();

    const auto replaceHandler = [this, allocator](std::unique_ptr<TCGSourceHandler>& handler) {
        auto replaced = std::make_unique<TCGSourceHandler>(allocator);
        const std::lock_guard<std::mutex> lock(m_sourceHandlersMutex);
        handler.swap(replaced);
    };
    replaceHandler(m_busSourceHandler);
    m_busSourceHandler->Start(signalsContext,
                              [this](TIIpcMessage& message) { m_HandleDbusMessage(message); });

    const std::string uniqueName = pConnection->GetUniqueName();
    if (uniqueName.empty()) {
        MAVIX_LOGE("[API_LITE][END] GetUniqueName failed");
        return false;
    }
    if (!pConnection->RequestName(TCIPCUtility::GenerateSubConnectionName(uniqueName))) {
        MAVIX_LOGE("[API_LITE] Requesting name error.");
        return false;
    }
    replaceHandler(m_methodSourceHandler);
    m_methodSourceHandler->Start(m_defaultContext,
                                 [this](TIIpcMessage& message) { t_MessageHandler(message); });
    return true;
}

bool TCIpcClient::UseBoostingInheritance(bool enable) {
    m_useBoostingInheritance.store(enable, std::memory_order_relaxed);
    return true;
}

// A failing query counts as supported and is asked again.
bool TCIpcClient::m_IsMAVIXSupported() {
    if (m_mavixSupported.load() == supportNotKnown) {
        bool supported = false;
        if (system_info_get_custom_bool("com.norvale/featureconf/broadcasting.mavix_supported", &supported) !=
            0) {
            return true;
        }
        m_mavixSupported.exchange(supported ? 1 : 0);
    }
    return m_mavixSupported.load() != 0;
}

bool TCIpcClient::Call(const std::string& interfaceName, short functionCode, TCMessageBuffer& input,
                       TCMessageBuffer& output) {
    IpcProxyAuxData aux;
    unsigned long long startMs = 0;
    if (LiteUtility::IsDebug()) {
        startMs = NowMs();
        aux.SetTimestamp(IPC_AUX_TIMESTAMP_SENT, startMs);
    }
    TIIpcMessageAllocator* messageAllocator = m_connection->GetMessageAllocatorInstance();
    MAVIX_ASSERT_RETURN(messageAllocator, "messageAllocator", false);
    const std::unique_ptr<TIIpcMessage> message = messageAllocator->NewMessage(nullptr);
    if (!message) {
        MAVIX_LOGE("[API_LITE] new message failed.");
        return false;
    }
    std::string busName;
    if (!m_PrepareCall(interfaceName, functionCode, input, aux, 0, *message, busName)) {
        MAVIX_LOGE("[API_LITE] m_PrepareCall failed.");
        return false;
    }
    bool sent = false;
    {
        const TCPriorityInheritanceWrapper inheritance(
            m_configuration->GetServiceProcessName(busName),
            m_useBoostingInheritance.load(std::memory_order_relaxed));
        sent = m_connection->SendWithReply(*message, -1);
    }
    if (!sent) {
        MAVIX_LOGE("[API_LITE] Cannot create reply message. Out of memory.");
        return false;
    }
    const CallTimes times{startMs, busName, interfaceName, functionCode};
    TIIpcMessage::IpcMessageType error = TIIpcMessage::Error;
    if (message->IsOfType(&error, nullptr, nullptr)) {
        m_LogErrorReply(*message, times);
        return false;
    }
    return m_ReadReply(*message, output, times);
}

void TCIpcClient::m_LogErrorReply(TIIpcMessage& reply, const CallTimes& times) {
    const char* name = reply.GetError();
    MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, callFunction, "[IPC][%s:%s:%d]",
                 times.busName.c_str(), times.interfaceName.c_str(), times.functionCode);
    MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, callFunction, "[IPC][Error name: %s]",
                 name != nullptr ? name : "");
    std::string text;
    if (reply.PopString(text)) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, callFunction, "[IPC]'%s'", text.c_str());
    }
}

bool TCIpcClient::m_ReadReply(TIIpcMessage& reply, TCMessageBuffer& output, const CallTimes& times) {
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    std::vector<std::uint8_t> storage;

    std::uint8_t replyValue = 0;
    if (!reply.PopByte(replyValue)) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, callFunction,
                     "[API_LITE] Expected DBUS_TYPE_BYTE.");
        return false;
    }
    const bool wellFormed = (replyValue & replyWellFormed) != 0;
    if (!wellFormed) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, callFunction,
                     "[API_LITE] Reply message is broken. Reply value: %u",
                     static_cast<unsigned int>(replyValue));
    } else {
        if (!reply.PopSkip()) {
            MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, callFunction, "Expected parameter");
            return false;
        }
        if (!reply.PopByteRange(data, size, storage)) {
            MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, callFunction,
                         "[API_LITE] Expected bytes array");
            return false;
        }
        // The payload stays in the output even when the auxiliary part below turns out to be broken.
        TCFlatCallBuffers::Append(output, data, size);
    }
    IpcNativeAuxData aux;
    // Most replies announce nothing, and asking for the tags costs two allocations.
    if (replyValue != replyWellFormed && aux.AuxiliaryFlagsPresent(replyValue)) {
        if (!reply.PopSkip()) {
            MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, callFunction, "Expected parameter");
            return false;
        }
        if (!reply.PopByteRange(data, size, storage)) {
            MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, callFunction,
                         "[API_LITE] Expected bytes array");
            return false;
        }
        aux.Load(static_cast<unsigned int>(size), reinterpret_cast<const char*>(data));
    }
    unsigned long long receivedMs = 0;
    unsigned long long repliedMs = 0;
    aux.GetTimestamp(IPC_AUX_TIMESTAMP_RECEIVED, receivedMs);
    aux.GetTimestamp(IPC_AUX_TIMESTAMP_SENT, repliedMs);
    t_LogApiCallDelay(times.startMs, receivedMs, repliedMs, times.busName, times.interfaceName,
                      times.functionCode, wellFormed);
    return wellFormed;
}

bool TCIpcClient::CallAsync(const std::string& interfaceName, short functionCode, TCMessageBuffer& input) {
    IpcProxyAuxData aux;
    TIIpcMessageAllocator* messageAllocator = m_connection->GetMessageAllocatorInstance();
    MAVIX_ASSERT_RETURN(messageAllocator, "messageAllocator", false);
    const std::unique_ptr<TIIpcMessage> message = messageAllocator->NewMessage(nullptr);
    if (!message) {
        MAVIX_LOGE("[API_LITE] new message failed.");
        return false;
    }
    if (!m_PrepareCall(interfaceName, functionCode, input, aux, flagNoReply, *message)) {
        MAVIX_LOGE("[API_LITE] m_PrepareCall failed.");
        return false;
    }
    if (!m_connection->Send(*message)) {
        MAVIX_LOGE("[API_LITE] Cannot send call message. Out of memory. functionCode[%d]", functionCode);
        return false;
    }
    return true;
}

bool TCIpcClient::WaitForCreateInterface(const char* interfaceName) {
    if (!m_IsMAVIXSupported()) {
        MAVIX_LOGE("[API_LITE] IsMAVIXSupported() is false, just return true");
        return true;
    }
    if (interfaceName == nullptr) {
        throw std::logic_error("TCIpcClient::WaitForCreateInterface: null interface name");
    }
    const std::list<std::string> busNames = m_configuration->InterfaceBusNameList(interfaceName);
    for (const std::string& busName : busNames) {
        const PerformanceLogger performanceLogger(
            MAVIX_LOG_SOURCE_NAME, __LINE__,
            "[TCIpcClient::WaitForCreateInterface] busName:%s, interfaceName:%s", busName.c_str(),
            interfaceName);
        if (!m_WaitForCreateBus(busName, nullptr)) {
            return false;
        }
    }
    return true;
}

bool TCIpcClient::m_PrepareCall(const std::string& interfaceName, short functionCode, TCMessageBuffer& input,
                                IpcAuxData& aux, unsigned short flags, TIIpcMessage& message) {
    std::string busName;
    return m_PrepareCall(interfaceName, functionCode, input, aux, flags, message, busName);
}

bool TCIpcClient::m_PrepareCall(const std::string& interfaceName, short functionCode, TCMessageBuffer& input,
                                IpcAuxData& aux, unsigned short flags, TIIpcMessage& message,
                                std::string& busName) {
    MAVIX_LOGI("[IPC][CALL] %d %d %s", functionCode, flags, interfaceName.c_str());
    if (m_configuration->StartCallTimestamp(interfaceName, functionCode)) {
        aux.SetTimestamp(IPC_AUX_TIMESTAMP_SENT, NowMs());
    }
    busName = m_configuration->MethodBusName(interfaceName, functionCode);
    bool helloSent = false;
    if (!m_WaitForCreateBus(busName, &helloSent)) {
        MAVIX_LOGE("[API_LITE] Bus not owned");
        return false;
    }
    if (!helloSent) {
        flags = static_cast<unsigned short>(flags | flagProgramName);
    }
    if (!message.Initialize(TIIpcMessage::MethodCall, busName.c_str(), callObjectPath, interfaceName.c_str(),
                            callMember)) {
        MAVIX_LOGE("[API_LITE] Cannot create call message. Out of memory.");
        return false;
    }
    return t_PrepareMessage(message, functionCode, input, aux, flags);
}

bool TCIpcClient::t_PrepareMessage(TIIpcMessage& message, short functionCode, TCMessageBuffer& input,
                                   const IpcAuxData& aux, unsigned short flags) {
    const std::size_t size = input.PayloadSize();
    if (size > payloadLimit) {
        MAVIX_LOGE("[API_LITE] Message exceeds allowed limit for message size (size: %d, limit: %d)",
                   static_cast<int>(size), static_cast<int>(payloadLimit));
        return false;
    }
    const std::uint32_t effectiveFlags = flags | aux.Mask();
    // The sign of a negative code covers the flags.
    const std::uint32_t header =
        static_cast<std::uint32_t>(std::int32_t{functionCode}) | (effectiveFlags << 16U);
    bool complete = message.PushInt(static_cast<std::int32_t>(header)) &&
                    message.PushInt(static_cast<std::int32_t>(size)) && message.PushInt(CallingProcess());
    if ((effectiveFlags & flagNoReply) != 0) {
        message.SetNoReply();
    }
    if ((effectiveFlags & flagProgramName) != 0) {
        complete = complete && message.PushString(ProgramName());
    }
    if (size >= 1 && complete) {
        std::vector<char> owned;
        complete = TCFlatCallBuffers::TakeInput(input, owned)
                       ? message.PushOwnedBytes(std::move(owned))
                       : message.PushByteRange(input.GetAsCStr(0), size);
    }
    std::vector<char> auxBlock;
    if (aux.Store(auxBlock) && !auxBlock.empty()) {
        complete = complete && message.PushInt(static_cast<std::int32_t>(auxBlock.size())) &&
                   message.PushByteRange(auxBlock.data(), auxBlock.size());
    }
    return complete;
}

bool TCIpcClient::m_WaitForCreateBus(const std::string& busName, bool* helloSent) {
    {
        const std::shared_lock<std::shared_mutex> lock(m_busWrappersLock);
        const auto known = m_busWrappers.find(busName);
        if (known != m_busWrappers.end()) {
            if (helloSent != nullptr) {
                *helloSent = known->second->CheckAndMarkHelloSent();
            }
            return true;
        }
    }
    if (!m_IsMAVIXSupported()) {
        MAVIX_LOGE("[API_LITE] IsMAVIXSupported() is false, just return false");
        return false;
    }
    const auto busWrapper = std::make_shared<DbusBusWrapper>(busName, m_connection);
    if (!busWrapper->WaitForCreate()) {
        return false;
    }
    const std::unique_lock<std::shared_mutex> lock(m_busWrappersLock);
    auto known = m_busWrappers.find(busName);
    if (known == m_busWrappers.end()) {
        busWrapper->SubscribeForOwnerChanged();
        known = m_busWrappers.emplace(busName, busWrapper).first;
    }
    if (helloSent != nullptr) {
        *helloSent = known->second->CheckAndMarkHelloSent();
    }
    return true;
}

void TCIpcClient::t_LogApiCallDelay(unsigned long long startMs, unsigned long long serviceReceivedMs,
                                    unsigned long long serviceRepliedMs, const std::string& busName,
                                    const std::string& interfaceName, short functionCode, bool reply) {
    constexpr std::uint32_t tolerableMs = 999;
    if (startMs == 0) {
        return;
    }
    const unsigned long long nowMs = NowMs();
    if (static_cast<std::uint32_t>(nowMs - startMs) <= tolerableMs) {
        return;
    }
    if (serviceReceivedMs != 0 && serviceRepliedMs != 0) {
        MAVIX_LOGE("(busName:%s, interfaceName:%s, functionCode:%d, reply:%u) took too long = %.3lfs (proxy "
                   "call:%.3lfs, api process:%.3lfs, reply call:%.3lfs)",
                   busName.c_str(), interfaceName.c_str(), functionCode, reply ? 1U : 0U,
                   Seconds(nowMs, startMs), Seconds(serviceReceivedMs, startMs),
                   Seconds(serviceRepliedMs, serviceReceivedMs), Seconds(nowMs, serviceRepliedMs));
    } else {
        MAVIX_LOGE("(busName:%s, interfaceName:%s, functionCode:%d, reply:%u) took too long = %.3lfs",
                   busName.c_str(), interfaceName.c_str(), functionCode, reply ? 1U : 0U,
                   Seconds(nowMs, startMs));
    }
}

bool TCIpcClient::AddMatchRule(EIPCMessageType type, int id, const MAVIXHandle& handle) {
    char rule[matchRuleCapacity];
    t_CreateMatchRule(type, id, handle, rule);
    return m_connection->AddMatch(rule);
}

bool TCIpcClient::RemoveMatchRule(EIPCMessageType type, int id, const MAVIXHandle& handle) {
    char rule[matchRuleCapacity];
    t_CreateMatchRule(type, id, handle, rule);
    return m_connection->RemoveMatch(rule);
}

void TCIpcClient::t_CreateMatchRule(EIPCMessageType type, int id, const MAVIXHandle& handle, char* out) {
    const std::uint32_t handleValue = (handle.high << 16U) | handle.low;
    std::snprintf(out, matchRuleCapacity,
                  "path='%s', type='signal', interface='%s', member='%s', arg0='%d', arg1='%u'",
                  m_configuration->SignalObjectName().c_str(), m_configuration->SignalInterfaceName().c_str(),
                  m_ConvertMsgTypeToString(type), id, handleValue);
}

void TCIpcClient::SetCallbackFunction(EIPCMessageType type, void (*callback)(int, const char*, int)) {
    MAVIX_ASSERT_LEAVE(IsKnownType(type), "type < IPC_MESSAGE_MAX");
    const auto slot = static_cast<std::size_t>(type);
    const std::lock_guard<std::recursive_mutex> lock(m_callbackMutexes[slot]);
    m_callbacks[slot] = callback;
}

void TCIpcClient::UnsetCallbackFunction(EIPCMessageType type) {
    MAVIX_ASSERT_LEAVE(IsKnownType(type), "type < IPC_MESSAGE_MAX");
    const auto slot = static_cast<std::size_t>(type);
    const std::lock_guard<std::recursive_mutex> lock(m_callbackMutexes[slot]);
    if (m_callbacks[slot] != nullptr) {
        MAVIX_LOGD("[API_LITE] interfaceName:%s, objectName:%s, MsgType: %s",
                   m_configuration->SignalInterfaceName().c_str(),
                   m_configuration->SignalObjectName().c_str(), m_ConvertMsgTypeToString(type));
        m_callbacks[slot] = nullptr;
    }
}

bool TCIpcClient::FilterIpcMessage(TIIpcMessage& message) {
    TIIpcMessage::IpcMessageType type = TIIpcMessage::MethodReturn;
    if (message.IsOfType(&type, nullptr, nullptr)) {
        return false;
    }
    type = TIIpcMessage::Error;
    if (message.IsOfType(&type, nullptr, nullptr)) {
        const char* name = message.GetError();
        MAVIX_LOGE("[API_LITE] Error message: %s", name != nullptr ? name : "");
        return false;
    }
    const std::lock_guard<std::mutex> lock(m_sourceHandlersMutex);
    const bool isBusMessage = DbusBusWrapper::IsBusMessage(message) != DbusBusWrapper::NotABusMessage;
    TCGSourceHandler* handler = isBusMessage ? m_busSourceHandler.get() : m_methodSourceHandler.get();
    if (handler == nullptr) {
        return false;
    }
    handler->PushMessage(message);
    return true;
}

EIPCMessageType TCIpcClient::m_GetMessageType(const std::string& member) {
    const auto found = m_messageTypeByName.find(member);
    return found != m_messageTypeByName.end() ? found->second : IPC_MESSAGE_MAX;
}

const char* TCIpcClient::m_ConvertMsgTypeToString(EIPCMessageType type) {
    const auto found = m_messageNameByType.find(type);
    return found != m_messageNameByType.end() ? found->second.c_str() : "Unknown";
}

void TCIpcClient::t_MessageHandler(TIIpcMessage& message) {
    const char* member = message.GetMember();
    if (member == nullptr) {
        MAVIX_LOGE("[API_LITE] No member");
        return;
    }
    const EIPCMessageType type = m_GetMessageType(member);
    if (type == IPC_MESSAGE_MAX) {
        MAVIX_LOGE("[API_LITE] No such type. '%s'", member);
        return;
    }
    std::string idText;
    if (!message.PopString(idText)) {
        MAVIX_LOGE("[API_LITE] Expected DBUS_TYPE_STRING.");
        MAVIX_ASSERT_PRINT(__FUNCTION__, "false");
        return;
    }
    int id = 0;
    if (!ParseMessageId(idText, id)) {
        MAVIX_LOGE("[API_LITE] Invalid message id '%s'", idText.c_str());
        MAVIX_ASSERT_PRINT(__FUNCTION__, "false");
        return;
    }
    if (HasExtraArgument(type)) {
        message.PopSkip();
    }
    m_DeliverEvent(message, type, id);
}

// The handle and the payload may be missing: the event is then delivered without payload.
void TCIpcClient::m_DeliverEvent(TIIpcMessage& message, EIPCMessageType type, int id) {
    constexpr const char* function = "t_MessageHandler";
    if (!message.PopSkip()) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function, "[API_LITE] Expected parameter");
        MAVIX_ASSERT_PRINT(function, "false");
    }
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    std::vector<std::uint8_t> storage;
    if (!message.PopByteRange(data, size, storage)) {
        MAVIX_LOG_AS(MAVIX_LOG_ERROR, MAVIX_LOG_SOURCE_NAME, function, "[API_LITE] Expected bytes array.");
        MAVIX_ASSERT_PRINT(function, "false");
    }
    TCMessageBuffer buffer;
    const char* sender = message.GetSender();
    if (sender != nullptr) {
        buffer.SetSender(sender);
    }
    buffer.PushConcatenated(size, data);

    const auto slot = static_cast<std::size_t>(type);
    // Held during the callback, which may set or unset itself: the mutex is recursive.
    const std::lock_guard<std::recursive_mutex> lock(m_callbackMutexes[slot]);
    if (m_callbacks[slot] != nullptr) {
        m_callbacks[slot](id, buffer.GetAsCStr(0), static_cast<int>(buffer.PayloadSize()));
    }
}

void TCIpcClient::m_HandleDbusMessage(TIIpcMessage& message) {
    const std::int32_t kind = DbusBusWrapper::IsBusMessage(message);
    switch (kind) {
    case DbusBusWrapper::OwnerChanged:
        m_HandleOwnerChanged(message);
        break;
    case DbusBusWrapper::IntrospectionRequest:
        m_HandleIntrospection(message);
        break;
    default:
        MAVIX_LOGE("Unhandled message type: %d", kind);
        break;
    }
}

// Any owner change of a known name drops its entry, so that the next call waits for an owner again.
void TCIpcClient::m_HandleOwnerChanged(TIIpcMessage& message) {
    std::string busName;
    std::string oldOwner;
    std::string newOwner;
    if (!message.PopString(busName) || !message.PopString(oldOwner) || !message.PopString(newOwner)) {
        MAVIX_LOGE("[API_LITE] Expected DBUS_TYPE_STRING.");
        return;
    }
    // Dies after the lock is released: its end sends a request to the bus.
    std::shared_ptr<DbusBusWrapper> dropped;
    const std::unique_lock<std::shared_mutex> lock(m_busWrappersLock);
    const auto known = m_busWrappers.find(busName);
    if (known != m_busWrappers.end()) {
        MAVIX_LOGI("[API_LITE] Owner of bus name: %s has been removed", busName.c_str());
        dropped = std::move(known->second);
        m_busWrappers.erase(known);
    }
}

void TCIpcClient::m_HandleIntrospection(TIIpcMessage& message) {
    MAVIX_LOGD("Handling Introspection request");
    if (!message.InitializeReply(message)) {
        MAVIX_LOGE("Reply not created.");
        return;
    }
    if (!message.PushString(introspectionText)) {
        MAVIX_LOGE("Failed to attach parameters to reply message");
        return;
    }
    m_connection->Send(message);
}

} // namespace MavixApiLite
