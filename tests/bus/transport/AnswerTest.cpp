#include "FakeBus.h"
#include "TransportFixture.h"

#include <climits>
#include <map>
#include <memory>
#include <thread>
#include <vector>

// What becomes of answers that a real bus does not give, and of a bus that gives none.

namespace MavixTest {

namespace {

using MavixSim::Check;

TCFakeBus::Answer Nothing() {
    return [](sd_bus_message*) {};
}

TCFakeBus::Answer Text(const char* text) {
    return [text](sd_bus_message* reply) { Check(sd_bus_message_append_basic(reply, 's', text), "append"); };
}

TCFakeBus::Answer Number(char type, std::uint32_t number) {
    return [type, number](sd_bus_message* reply) {
        Check(sd_bus_message_append_basic(reply, type, &number), "append");
    };
}

// The transport's fixture with an unreliable bus in the place of the real one.
template <class Connection>
class AnswerTest : public TransportTest<Connection> {
protected:
    bool ConnectTo(std::map<std::string, TCFakeBus::Answer> answers) {
        m_fakeBus = std::make_unique<TCFakeBus>(TCFakeBus::Manners::Serve, std::move(answers));
        return this->Connect();
    }

    ~AnswerTest() override { this->m_connection.reset(); }

    std::unique_ptr<TCFakeBus> m_fakeBus;
};

using GdbusAnswerTest = AnswerTest<MavixApiLite::TCGdbusConnection>;

TEST_F(GdbusAnswerTest, TheCodeOfAReleaseDecides) {
    for (const std::uint32_t code : {1U, 0U, 2U, 3U, 4294967295U}) {
        m_connection = Row::Make();
        TCRecordingPlatform::Get().Reset();
        ASSERT_TRUE(ConnectTo({{"ReleaseName", Number('u', code)}}));
        EXPECT_EQ(code == 1, m_connection->ReleaseName("com.norvale.Sim.Own")) << code;
        EXPECT_EQ(code == 1 ? 0U : 1U, Lines(errorLine, ("Not an owner " + std::to_string(code)).c_str()))
            << code;
    }
}

TEST_F(GdbusAnswerTest, AReleaseWithoutUintFails) {
    for (const auto& answer : {Nothing(), Text("released"), Number('i', 1), Number('b', 1)}) {
        m_connection = Row::Make();
        TCRecordingPlatform::Get().Reset();
        ASSERT_TRUE(ConnectTo({{"ReleaseName", answer}}));
        EXPECT_FALSE(m_connection->ReleaseName("com.norvale.Sim.Own"));
        EXPECT_EQ(1U, Lines(errorLine, "Expected Uint!"));
    }
}

TEST_F(GdbusAnswerTest, AnOwnerQuestionWithoutBooleanFails) {
    for (const auto& answer : {Nothing(), Text("yes"), Number('u', 1)}) {
        m_connection = Row::Make();
        TCRecordingPlatform::Get().Reset();
        ASSERT_TRUE(ConnectTo({{"NameHasOwner", answer}}));
        bool hasOwner = true;
        EXPECT_FALSE(m_connection->BusHasOwner("com.norvale.Sim.Own", 5000, hasOwner));
        EXPECT_TRUE(hasOwner);
        EXPECT_EQ(1U, Lines(errorLine, "Expected boolean!"));
    }
}

TEST_F(GdbusAnswerTest, FurtherArgumentsOfAnAnswerAreIgnored) {
    ASSERT_TRUE(ConnectTo({{"NameHasOwner", [](sd_bus_message* reply) {
                                Check(sd_bus_message_append(reply, "bsu", 1, "more", 7U), "append");
                            }}}));
    bool hasOwner = false;
    EXPECT_TRUE(m_connection->BusHasOwner("com.norvale.Sim.Own", 5000, hasOwner));
    EXPECT_TRUE(hasOwner);
}

TEST_F(GdbusAnswerTest, ASilentBusFailsTheQuestionAfterItsTimeLimit) {
    ASSERT_TRUE(ConnectTo({}));
    bool hasOwner = false;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(m_connection->BusHasOwner("com.norvale.Sim.Own", 250, hasOwner));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
    EXPECT_EQ(1U, Lines(errorLine, "[API_LITE] send_message_with_reply failed!"));
    EXPECT_EQ(1U, Lines(errorLine, "[API_LITE] 'Timeout was reached'"));
    EXPECT_EQ(1U, Lines(errorLine, "Send with reply failed!"));
}

TEST_F(GdbusAnswerTest, SubscriptionsAndNamesDoNotWaitForASilentBus) {
    ASSERT_TRUE(ConnectTo({}));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(m_connection->AddMatch("type='signal'"));
    EXPECT_TRUE(m_connection->RemoveMatch("type='signal'"));
    EXPECT_TRUE(m_connection->RequestName("com.norvale.Sim.Own"));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_TRUE(m_fakeBus->WaitFor("RequestName", 1));
    EXPECT_EQ(1U, m_fakeBus->Count("AddMatch"));
    EXPECT_EQ(1U, m_fakeBus->Count("RemoveMatch"));
}

TEST_F(GdbusAnswerTest, ACallWithoutTimeLimitEndsWithTheConnection) {
    ASSERT_TRUE(ConnectTo({}));
    std::thread caller([this] {
        const auto message = NewPeerCall(":1.2");
        EXPECT_FALSE(m_connection->SendWithReply(*message, INT_MAX));
    });
    EXPECT_TRUE(m_fakeBus->WaitFor("Ask", 1));
    m_fakeBus->Close();
    caller.join();
    EXPECT_EQ(1U, Lines(errorLine, "[API_LITE] send_message_with_reply failed!"));
    EXPECT_EQ(1U, TCRecordingPlatform::Get().CountStarting(errorLine, "[API_LITE] '"));
}

// libdbus goes to the same address as long as the process lives, so one bus gives one answer after the other.
class LibdbusAnswerTest : public AnswerTest<MavixApiLite::TCDbusConnection> {
protected:
    bool ConnectToOneThatAnswers(const char* member, const std::vector<TCFakeBus::Answer>& answers) {
        const auto next = std::make_shared<std::size_t>(0);
        return ConnectTo(
            {{member, [answers, next](sd_bus_message* reply) { answers.at((*next)++)(reply); }}});
    }

