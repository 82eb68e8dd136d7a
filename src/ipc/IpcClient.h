#ifndef MAVIX_IPC_CLIENT_H
#define MAVIX_IPC_CLIENT_H

#include "DbusBusWrapper.h"
#include "GMainLoopHandler.h"
#include "GSourceHandler.h"
#include "IpcAuxData.h"
#include "IpcClientInterface.h"
#include "IpcConfiguration.h"
#include "IpcConnection.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>

namespace MavixApiLite {

// The object through which everybody reaches the service. The process-wide one belongs to the instance
// registry and lives until the process exits; an application may own further ones over connections of its
// own.
//
// Calls run on any thread. The connection calls back on its connecting thread (InitializeIpcConnection) and
// on its dispatch thread (FilterIpcMessage), bus messages are handled on "SignalsThread", events on the
// thread that iterates the default context. No operation takes two of the locks; none is held while the bus
// is waited for.
class MAVIX_API_EXPORT TCIpcClient : public TIIpcClient, public TIIpcConnectionOwner {
public:
    // Starts connecting and does not wait. Configuration and connection are not null. Events are delivered
    // into `defaultContext`, which is not owned; null is the process's default one. Throws what starting a
    // thread throws.
    TCIpcClient(std::unique_ptr<IpcConfiguration> configuration, GMainContext* defaultContext,
                std::unique_ptr<TIIpcConnection> connection);
    // Waits for a connect in progress and for a running event callback. Must not be called from such a
    // callback or on a thread of the client.
    ~TCIpcClient() override;
    TCIpcClient(const TCIpcClient&) = delete;
    TCIpcClient& operator=(const TCIpcClient&) = delete;

    bool AddMatchRule(EIPCMessageType type, int id, const MAVIXHandle& handle) override;
    bool RemoveMatchRule(EIPCMessageType type, int id, const MAVIXHandle& handle) override;
    bool Call(const std::string& interfaceName, short functionCode, TCMessageBuffer& input,
              TCMessageBuffer& output) override;
    bool CallAsync(const std::string& interfaceName, short functionCode, TCMessageBuffer& input) override;
    bool WaitForCreateInterface(const char* interfaceName) override;
    void SetCallbackFunction(EIPCMessageType type, void (*callback)(int, const char*, int)) override;
    void UnsetCallbackFunction(EIPCMessageType type) override;
    bool UseBoostingInheritance(bool enable) override;

    bool InitializeIpcConnection(TIIpcConnection* pConnection) override;
    bool FilterIpcMessage(TIIpcMessage& message) override;

protected:
    bool t_PrepareMessage(TIIpcMessage& message, short functionCode, TCMessageBuffer& input,
                          const IpcAuxData& aux, unsigned short flags);
    void t_LogApiCallDelay(unsigned long long startMs, unsigned long long serviceReceivedMs,
                           unsigned long long serviceRepliedMs, const std::string& busName,
                           const std::string& interfaceName, short functionCode, bool reply);
    // Writes the rule into an area of 256 characters.
    void t_CreateMatchRule(EIPCMessageType type, int id, const MAVIXHandle& handle, char* out);
    void t_MessageHandler(TIIpcMessage& message);

private:
    friend struct TestAccess;

    using EventCallback = void (*)(int, const char*, int);
    struct CallTimes {
        unsigned long long startMs;
        const std::string& busName;
        const std::string& interfaceName;
        short functionCode;
    };

    bool m_PrepareCall(const std::string& interfaceName, short functionCode, TCMessageBuffer& input,
                       IpcAuxData& aux, unsigned short flags, TIIpcMessage& message);
    // Gives the destination, too, which is gone when the reply has replaced the message.
    bool m_PrepareCall(const std::string& interfaceName, short functionCode, TCMessageBuffer& input,
                       IpcAuxData& aux, unsigned short flags, TIIpcMessage& message, std::string& busName);
    bool m_WaitForCreateBus(const std::string& busName, bool* helloSent);
    bool m_IsMAVIXSupported();
    bool m_ReadReply(TIIpcMessage& reply, TCMessageBuffer& output, const CallTimes& times);
    void m_LogErrorReply(TIIpcMessage& reply, const CallTimes& times);

    EIPCMessageType m_GetMessageType(const std::string& member);
    const char* m_ConvertMsgTypeToString(EIPCMessageType type);
    void m_DeliverEvent(TIIpcMessage& message, EIPCMessageType type, int id);
    void m_HandleDbusMessage(TIIpcMessage& message);
    void m_HandleOwnerChanged(TIIpcMessage& message);
    void m_HandleIntrospection(TIIpcMessage& message);

    std::array<std::recursive_mutex, IPC_MESSAGE_MAX> m_callbackMutexes; // each guards the slot of its type
    std::array<EventCallback, IPC_MESSAGE_MAX> m_callbacks;
    std::shared_ptr<TIIpcConnection> m_connection;
    std::unique_ptr<IpcConfiguration> m_configuration;
    std::map<std::string, std::shared_ptr<DbusBusWrapper>> m_busWrappers; // guarded by m_busWrappersLock
    std::shared_mutex m_busWrappersLock;
    std::atomic<bool> m_useBoostingInheritance;
    std::unique_ptr<TCGSourceHandler> m_methodSourceHandler; // guarded by m_sourceHandlersMutex
    std::unique_ptr<TCGMainLoopHandler> m_signalsLoopHandler;
    std::unique_ptr<TCGSourceHandler> m_busSourceHandler; // guarded by m_sourceHandlersMutex
    std::mutex m_sourceHandlersMutex;
    std::atomic<std::int32_t> m_mavixSupported; // -1 not yet known
    GMainContext* m_defaultContext;
    std::unordered_map<std::string, EIPCMessageType> m_messageTypeByName; // constant after construction
    std::unordered_map<EIPCMessageType, std::string> m_messageNameByType; // constant after construction
};

} // namespace MavixApiLite

#endif
