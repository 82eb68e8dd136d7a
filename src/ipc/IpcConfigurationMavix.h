#ifndef MAVIX_IPC_CONFIGURATION_MAVIX_H
#define MAVIX_IPC_CONFIGURATION_MAVIX_H

#include "IpcConfiguration.h"

#include <functional>
#include <map>
#include <set>
#include <unordered_map>

namespace MavixApiLite {

// Name of the session-control interface and of the bus that serves it. Lives as long as the process.
extern MAVIX_API_EXPORT const std::string& MavixLiteInterfaceName;

// Naming of the Mavix service: a default bus for everything, three specialised buses for selected functions,
// and session control on a bus of its own.
class MAVIX_API_EXPORT IpcConfigurationMavix : public IpcConfiguration {
public:
    IpcConfigurationMavix(std::string signalInterfaceName, std::string signalObjectName);
    ~IpcConfigurationMavix() override;

    bool ProcessMethodCallInDefaultContext() const override;
    std::string MethodBusName(const std::string& interfaceName, short functionCode) const override;
    std::list<std::string> InterfaceBusNameList(const std::string& interfaceName) const override;
    bool StartCallTimestamp(const std::string& interfaceName, short functionCode) const override;
    std::string GetServiceProcessName(const std::string& interfaceName) const override;

protected:
    // The mapping refers to the bus names of this object instead of copying them.
    using BusNameByCode = std::unordered_map<short, std::reference_wrapper<const std::string>>;
    using SpecialisedBusNameMapping = std::unordered_map<std::string, BusNameByCode>;

    SpecialisedBusNameMapping t_CreateSpecialisedBusNameMapping();

private:
    friend struct TestAccess;

    using FunctionCodes = std::map<std::string, std::set<short>>;
    void m_RegisterBus(const std::string& busName, const FunctionCodes& functions,
                       SpecialisedBusNameMapping& mapping);

    const std::string m_defaultBusName;
    const std::string m_pipelineBusName;
    const std::string m_serviceDbBusName;
    const std::string m_hyperFastBusName;
    std::unordered_map<std::string, std::list<std::string>> m_interfaceBusNames;
    SpecialisedBusNameMapping m_specialisedBusNameMapping;
};

} // namespace MavixApiLite

#endif
