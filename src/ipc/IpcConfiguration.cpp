#include "IpcConfiguration.h"

#include <utility>

namespace MavixApiLite {

IpcConfiguration::IpcConfiguration(std::string signalInterfaceName, std::string signalObjectName)
    : m_signalInterfaceName(std::move(signalInterfaceName)), m_signalObjectName(std::move(signalObjectName)) {
}

IpcConfiguration::~IpcConfiguration() = default;

bool IpcConfiguration::ProcessMethodCallInDefaultContext() const {
    return true;
}

std::string IpcConfiguration::MethodBusName(const std::string& interfaceName, short /*functionCode*/) const {
    return interfaceName;
}

std::list<std::string> IpcConfiguration::InterfaceBusNameList(const std::string& interfaceName) const {
    return {interfaceName};
}

bool IpcConfiguration::StartCallTimestamp(const std::string& /*interfaceName*/,
                                          short /*functionCode*/) const {
    return false;
}

std::string IpcConfiguration::GetServiceProcessName(const std::string& /*interfaceName*/) const {
    return {};
}

} // namespace MavixApiLite
