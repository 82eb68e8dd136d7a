#include "FlavourFixture.h"
#include "IpcConfigurationMavix.h"
#include "RoutingTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <limits>
#include <list>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

using namespace MavixTest;
using MavixApiLite::IpcConfiguration;
using MavixApiLite::IpcConfigurationMavix;
using MavixApiLite::MavixLiteInterfaceName;
using Names = std::list<std::string>;

namespace MavixApiLite {

struct TestAccess {
    // Whether every routed function refers to one of the object's own bus names.
    static bool RefersToItsOwnNames(const IpcConfigurationMavix& configuration) {
        for (const auto& [interfaceName, codes] : configuration.m_specialisedBusNameMapping) {
            for (const auto& [code, busName] : codes) {
                const std::string* name = &busName.get();
                if (name != &configuration.m_pipelineBusName && name != &configuration.m_serviceDbBusName &&
                    name != &configuration.m_hyperFastBusName) {
                    return false;
                }
            }
        }
        return !configuration.m_specialisedBusNameMapping.empty();
    }

    // Registers a bus without name for a function that no bus has; what was added to both tables.
    static std::size_t RegisterNameless(IpcConfigurationMavix& configuration) {
        IpcConfigurationMavix::SpecialisedBusNameMapping mapping;
        const std::size_t before = configuration.m_interfaceBusNames.size();
        configuration.m_RegisterBus("", {{"com.norvale.IOther", {1}}}, mapping);
        return mapping.size() + configuration.m_interfaceBusNames.size() - before;
    }
};

} // namespace MavixApiLite

using MavixApiLite::TestAccess;

namespace {

constexpr const char* sessionControl = "com.norvale.ISessionControl";

const IpcConfigurationMavix& Mavix() {
    static const IpcConfigurationMavix& configuration =
        *new IpcConfigurationMavix("com.norvale.Mavix.SignalIFace", "/com/norvale/Mavix/SignalObject");
    return configuration;
}

template <class Check>
void ForEveryCode(const Check& check) {
    for (int code = std::numeric_limits<short>::min(); code <= std::numeric_limits<short>::max(); ++code) {
        check(static_cast<short>(code));
    }
}

std::string LastElement(const std::string& name) {
    return name.substr(name.rfind('.') + 1);
}

class Routing : public testing::TestWithParam<RoutingRow> {};

// An interface and the buses that a client waits for before it uses the interface.
struct WaitList {
    const char* interfaceName;
    Names buses;
};

void PrintTo(const WaitList& row, std::ostream* out) {
    *out << row.interfaceName;
}

class InterfaceBuses : public testing::TestWithParam<WaitList> {};

const std::vector<WaitList>& WaitLists() {
    static const std::vector<WaitList>& rows = *new std::vector<WaitList>{
        {"com.norvale.IAVControl", {defaultBus, pipelineBus, hyperFastBus}},
        {"com.norvale.IB2BControl", {defaultBus, serviceDbBus}},
        {"com.norvale.IChannelData", {defaultBus, serviceDbBus}},
        {"com.norvale.IPVR", {defaultBus, pipelineBus}},
        {"com.norvale.IPipelineUtility", {defaultBus, pipelineBus}},
        {"com.norvale.IPlaybackNew", {defaultBus, pipelineBus}},
        {"com.norvale.ISOSpecControl", {defaultBus, pipelineBus, serviceDbBus}},
        {"com.norvale.ISatellite", {defaultBus, serviceDbBus}},
        {"com.norvale.ISatelliteControl", {defaultBus, pipelineBus}},
        {"com.norvale.ISatelliteSettings", {defaultBus, pipelineBus}},
        {"com.norvale.IScanControl", {defaultBus, pipelineBus}},
        {"com.norvale.IScanData", {defaultBus, pipelineBus}},
        {"com.norvale.IService", {defaultBus, serviceDbBus}},
        {"com.norvale.IServiceNavigation", {defaultBus, pipelineBus, serviceDbBus}},
        {"com.norvale.ISourceControl", {defaultBus, pipelineBus}},
        {"com.norvale.ITunerControl", {defaultBus, pipelineBus}},
        {"com.norvale.IUtil", {defaultBus, pipelineBus, serviceDbBus}},
        {"com.norvale.IVideoControl", {defaultBus, pipelineBus}},
        // Not in the table.
        {"com.norvale.IOther", {defaultBus}},
        {"com.norvale.iavcontrol", {defaultBus}},
        {"IAVControl", {defaultBus}},
        {"", {defaultBus}},
        {sessionControl, {sessionControl}},
    };
    return rows;
}

} // namespace

