#ifndef MAVIX_TEST_SCENARIO_FIXTURE_H
#define MAVIX_TEST_SCENARIO_FIXTURE_H

#include "RawClient.h"
#include "SimDriver.h"
#include "SimProcess.h"

#include <gtest/gtest.h>

#include <fstream>
#include <optional>

namespace MavixTest {

// A bus on which the stand-in service plays a scenario of the test's, and one raw client.
class TCScenarioFixture : public testing::Test {
protected:
    void Play(const std::string& scenario) {
        const std::string file = m_bus.Folder() + "/scenario.json";
        std::ofstream(file) << scenario;
        m_report = m_bus.Folder() + "/report";
        m_sim.emplace(m_bus, std::vector<std::string>{"--scenario=" + file, "--report=" + m_report}, true);
    }
    // With rules for com.norvale.ITest, the interface of Call.
    void PlayRules(const std::string& rules) {
        Play(R"({"format":1,"interfaces":{"com.norvale.ITest":[)" + rules + "]}}");
    }

    RawReply Call(int code, const Bytes& payload = {}, const std::string& interface = "com.norvale.ITest") {
        RawCall call;
        call.interface = interface;
        if (interface == "com.norvale.ISessionControl") {
            call.destination = interface;
        }
        call.header = Header(code);
        call.payload = payload;
        return m_client.Call(call);
    }
    // The payload of the answer; the error's name as bytes when it was one.
    Bytes Answer(int code, const Bytes& payload = {}, const std::string& interface = "com.norvale.ITest") {
        const RawReply reply = Call(code, payload, interface);
        if (reply.IsError()) {
            return TextBytes(reply.errorName);
        }
        reply.TakeByte();
        reply.TakeInt();
        return reply.TakeBytes();
    }
    void SubscribeToEvents() {
        m_client.Subscribe("type='signal',interface='com.norvale.Mavix.SignalIFace'");
    }
    // What mavix-sim says at its end.
    std::string EndAndReport() {
        m_sim->Stop();
        std::ifstream file(m_report);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    TCPrivateBus m_bus;
    std::optional<TCSimProcess> m_sim;
    TCRawClient m_client{m_bus.Address()};
    std::string m_report;
};

} // namespace MavixTest

#endif