    // What the library logged at error level since the last time.
    static std::vector<LogLine> TakeErrors() {
        std::vector<LogLine> errors;
        for (const LogLine& line : TCRecordingPlatform::Get().Lines()) {
            if (line.priority == errorLine && line.source != "GMainLoopHandler") {
                errors.push_back(line);
            }
        }
        TCRecordingPlatform::Get().Reset();
        return errors;
    }
};

TEST_F(LibdbusAnswerTest, EveryCodeOfAReleaseThatIsNotNegativeIsSuccess) {
    const std::vector<std::uint32_t> codes{1, 0, 2, 3, 2147483647, 2147483648, 4294967295};
    std::vector<TCFakeBus::Answer> answers;
    for (const std::uint32_t code : codes) {
        answers.push_back(Number('u', code));
    }
    ASSERT_TRUE(ConnectToOneThatAnswers("ReleaseName", answers));
    for (const std::uint32_t code : codes) {
        const bool success = code <= INT_MAX;
        EXPECT_EQ(success, m_connection->ReleaseName("com.norvale.Sim.Own")) << code;
        const std::vector<LogLine> errors = TakeErrors();
        ASSERT_EQ(success ? 0U : 1U, errors.size()) << code;
        if (!success) {
            EXPECT_EQ("[API_LITE] request failed!", errors[0].text) << code;
            EXPECT_EQ("ReleaseName", errors[0].function) << code;
        }
    }
}

TEST_F(LibdbusAnswerTest, AReleaseWithoutUintFails) {
    const std::vector<TCFakeBus::Answer> answers{Nothing(), Text("released"), Number('i', 1), Number('b', 1)};
    ASSERT_TRUE(ConnectToOneThatAnswers("ReleaseName", answers));
    for (std::size_t at = 0; at < answers.size(); ++at) {
        EXPECT_FALSE(m_connection->ReleaseName("com.norvale.Sim.Own")) << at;
        const std::vector<LogLine> errors = TakeErrors();
        ASSERT_EQ(1U, errors.size()) << at;
        EXPECT_EQ(0U, errors[0].text.find("[API_LITE] dbus_bus_release_name failed! ")) << errors[0];
    }
}

TEST_F(LibdbusAnswerTest, AnOwnerQuestionWithoutBooleanFailsWithItsCauseAndItsLine) {
    const std::vector<TCFakeBus::Answer> answers{Nothing(), Text("yes"), Number('u', 1)};
    ASSERT_TRUE(ConnectToOneThatAnswers("NameHasOwner", answers));
    for (std::size_t at = 0; at < answers.size(); ++at) {
        bool hasOwner = true;
        EXPECT_FALSE(m_connection->BusHasOwner("com.norvale.Sim.Own", 5000, hasOwner)) << at;
        EXPECT_TRUE(hasOwner) << at;
        const std::vector<LogLine> errors = TakeErrors();
        ASSERT_EQ(2U, errors.size()) << at;
        EXPECT_EQ("DbusErrorWrapper", errors[0].source);
        EXPECT_EQ(0U, errors[0].text.find("[API_LITE] dbus_message_get_args failed! ")) << errors[0];
        EXPECT_EQ("DbusUtility", errors[1].source);
        EXPECT_EQ("BusHasOwner", errors[1].function);
        EXPECT_EQ("[API_LITE] dbus_message_get_args failed.", errors[1].text);
    }
}

TEST_F(LibdbusAnswerTest, FurtherArgumentsOfAnAnswerAreIgnored) {
    ASSERT_TRUE(ConnectTo({{"NameHasOwner", [](sd_bus_message* reply) {
                                Check(sd_bus_message_append(reply, "bsu", 1, "more", 7U), "append");
                            }}}));
    bool hasOwner = false;
    EXPECT_TRUE(m_connection->BusHasOwner("com.norvale.Sim.Own", 5000, hasOwner));
    EXPECT_TRUE(hasOwner);
}

TEST_F(LibdbusAnswerTest, ASilentBusAnswersTheQuestionWithAnErrorAfterItsTimeLimit) {
    ASSERT_TRUE(ConnectTo({}));
    bool hasOwner = true;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(m_connection->BusHasOwner("com.norvale.Sim.Own", 250, hasOwner));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(249));
    EXPECT_TRUE(hasOwner);
    const std::vector<LogLine> errors = TakeErrors();
    ASSERT_EQ(1U, errors.size());
    EXPECT_EQ("[API_LITE] reply error: 'org.freedesktop.DBus.Error.NoReply'", errors[0].text);
    EXPECT_EQ("DbusUtility", errors[0].source);
    EXPECT_EQ("BusHasOwner", errors[0].function);
}

} // namespace

} // namespace MavixTest
