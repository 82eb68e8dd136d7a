#include "ClientFixture.h"

// The CPU priority that a synchronous call lends to the service.

using namespace MavixTest;
using namespace MavixApiLite;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* setDaemon = "resource_set_cpu_inheritance(0, mavix-daemon, 1999)";
constexpr const char* clearDaemon = "resource_clear_cpu_inheritance(0, mavix-daemon)";
constexpr const char* setLite = "resource_set_cpu_inheritance(0, mavix-lite, 1999)";
constexpr const char* clearLite = "resource_clear_cpu_inheritance(0, mavix-lite)";

class CallInheritance : public ClientTest {
protected:
    explicit CallInheritance(std::unique_ptr<IpcConfiguration> configuration = MavixConfiguration())
        : ClientTest(std::move(configuration)) {
        AnswerWith("(byte 1, 0, @ay [])");
    }

    // The inheritance calls, without the feature queries.
    std::vector<std::string> InheritanceCalls() const {
        std::vector<std::string> calls;
        for (const std::string& call : m_platform.Calls()) {
            if (call.find("cpu_inheritance") != std::string::npos) {
                calls.push_back(call);
            }
        }
        return calls;
    }
    LogLine OnlyError() const {
        const std::vector<std::string> errors = Errors();
        EXPECT_EQ(1U, errors.size());
        for (const LogLine& line : m_platform.Lines()) {
            if (line.priority == 6) {
                return line;
            }
        }
        return {};
    }
};

TEST_F(CallInheritance, LastsFromBeforeTheSendUntilAfterTheReply) {
    std::vector<std::string> duringSend;
    std::vector<std::string> duringWait;
    Connection().onBusHasOwner = [&](const std::string&, int, bool& hasOwner) {
        duringWait = InheritanceCalls();
        hasOwner = true;
        return true;
    };
    Connection().onSendWithReply = [&](TIIpcMessage& message) {
        duringSend = InheritanceCalls();
        Adopt(message, Reply("(byte 1, 0, @ay [])"));
        return true;
    };
    ASSERT_TRUE(Call());
    EXPECT_THAT(duringWait, IsEmpty());
    EXPECT_THAT(duringSend, ElementsAre(setDaemon));
    EXPECT_THAT(InheritanceCalls(), ElementsAre(setDaemon, clearDaemon));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(CallInheritance, GoesToTheProcessThatServesTheInterface) {
    ASSERT_TRUE(Call("com.norvale.ISessionControl"));
    ASSERT_TRUE(Call("com.norvale.IAVControl", 8));
    EXPECT_THAT(InheritanceCalls(), ElementsAre(setLite, clearLite, setDaemon, clearDaemon));
}

TEST_F(CallInheritance, EndsAfterAFailedSendToo) {
    Connection().onSendWithReply = nullptr;
    ASSERT_FALSE(Call());
    EXPECT_THAT(InheritanceCalls(), ElementsAre(setDaemon, clearDaemon));
}

TEST_F(CallInheritance, IsNotAskedForWhenNothingIsSent) {
    ASSERT_FALSE(Call("not an interface"));
    EXPECT_THAT(InheritanceCalls(), IsEmpty());
}

TEST_F(CallInheritance, AFailingSetIsLoggedNotClearedAndNoFailureOfTheCall) {
    m_platform.setInheritance = [](const char*) { return -5; };
    EXPECT_TRUE(Call());
    EXPECT_THAT(InheritanceCalls(), ElementsAre(setDaemon));
    const LogLine line = OnlyError();
    EXPECT_EQ("MAVIX_API", line.tag);
    EXPECT_EQ("PriorityInheritanceWrapper", line.source);
    EXPECT_EQ("TCPriorityInheritanceWrapper", line.function);
    EXPECT_EQ("Inheritance failed: -5", line.text);
}

TEST_F(CallInheritance, SwitchedOffIsNotAskedForUntilSwitchedOn) {
    Client().UseBoostingInheritance(false);
    ASSERT_TRUE(Call());
    EXPECT_THAT(InheritanceCalls(), IsEmpty());
    EXPECT_THAT(Errors(), IsEmpty());
    Client().UseBoostingInheritance(true);
    ASSERT_TRUE(Call());
    EXPECT_THAT(InheritanceCalls(), ElementsAre(setDaemon, clearDaemon));
}

TEST_F(CallInheritance, AnAsynchronousCallLendsNothing) {
    ASSERT_TRUE(CallAsync());
    EXPECT_THAT(InheritanceCalls(), IsEmpty());
}

// A naming that knows no processes.
class CallInheritanceWithoutProcess : public CallInheritance {
protected:
    CallInheritanceWithoutProcess()
        : CallInheritance(std::make_unique<IpcConfiguration>("com.norvale.Other", "/com/norvale/Other")) {}
};

TEST_F(CallInheritanceWithoutProcess, WithoutAProcessNameThereIsALineAndNoInheritance) {
    EXPECT_TRUE(Call("com.norvale.IOther"));
    EXPECT_EQ("com.norvale.IOther", Requests().back().destination);
    EXPECT_THAT(InheritanceCalls(), IsEmpty());
    const LogLine line = OnlyError();
    EXPECT_EQ("MAVIX_API", line.tag);
    EXPECT_EQ("PriorityInheritanceWrapper", line.source);
    EXPECT_EQ("TCPriorityInheritanceWrapper", line.function);
    EXPECT_EQ("Process name not set. Disabling inheritance.", line.text);
}

TEST_F(CallInheritanceWithoutProcess, TheMissingNameIsLoggedWhenSwitchedOffToo) {
    Client().UseBoostingInheritance(false);
    EXPECT_TRUE(Call("com.norvale.IOther"));
    EXPECT_EQ("Process name not set. Disabling inheritance.", OnlyError().text);
}

} // namespace
