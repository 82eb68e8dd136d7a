#ifndef MAVIX_TEST_SIM_FIXTURE_H
#define MAVIX_TEST_SIM_FIXTURE_H

#include "RawClient.h"
#include "SimDriver.h"
#include "SimProcess.h"

#include <gtest/gtest.h>

namespace MavixTest {

// A bus, the stand-in service and one raw client of it.
class TCSimFixture : public testing::Test {
protected:
    explicit TCSimFixture(const std::vector<std::string>& simOptions = {}) : m_sim(m_bus, simOptions, true) {}

    TCPrivateBus m_bus;
    TCSimProcess m_sim;
    TCSimDriver m_driver{m_bus};
    TCRawClient m_client{m_bus.Address()};
};

} // namespace MavixTest

#endif
