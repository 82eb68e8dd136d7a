#ifndef MAVIX_TEST_CONTROL_BUS_H
#define MAVIX_TEST_CONTROL_BUS_H

#include "ControlProgram.h"
#include "PrivateBus.h"
#include "SimDriver.h"
#include "SimProcess.h"

#include <gtest/gtest.h>

namespace MavixTest {

// A private bus with the stand-in service, which the programs find by their environment.
class ControlBus : public testing::Test {
protected:
    TCPrivateBus m_bus;
    TCSimProcess m_service{m_bus, {"--respawn"}, true};
    TCSimDriver m_daemon{m_bus};
    TCSimDriver m_lite{m_bus, TCSimDriver::Process::Lite};
};

} // namespace MavixTest

#endif
