#include "IpcConfigurationMavix.h"

#include "MavixAssert.h"

#include <string_view>
#include <utility>

namespace MavixApiLite {

using namespace std::string_view_literals;

// Never destroyed: the library's threads may still name the interface while the process exits.
const std::string& MavixLiteInterfaceName = *new std::string("com.norvale.ISessionControl");

IpcConfigurationMavix::IpcConfigurationMavix(std::string signalInterfaceName, std::string signalObjectName)
    : IpcConfiguration(std::move(signalInterfaceName), std::move(signalObjectName)),
      m_defaultBusName("com.norvale.MavixAPI"), m_pipelineBusName("com.norvale.MavixAPI.Pipeline"),
      m_serviceDbBusName("com.norvale.MavixAPI.ServiceDb"),
      m_hyperFastBusName("com.norvale.MavixAPI.HyperFast"),
      m_specialisedBusNameMapping(t_CreateSpecialisedBusNameMapping()) {}

IpcConfigurationMavix::~IpcConfigurationMavix() = default;

bool IpcConfigurationMavix::ProcessMethodCallInDefaultContext() const {
    return false;
}

std::string IpcConfigurationMavix::MethodBusName(const std::string& interfaceName, short functionCode) const {
    if (interfaceName == MavixLiteInterfaceName) {
        return interfaceName;
    }
    const auto codes = m_specialisedBusNameMapping.find(interfaceName);
    if (codes == m_specialisedBusNameMapping.end()) {
        return m_defaultBusName;
    }
    const auto busName = codes->second.find(functionCode);
    return busName != codes->second.end() ? busName->second.get() : m_defaultBusName;
}

std::list<std::string> IpcConfigurationMavix::InterfaceBusNameList(const std::string& interfaceName) const {
    if (interfaceName == MavixLiteInterfaceName) {
        return {interfaceName};
    }
    std::list<std::string> busNames{m_defaultBusName};
    const auto specialised = m_interfaceBusNames.find(interfaceName);
    if (specialised != m_interfaceBusNames.end()) {
        busNames.insert(busNames.end(), specialised->second.begin(), specialised->second.end());
    }
    return busNames;
}

bool IpcConfigurationMavix::StartCallTimestamp(const std::string& interfaceName, short functionCode) const {
    // Their sizes are compared first, which is enough for most.
    const std::string_view name = interfaceName;
    if (name == "com.norvale.IAVControl"sv) {
        return functionCode == 66 || functionCode == 73;
    }
    if (name == "com.norvale.IVideoControl"sv) {
        return functionCode == 46 || functionCode == 60 || functionCode == 81;
    }
    return false;
}

std::string IpcConfigurationMavix::GetServiceProcessName(const std::string& interfaceName) const {
    return interfaceName == MavixLiteInterfaceName ? "mavix-lite" : "mavix-daemon";
}

IpcConfigurationMavix::SpecialisedBusNameMapping IpcConfigurationMavix::t_CreateSpecialisedBusNameMapping() {
    const FunctionCodes pipeline{
        {"com.norvale.IAVControl", {8, 9, 10, 11, 12, 13, 15, 17, 26, 28, 38, 41, 44, 45, 49, 50, 68, 72}},
        {"com.norvale.IPipelineUtility", {5, 6, 7, 8, 12}},
        {"com.norvale.IPlaybackNew", {3, 5, 6, 7, 8, 10}},
        {"com.norvale.IPVR", {0, 2}},
        {"com.norvale.ISatelliteControl", {0, 1, 3}},
        {"com.norvale.ISatelliteSettings", {20}},
        {"com.norvale.IScanControl", {0, 4, 6, 10, 14, 19, 22, 23, 25, 26}},
        {"com.norvale.IScanData", {0, 4, 40}},
        {"com.norvale.IServiceNavigation", {0,  1,  2,  3,  5,  6,  8,  9,  10, 12, 15, 16, 21, 23, 24,
                                            25, 26, 29, 34, 38, 39, 41, 42, 46, 50, 52, 54, 55, 56, 57}},
        {"com.norvale.ISOSpecControl", {0, 1, 2, 3, 4}},
        {"com.norvale.ISourceControl", {0,  1,  2,  3,  9,  11, 12, 15, 16, 17, 18, 19, 20, 21,
                                        34, 35, 36, 37, 38, 39, 40, 41, 42, 43, 45, 49, 50, 51}},
        {"com.norvale.ITunerControl", {0, 1, 2, 6, 7, 8, 11}},
        {"com.norvale.IUtil", {1, 29}},
        {"com.norvale.IVideoControl",
         {0, 2, 4, 8, 15, 22, 25, 28, 29, 31, 33, 42, 46, 48, 50, 52, 54, 56, 58, 60, 81}},
    };
    const FunctionCodes serviceDb{
        {"com.norvale.IB2BControl", {2, 3}},
        {"com.norvale.IChannelData", {2}},
        {"com.norvale.ISatellite", {0, 2, 3, 5, 6}},
        {"com.norvale.IService",
         {0, 3, 4, 5, 7, 8, 9, 10, 11, 17, 19, 20, 21, 22, 24, 25, 26, 27, 28, 30, 32, 34, 35, 36}},
        {"com.norvale.IServiceNavigation", {17, 18, 31}},
        {"com.norvale.ISOSpecControl", {0, 1, 2, 3, 4}},
        {"com.norvale.IUtil", {9, 10, 11, 12}},
    };
    const FunctionCodes hyperFast{
        {"com.norvale.IAVControl", {66, 67, 73}},
    };
    SpecialisedBusNameMapping mapping;
    m_RegisterBus(m_pipelineBusName, pipeline, mapping);
    m_RegisterBus(m_serviceDbBusName, serviceDb, mapping);
    m_RegisterBus(m_hyperFastBusName, hyperFast, mapping);
    return mapping;
}

// The first bus that claims a function keeps it; a later one is waited for all the same.
void IpcConfigurationMavix::m_RegisterBus(const std::string& busName, const FunctionCodes& functions,
                                          SpecialisedBusNameMapping& mapping) {
    MAVIX_ASSERT_LEAVE(busName.empty() == false, "busName.empty() == false");
    for (const auto& [interfaceName, codes] : functions) {
        BusNameByCode& busNameByCode = mapping[interfaceName];
        for (const short code : codes) {
            busNameByCode.emplace(code, busName);
        }
        m_interfaceBusNames[interfaceName].push_back(busName);
    }
}

} // namespace MavixApiLite
