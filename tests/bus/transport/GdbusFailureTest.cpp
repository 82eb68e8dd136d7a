#include "FakeBus.h"
#include "FlavourFixture.h"
#include "GdbusConnection.h"
#include "GioFaults.h"
#include "LogPriorities.h"
#include "PrivateBus.h"
#include "RawClient.h"
#include "RecordingOwner.h"
#include "RecordingPlatform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

// A connect that fails: it stops the process, except on a release build, where life goes on without a bus.

namespace MavixTest {

namespace {

using MavixApiLite::TCGdbusConnection;
using MavixApiLite::TIIpcConnection;
using std::chrono::seconds;
using testing::HasSubstr;
using testing::Not;

constexpr const char* addressVariable = "DBUS_SYSTEM_BUS_ADDRESS";

// One way in which a connect fails.
struct Failure {
    const char* name;
    std::vector<const char*> errorLines;
};

const std::vector<Failure>& Failures() {
    static const std::vector<Failure> failures = {
        {"no bus",
         {"[API_LITE] m_Connect failed!", "[API_LITE] 'Could not connect: No such file or directory'"}},
        {"malformed address", {"[API_LITE] m_Connect failed!"}},
        {"not ready", {"dbus not ready!"}},
        {"no connection", {"Connect failed"}},
        {"initialiser", {"Owner initialization failed!"}},
        {"throwing initialiser", {"[API_LITE] exception: not today"}},
    };
    return failures;
}

// Arranges for the failure, and for its end. The bus is that of the test.
class Trouble {
public:
    explicit Trouble(const std::string& name) : m_address(std::getenv(addressVariable)) {
        if (name == "no bus") {
            ::setenv(addressVariable, "unix:path=/nowhere/bus", 1);
        } else if (name == "malformed address") {
            ::setenv(addressVariable, "nonsense", 1);
        } else if (name == "not ready") {
            TCRecordingPlatform::Get().waitEvent = [](const char*, int) { return -1; };
        } else if (name == "no address") {
            GioFaults::withoutAddress = true;
        } else if (name == "no connection") {
            GioFaults::withoutConnection = true;
        } else if (name == "initialiser") {
            owner.onInitialize = [this](TIIpcConnection* connection) {
                uniqueName = connection->GetUniqueName();
                return false;
            };
        } else if (name == "throwing initialiser") {
            owner.onInitialize = [this](TIIpcConnection* connection) -> bool {
                uniqueName = connection->GetUniqueName();
                throw std::runtime_error("not today");
            };
        }
    }
    void End() {
        ::setenv(addressVariable, m_address.c_str(), 1);
        TCRecordingPlatform::Get().waitEvent = nullptr;
        GioFaults::withoutAddress = false;
        GioFaults::withoutConnection = false;
        owner.onInitialize = nullptr;
    }
    const std::string& Address() const { return m_address; }

