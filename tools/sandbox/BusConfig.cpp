#include "BusConfig.h"

#include <fstream>
#include <iterator>
#include <pwd.h>
#include <stdexcept>
#include <unistd.h>

namespace MavixTools {

namespace {

const char* const busDtd =
    "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
    " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n";

// The default policy of a system bus; @USER@ is root there.
const char* const systemPolicies = R"(  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Introspectable"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Properties"/>
    <deny send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"
          send_member="UpdateActivationEnvironment"/>
    <deny send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Debug.Stats"/>
  </policy>
  <policy user="@USER@">
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Monitoring"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Debug.Stats"/>
  </policy>
)";

// What the stand-in service has beside the real one: its control interface.
const char* const controlPolicies = R"(  <policy user="@USER@">
    <allow own_prefix="com.norvale.Sim"/>
  </policy>
  <policy context="default">
    <allow send_type="method_call" send_path="/com/norvale/Sim"/>
  </policy>
)";

std::string CurrentUser() {
    const passwd* entry = ::getpwuid(::getuid());
    if (entry == nullptr)
        throw std::runtime_error("dbus-daemon serves no user without an account, as user " +
                                 std::to_string(::getuid()) + " is");
    return entry->pw_name;
}

std::string ReplaceAll(std::string text, const std::string& what, const std::string& with) {
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size()))
        text.replace(at, what.size(), with);
    return text;
}

} // namespace

std::string BusConfigText(const std::string& socketPath, const std::string& policyPath) {
    const std::string text = std::string(busDtd) +
                             "<busconfig>\n"
                             "  <type>system</type>\n"
                             "  <auth>EXTERNAL</auth>\n"
                             "  <listen>unix:path=" +
                             socketPath + "</listen>\n" + systemPolicies + "  <include>" + policyPath +
                             "</include>\n" + controlPolicies + "</busconfig>\n";
    return ReplaceAll(text, "@USER@", CurrentUser());
}

std::string PolicyForCurrentUser(const std::string& shippedPolicyPath) {
    std::ifstream file(shippedPolicyPath);
    std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    const std::string serviceUser = "<policy user=\"root\">";
    if (text.find(serviceUser) == std::string::npos)
        throw std::runtime_error("no policy of the service's user in '" + shippedPolicyPath + "'");
    return ReplaceAll(text, serviceUser, "<policy user=\"" + CurrentUser() + "\">");
}

} // namespace MavixTools