TEST_P(Routing, SendsEachFunctionOfTheRowToItsBus) {
    const RoutingRow& row = GetParam();
    ASSERT_FALSE(row.codes.empty());
    for (const short code : row.codes) {
        EXPECT_EQ(row.servedBy, Mavix().MethodBusName(row.interfaceName, code))
            << row.interfaceName << ", function " << code << ", in the row " << testing::PrintToString(row);
    }
}

TEST_P(Routing, MakesItsBusOneToWaitFor) {
    const Names buses = Mavix().InterfaceBusNameList(GetParam().interfaceName);
    EXPECT_NE(buses.end(), std::find(buses.begin(), buses.end(), GetParam().claimedBy))
        << testing::PrintToString(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Row, Routing, testing::ValuesIn(RoutingRows()), [](const auto& row) {
    return LastElement(row.param.claimedBy) + "_" + LastElement(row.param.interfaceName);
});

TEST(BusNaming, TheTableHas22Rows) {
    EXPECT_EQ(22u, RoutingRows().size());
}

TEST_P(InterfaceBuses, AreTheDefaultBusAndThenTheSpecialisedOnesInOrder) {
    EXPECT_EQ(GetParam().buses, Mavix().InterfaceBusNameList(GetParam().interfaceName));
}

TEST_P(InterfaceBuses, ServeEveryFunctionThatNoRowNamesByTheDefaultBus) {
    const std::string interfaceName = GetParam().interfaceName;
    std::set<short> routed;
    for (const RoutingRow& row : RoutingRows()) {
        if (interfaceName == row.interfaceName) {
            routed.insert(row.codes.begin(), row.codes.end());
        }
    }
    ForEveryCode([&](short code) {
        if (routed.count(code) == 0) {
            ASSERT_EQ(GetParam().buses.front(), Mavix().MethodBusName(interfaceName, code))
                << interfaceName << ", function " << code;
        }
    });
}

TEST_P(InterfaceBuses, CarryAStartTimestampForFiveFunctionsOnly) {
    const std::string interfaceName = GetParam().interfaceName;
    ForEveryCode([&](short code) {
        const bool expected =
            (interfaceName == "com.norvale.IAVControl" && (code == 66 || code == 73)) ||
            (interfaceName == "com.norvale.IVideoControl" && (code == 46 || code == 60 || code == 81));
        ASSERT_EQ(expected, Mavix().StartCallTimestamp(interfaceName, code))
            << interfaceName << ", function " << code;
    });
}

TEST_P(InterfaceBuses, AreServedByTheDaemonUnlessTheyAreSessionControl) {
    EXPECT_EQ(GetParam().interfaceName == std::string(sessionControl) ? "mavix-lite" : "mavix-daemon",
              Mavix().GetServiceProcessName(GetParam().interfaceName));
}

INSTANTIATE_TEST_SUITE_P(Of, InterfaceBuses, testing::ValuesIn(WaitLists()), [](const auto& row) {
    const std::string name = row.param.interfaceName;
    return name.find('.') == std::string::npos ? "Name" + std::to_string(row.index) : LastElement(name);
});

TEST(BusNaming, EveryInterfaceOfTheTableHasAWaitList) {
    for (const RoutingRow& row : RoutingRows()) {
        EXPECT_TRUE(std::any_of(WaitLists().begin(), WaitLists().end(), [&](const WaitList& list) {
            return std::string(list.interfaceName) == row.interfaceName;
        })) << testing::PrintToString(row);
    }
}

TEST(BusNaming, TheFirstBusThatClaimsAFunctionKeepsItAndTheSecondIsStillWaitedFor) {
    for (short code = 0; code <= 4; ++code) {
        EXPECT_EQ(pipelineBus, Mavix().MethodBusName("com.norvale.ISOSpecControl", code)) << code;
    }
    EXPECT_EQ((Names{defaultBus, pipelineBus, serviceDbBus}),
              Mavix().InterfaceBusNameList("com.norvale.ISOSpecControl"));
}

TEST(BusNaming, NegativeFunctionCodesGoToTheDefaultBus) {
    EXPECT_EQ(defaultBus, Mavix().MethodBusName("com.norvale.IAVControl", -8));
    EXPECT_EQ(defaultBus, Mavix().MethodBusName("com.norvale.IPVR", -1));
    EXPECT_EQ(defaultBus, Mavix().MethodBusName("com.norvale.IOther", -32768));
    EXPECT_EQ(sessionControl, Mavix().MethodBusName(sessionControl, -1));
}

TEST(BusNaming, SessionControlIsABusOfItsOwn) {
    EXPECT_EQ(sessionControl, MavixLiteInterfaceName);
    EXPECT_EQ(sessionControl, Mavix().MethodBusName(MavixLiteInterfaceName, 0));
    EXPECT_EQ(Names{sessionControl}, Mavix().InterfaceBusNameList(MavixLiteInterfaceName));
    EXPECT_EQ("mavix-lite", Mavix().GetServiceProcessName(MavixLiteInterfaceName));
}

TEST(BusNaming, KeepsTheNamesOfTheEvents) {
    EXPECT_EQ("com.norvale.Mavix.SignalIFace", Mavix().SignalInterfaceName());
    EXPECT_EQ("/com/norvale/Mavix/SignalObject", Mavix().SignalObjectName());
}

TEST(BusNaming, DoesNotAskForMethodCallsInTheDefaultContext) {
    EXPECT_FALSE(Mavix().ProcessMethodCallInDefaultContext());
}

TEST(BusNaming, RefersToItsOwnNamesAndSoIsNeverCopied) {
    EXPECT_TRUE(TestAccess::RefersToItsOwnNames(Mavix()));
    EXPECT_FALSE(std::is_copy_constructible_v<IpcConfigurationMavix>);
    EXPECT_FALSE(std::is_copy_assignable_v<IpcConfigurationMavix>);
    EXPECT_FALSE(std::is_move_constructible_v<IpcConfigurationMavix>);
}

TEST(BusNaming, AnswersManyThreadsAtOnce) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([] {
            for (int round = 0; round < 200; ++round) {
                for (const RoutingRow& row : RoutingRows()) {
                    EXPECT_EQ(row.servedBy, Mavix().MethodBusName(row.interfaceName, *row.codes.begin()));
                    EXPECT_EQ(defaultBus, Mavix().InterfaceBusNameList(row.interfaceName).front());
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(NeutralNaming, KnowsOneBusPerInterfaceNamedLikeIt) {
    const IpcConfiguration configuration("the.signals", "/the/signals");
    for (const char* name : {"com.norvale.IAVControl", sessionControl, "any", ""}) {
        EXPECT_EQ(name, configuration.MethodBusName(name, 8));
        EXPECT_EQ(Names{name}, configuration.InterfaceBusNameList(name));
        EXPECT_FALSE(configuration.StartCallTimestamp(name, 66));
        EXPECT_EQ("", configuration.GetServiceProcessName(name));
    }
    EXPECT_TRUE(configuration.ProcessMethodCallInDefaultContext());
    EXPECT_EQ("the.signals", configuration.SignalInterfaceName());
    EXPECT_EQ("/the/signals", configuration.SignalObjectName());
}

namespace {

class NamelessBus : public FlavourFixture {};

constexpr const char* file = "../../../src/ipc/IpcConfigurationMavix";
constexpr const char* expression = "busName.empty() == false";

} // namespace

MAVIX_CHILD(RegisterNameless) {
    IpcConfigurationMavix configuration("a.b", "/a");
    return static_cast<int>(TestAccess::RegisterNameless(configuration));
}

TEST_F(NamelessBus, IsAnAssertion) {
    const ChildResult result = RunChildProgram("RegisterNameless");
    EXPECT_EQ(SIGABRT, result.signal);
    EXPECT_TRUE(HasAssertion(result, file, expression)) << result.errors;
}

TEST_F(NamelessBus, IsNotRegisteredOnARelease) {
    const ChildResult result = RunChildProgram("RegisterNameless", releaseFlavour);
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_TRUE(HasAssertion(result, file, expression)) << result.errors;
    EXPECT_TRUE(HasAssertLine(result, "m_RegisterBus")) << result.output;
}
