#include "PrivateBus.h"

#include <cstdlib>

namespace MavixTest {

TCPrivateBus::TCPrivateBus(Access access) : m_daemon(m_folder.Path(), MAVIX_TEST_POLICY, true) {
    if (access == Access::EveryUser)
        m_folder.OpenToOtherUsers();
    m_daemon.Start();
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", Address().c_str(), 1);
}

void TCPrivateBus::Restart() {
    m_daemon.Stop();
    m_daemon.Start();
}

} // namespace MavixTest