    TCRecordingOwner owner;
    std::string uniqueName;

private:
    const std::string m_address;
};

} // namespace

// Argument: the failure. Does nothing but connect.
MAVIX_CHILD(FailToConnect) {
    Trouble trouble(arguments.at(0));
    TCGdbusConnection connection;
    connection.Connect("Child", &trouble.owner);
    for (;;) {
        pause();
    }
}

// Argument: the failure. Goes on as a release build does; its output tells what the operations gave.
MAVIX_CHILD(LiveOnWithoutConnection) {
    Trouble trouble(arguments.at(0));
    TCGdbusConnection connection;
    connection.Connect("Child", &trouble.owner);
    std::printf("waited %d\n", connection.WaitConnected());
    std::printf("waited again %d\n", connection.WaitConnected());
    std::printf("name '%s'\n", connection.GetUniqueName().c_str());
    std::printf("match %d\n", connection.AddMatch("type='signal'"));
    if (!trouble.uniqueName.empty()) {
        TCRawClient witness(trouble.Address());
        RawCall ask;
        ask.destination = ask.interface.emplace("org.freedesktop.DBus");
        ask.path = "/org/freedesktop/DBus";
        ask.member = "GetNameOwner";
        ask.body = [&trouble](sd_bus_message* message) {
            sd_bus_message_append_basic(message, 's', trouble.uniqueName.c_str());
        };
        std::printf("on the bus: %s\n", witness.Call(ask).errorName.c_str());
    }
    trouble.End();
    connection.Connect("Again", &trouble.owner);
    std::printf("connected %d\n", connection.WaitConnected());
    std::printf("name '%c'\n", connection.GetUniqueName()[0]);
    std::fflush(stdout);
    return 0;
}

namespace {

constexpr const char* source = "../../../src/ipc/GdbusConnection";

using GdbusFailureOnARelease = FlavourFixture;

TEST(GdbusFailure, EveryFailureStopsTheProcessByItself) {
    const TCPrivateBus bus;
    for (const Failure& failure : Failures()) {
        const ChildResult result =
            RunChildProgram("FailToConnect", plainFlavour, {failure.name}, seconds(30));
        EXPECT_EQ(SIGABRT, result.signal) << failure.name << '\n' << result.errors;
        EXPECT_FALSE(result.timedOut) << failure.name;
        EXPECT_TRUE(result.HasLine(debugLine, "[API_LITE][START] Child, m_Connect")) << result.errors;
        for (const char* line : failure.errorLines) {
            EXPECT_EQ(1U, result.CountLines(errorLine, line)) << failure.name << '\n' << result.errors;
        }
        EXPECT_EQ(1U, CountAssertions(result, source, "false")) << failure.name << '\n' << result.errors;
        EXPECT_THAT(result.output, Not(HasSubstr("ASSERT!!!"))) << failure.name;
    }
}

TEST(GdbusFailure, AMissingBusStopsTheProcessSoon) {
    const TCPrivateBus bus;
    const ChildResult result = RunChildProgram("FailToConnect", plainFlavour, {"no bus"}, seconds(30));
    EXPECT_EQ(SIGABRT, result.signal) << result.errors;
    // The assertion lets the line reach the log first.
    EXPECT_GE(result.duration, std::chrono::milliseconds(100));
    EXPECT_LT(result.duration, seconds(15));
}

TEST_F(GdbusFailureOnARelease, EveryFailureLeavesNoConnectionAndMayBeTriedAgain) {
    const TCPrivateBus bus;
    for (const Failure& failure : Failures()) {
        const ChildResult result =
            RunChildProgram("LiveOnWithoutConnection", releaseFlavour, {failure.name}, seconds(60));
        EXPECT_EQ(0, result.exitCode) << failure.name << '\n' << result.errors;
        const std::string onTheBus = std::string(failure.name).find("initialiser") != std::string::npos
                                         ? "on the bus: org.freedesktop.DBus.Error.NameHasNoOwner\n"
                                         : "";
        EXPECT_EQ("waited 0\nwaited again 0\nname ''\nmatch 0\n" + onTheBus + "connected 1\nname ':'\n",
                  result.output)
            << failure.name;
        for (const char* line : failure.errorLines) {
            EXPECT_EQ(1U, result.CountLines(errorLine, line)) << failure.name << '\n' << result.errors;
        }
        EXPECT_EQ(1U, CountAssertions(result, source, "false")) << failure.name;
        // The first one joins the finished thread, the others find none.
        EXPECT_EQ(2U, result.CountLines(infoLine, "[API_LITE][START] Wait for DBUS connection"))
            << result.errors;
        EXPECT_EQ(1U, result.CountLines(infoLine, "[API_LITE][END] Wait for DBUS connection (nil)"))
            << result.errors;
        EXPECT_EQ(3U, result.CountLines(errorLine, "[API_LITE] called without prior Connect"))
            << result.errors;
        EXPECT_EQ(2U, result.CountLines(errorLine, "[API_LITE] not connected!")) << result.errors;
        EXPECT_EQ(1U, result.CountLines(debugLine, "[API_LITE][START] Again, m_Connect"));
        EXPECT_EQ(1U, result.CountLines(debugLine, "[API_LITE][END] Connect"));
        EXPECT_THAT(result.errors, Not(HasSubstr("CRITICAL"))) << failure.name;
    }
}

TEST(GdbusFailure, AnAddressThatIsMissingWithoutErrorIsAnAssertionOfItsOwn) {
    const TCPrivateBus bus;
    const ChildResult result = RunChildProgram("FailToConnect", plainFlavour, {"no address"}, seconds(30));
    EXPECT_EQ(SIGABRT, result.signal) << result.errors;
    EXPECT_EQ(1U, CountAssertions(result, source, "address")) << result.errors;
    EXPECT_FALSE(HasAssertion(result, source, "false"));
    EXPECT_EQ("", result.output);
}

TEST_F(GdbusFailureOnARelease, AMissingAddressIsSaidOnStandardOutputToo) {
    const TCPrivateBus bus;
    const ChildResult result =
        RunChildProgram("LiveOnWithoutConnection", releaseFlavour, {"no address"}, seconds(60));
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_TRUE(HasAssertLine(result, "m_Connect")) << result.output;
    EXPECT_THAT(result.output, HasSubstr("waited 0\n"));
    EXPECT_THAT(result.output, HasSubstr("connected 1\n"));
    EXPECT_EQ(1U, CountAssertions(result, source, "address")) << result.errors;
    EXPECT_EQ(1U, CountAssertions(result, source, "false")) << result.errors;
}

TEST_F(GdbusFailureOnARelease, AFailedInitialiserTakesItsThreadWithIt) {
    const TCPrivateBus bus;
    const ChildResult result =
        RunChildProgram("LiveOnWithoutConnection", releaseFlavour, {"initialiser"}, seconds(60));
    const std::size_t failed = result.errors.find("m_Connect|Owner initialization failed!");
    const std::size_t stopped = result.errors.find("Stopped main loop");
    const std::size_t asserted = result.errors.find(":false]");
    ASSERT_NE(std::string::npos, failed) << result.errors;
    EXPECT_LT(failed, stopped) << result.errors;
    EXPECT_LT(stopped, asserted) << result.errors;
}

} // namespace

// Connects to whatever the test plays.
MAVIX_CHILD(ConnectAndAskForTheName) {
    TCGdbusConnection connection;
    connection.Connect("Child", nullptr);
    std::printf("name '%s'\n", connection.GetUniqueName().c_str());
    std::fflush(stdout);
    return 0;
}

namespace {

// Runs the child with a bus that says nothing and hangs up.
ChildResult ConnectToAMuteBus(Flavour flavour) {
    TCFakeBus bus(TCFakeBus::Manners::Mute);
    std::thread closer([&bus] {
        EXPECT_TRUE(bus.WaitForConnections(1));
        bus.Close();
    });
    ChildResult result = RunChildProgram("ConnectAndAskForTheName", flavour);
    closer.join();
    return result;
}

TEST(GdbusFailure, AMuteBusThatHangsUpStopsTheProcess) {
    const ChildResult result = ConnectToAMuteBus(plainFlavour);
    EXPECT_EQ(SIGABRT, result.signal) << result.errors;
    EXPECT_TRUE(result.HasLine(errorLine, "[API_LITE] m_Connect failed!")) << result.errors;
    EXPECT_EQ(1U, CountAssertions(result, source, "false")) << result.errors;
}

TEST_F(GdbusFailureOnARelease, AMuteBusThatHangsUpFreesThoseWhoWait) {
    const ChildResult result = ConnectToAMuteBus(releaseFlavour);
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_EQ("name ''\n", result.output);
    EXPECT_TRUE(result.HasLine(errorLine, "[API_LITE] not connected!")) << result.errors;
}

} // namespace

} // namespace MavixTest
