#ifndef MAVIX_IPC_CONFIGURATION_H
#define MAVIX_IPC_CONFIGURATION_H

#include "Export.h"

#include <list>
#include <string>

namespace MavixApiLite {

// Which bus names, processes and signal names a client deals with. Immutable after construction, so any
// thread may ask. This base knows one bus per interface, named like the interface.
class MAVIX_API_EXPORT IpcConfiguration {
public:
    IpcConfiguration(std::string signalInterfaceName, std::string signalObjectName);
    virtual ~IpcConfiguration();
    IpcConfiguration(const IpcConfiguration&) = delete;
    IpcConfiguration& operator=(const IpcConfiguration&) = delete;

    // Whether incoming method calls are meant for the default main context.
    virtual bool ProcessMethodCallInDefaultContext() const;
    // The bus name that serves a function of an interface.
    virtual std::string MethodBusName(const std::string& interfaceName, short functionCode) const;
    // The bus names that must have an owner before an interface can be used, in the order of waiting.
    virtual std::list<std::string> InterfaceBusNameList(const std::string& interfaceName) const;
    // Whether a call carries the time of its sending.
    virtual bool StartCallTimestamp(const std::string& interfaceName, short functionCode) const;
    // The process that serves an interface; empty when not known.
    virtual std::string GetServiceProcessName(const std::string& interfaceName) const;

    // The D-Bus interface and object path of the service's events.
    std::string SignalInterfaceName() const { return m_signalInterfaceName; }
    std::string SignalObjectName() const { return m_signalObjectName; }

private:
    friend struct TestAccess;

    std::string m_signalInterfaceName;
    std::string m_signalObjectName;
};

} // namespace MavixApiLite

#endif
