#ifndef MAVIX_TEST_PRIVATE_BUS_H
#define MAVIX_TEST_PRIVATE_BUS_H

#include "BusDaemon.h"
#include "TempFolder.h"

namespace MavixTest {

// A private bus with the configuration of a system bus, and DBUS_SYSTEM_BUS_ADDRESS pointing at it, now and
// after its end: tests never fall back on the machine's own bus. Owner: the test, on the thread that outlives
// all users of the bus.
class TCPrivateBus final {
public:
    enum class Access { OwnUser, EveryUser };

    explicit TCPrivateBus(Access access = Access::OwnUser);

    const std::string& Address() const { return m_daemon.Address(); }
    // For further files of the test; removed with the bus.
    const std::string& Folder() const { return m_folder.Path(); }

    void Kill() { m_daemon.Kill(); }
    void Stop() { m_daemon.Stop(); }
    // Ends the bus, if it still runs, and starts it anew at the same address.
    void Restart();

private:
    MavixTools::TCTempFolder m_folder;
    MavixTools::TCBusDaemon m_daemon;
};

} // namespace MavixTest

#endif
