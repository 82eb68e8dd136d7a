#ifndef MAVIX_TEST_CLIENT_ACCESS_H
#define MAVIX_TEST_CLIENT_ACCESS_H

#include "IpcClient.h"

#include <string>

namespace MavixApiLite {

// The client's private and protected parts.
struct TestAccess {
    using Client = TCIpcClient;

    static auto& CallbackMutexes(Client& client) { return client.m_callbackMutexes; }
    static auto& Callbacks(Client& client) { return client.m_callbacks; }
    static auto& Connection(Client& client) { return client.m_connection; }
    static auto& Configuration(Client& client) { return client.m_configuration; }
    static auto& BusWrappers(Client& client) { return client.m_busWrappers; }
    static auto& BusWrappersLock(Client& client) { return client.m_busWrappersLock; }
    static auto& UseBoostingInheritance(Client& client) { return client.m_useBoostingInheritance; }
    static auto& MethodSourceHandler(Client& client) { return client.m_methodSourceHandler; }
    static auto& SignalsLoopHandler(Client& client) { return client.m_signalsLoopHandler; }
    static auto& BusSourceHandler(Client& client) { return client.m_busSourceHandler; }
    static auto& SourceHandlersMutex(Client& client) { return client.m_sourceHandlersMutex; }
    static auto& MavixSupported(Client& client) { return client.m_mavixSupported; }
    static auto& DefaultContext(Client& client) { return client.m_defaultContext; }
    static auto& MessageTypeByName(Client& client) { return client.m_messageTypeByName; }
    static auto& MessageNameByType(Client& client) { return client.m_messageNameByType; }

    static bool IsMAVIXSupported(Client& client) { return client.m_IsMAVIXSupported(); }
    static EIPCMessageType GetMessageType(Client& client, const std::string& member) {
        return client.m_GetMessageType(member);
    }
    static std::string ConvertMsgTypeToString(Client& client, EIPCMessageType type) {
        return client.m_ConvertMsgTypeToString(type);
    }
    static bool WaitForCreateBus(Client& client, const std::string& busName, bool* helloSent) {
        return client.m_WaitForCreateBus(busName, helloSent);
    }
    static bool PrepareMessage(Client& client, TIIpcMessage& message, short functionCode,
                               TCMessageBuffer& input, const IpcAuxData& aux, unsigned short flags) {
        return client.t_PrepareMessage(message, functionCode, input, aux, flags);
    }
    static void LogApiCallDelay(Client& client, unsigned long long startMs,
                                unsigned long long serviceReceivedMs, unsigned long long serviceRepliedMs,
                                bool reply) {
        client.t_LogApiCallDelay(startMs, serviceReceivedMs, serviceRepliedMs, "com.norvale.MavixAPI",
                                 "com.norvale.ITest", 17, reply);
    }
    static void CreateMatchRule(Client& client, EIPCMessageType type, int id, const MAVIXHandle& handle,
                                char* out) {
        client.t_CreateMatchRule(type, id, handle, out);
    }
    static void MessageHandler(Client& client, TIIpcMessage& message) { client.t_MessageHandler(message); }
    static void HandleDbusMessage(Client& client, TIIpcMessage& message) {
        client.m_HandleDbusMessage(message);
    }
};

} // namespace MavixApiLite

#endif
