#include "Await.h"
#include "TransportFixture.h"

#include <stdexcept>
#include <utility>

// What is asked of the bus daemon.

namespace MavixTest {

namespace {

constexpr const char* ownName = "com.norvale.Sim.Own";

template <class Connection>
class RequestTest : public TransportTest<Connection> {
protected:
    RequestTest() { EXPECT_TRUE(this->Connect()); }

    bool HasOwner(const std::string& name) {
        bool hasOwner = false;
        EXPECT_TRUE(this->m_connection->BusHasOwner(name, 5000, hasOwner));
        return hasOwner;
    }

    // The lines at error level; none is expected where all goes well. The dispatch thread says that it runs.
    std::size_t ErrorLines() const {
        return TCRecordingPlatform::Get().CountStarting(errorLine, "") -
               TCRecordingPlatform::Get().CountStarting(errorLine, "Started main loop");
    }
};

TYPED_TEST_SUITE(RequestTest, Transports, TransportNames);

TYPED_TEST(RequestTest, ARequestedNameIsOwnedUntilItIsReleased) {
    EXPECT_FALSE(this->HasOwner(ownName));
    EXPECT_TRUE(this->m_connection->RequestName(ownName));
    EXPECT_TRUE(this->HasOwner(ownName));
    EXPECT_TRUE(this->m_connection->ReleaseName(ownName));
    EXPECT_FALSE(this->HasOwner(ownName));
    EXPECT_EQ(0U, this->ErrorLines());
}

TYPED_TEST(RequestTest, RequestingANameOfAnotherOrAForbiddenOneSucceedsAllTheSame) {
    TCRawClient other(this->m_bus.Address());
    ASSERT_EQ(0, other.RequestName(ownName));
    EXPECT_TRUE(this->m_connection->RequestName(ownName));
    EXPECT_TRUE(this->m_connection->RequestName("com.example.NotAllowed"));
    EXPECT_FALSE(this->HasOwner("com.example.NotAllowed"));
    EXPECT_EQ(0U, this->ErrorLines());
}

TYPED_TEST(RequestTest, ReleasingAFreeNameOrThatOfAnotherSaysTheBusCode) {
    TCRawClient other(this->m_bus.Address());
    ASSERT_EQ(0, other.RequestName("com.norvale.Sim.Other"));
    const bool result = TestFixture::Row::row.releasesUnownedNames;
    EXPECT_EQ(result, this->m_connection->ReleaseName(ownName));
    EXPECT_EQ(result, this->m_connection->ReleaseName("com.norvale.Sim.Other"));
    EXPECT_EQ(result ? 0U : 1U, this->Lines(errorLine, "Not an owner 2"));
    EXPECT_EQ(result ? 0U : 1U, this->Lines(errorLine, "Not an owner 3"));
}

TYPED_TEST(RequestTest, ANameWithoutOwnerIsAnAnswerAndNoError) {
    bool hasOwner = true;
    EXPECT_TRUE(this->m_connection->BusHasOwner(ownName, 5000, hasOwner));
    EXPECT_FALSE(hasOwner);
    EXPECT_TRUE(this->m_connection->BusHasOwner("org.freedesktop.DBus", -1, hasOwner));
    EXPECT_TRUE(hasOwner);
    EXPECT_TRUE(this->m_connection->BusHasOwner(this->m_connection->GetUniqueName(), 5000, hasOwner));
    EXPECT_TRUE(hasOwner);
    EXPECT_EQ(0U, this->ErrorLines());
}

TYPED_TEST(RequestTest, TheUniqueNameIsTheOneThatTheBusGave) {
    const std::string name = this->m_connection->GetUniqueName();
    EXPECT_EQ(name, this->m_connection->GetUniqueName());
    EXPECT_TRUE(this->HasOwner(name));
    TCRawClient other(this->m_bus.Address());
    EXPECT_NE(name, other.UniqueName());
    EXPECT_EQ(0U, this->ErrorLines());
}

TYPED_TEST(RequestTest, ANullRuleIsALogicError) {
    EXPECT_THROW(this->m_connection->AddMatch(nullptr), std::logic_error);
    EXPECT_THROW(this->m_connection->RemoveMatch(nullptr), std::logic_error);
}

TYPED_TEST(RequestTest, TextsThatDBusCannotCarryFail) {
    const std::string invalid = "com.norvale.\xff";
    bool hasOwner = true;
    EXPECT_FALSE(this->m_connection->AddMatch(invalid.c_str()));
    EXPECT_FALSE(this->m_connection->RemoveMatch(invalid.c_str()));
    EXPECT_FALSE(this->m_connection->RequestName(invalid));
    EXPECT_FALSE(this->m_connection->ReleaseName(invalid));
    EXPECT_FALSE(this->m_connection->BusHasOwner(invalid, 5000, hasOwner));
    EXPECT_TRUE(hasOwner);
    EXPECT_TRUE(this->HasOwner("org.freedesktop.DBus"));
}

// Otherwise it would be a request about the name in front of the zero byte.
TYPED_TEST(RequestTest, NamesWithAZeroByteAreRefused) {
    const std::string name = std::string(ownName) + '\0' + "more";
    EXPECT_FALSE(this->m_connection->RequestName(name));
    EXPECT_FALSE(this->HasOwner(ownName));
    EXPECT_TRUE(this->m_connection->RequestName(ownName));
    bool hasOwner = false;
    EXPECT_FALSE(this->m_connection->BusHasOwner(name, 5000, hasOwner));
    EXPECT_FALSE(hasOwner);
    EXPECT_FALSE(this->m_connection->ReleaseName(name));
    EXPECT_TRUE(this->HasOwner(ownName));
    EXPECT_EQ(3U, this->Lines(errorLine, "Invalid string"));
}

TYPED_TEST(RequestTest, NamesThatTheBusRefusesFailWhereTheAnswerIsRead) {
    EXPECT_TRUE(this->m_connection->RequestName("not a name"));
    EXPECT_FALSE(this->m_connection->ReleaseName("not a name"));
    EXPECT_FALSE(this->HasOwner("not a name"));
}

template <class Connection>
class MatchTest : public TransportTest<Connection> {
protected:
    MatchTest() { EXPECT_TRUE(this->Connect(&this->m_owner)); }

    // Broadcasts a signal; returns when the bus has delivered it to whom it is for.
    void Broadcast(const char* member) {
        RawSignal signal;
        signal.path = peerPath;
        signal.interface = peerInterface;
        signal.member = member;
        m_peer.Emit(signal);
    }

    // The bus handles a connection's messages in their order.
    void LetTheBusCatchUp() {
        bool hasOwner = false;
        EXPECT_TRUE(this->m_connection->BusHasOwner("org.freedesktop.DBus", 5000, hasOwner));
    }

    TCRawClient m_peer{this->m_bus.Address()};
};

TYPED_TEST_SUITE(MatchTest, Transports, TransportNames);

TYPED_TEST(MatchTest, SignalsArriveFromTheRuleUntilItsRemoval) {
    const char* rule = "type='signal',interface='com.norvale.Sim.Peer'";
    this->Broadcast("Before");
    EXPECT_TRUE(this->m_connection->AddMatch(rule));
    this->LetTheBusCatchUp();
    this->Broadcast("During");
    EXPECT_TRUE(this->m_connection->RemoveMatch(rule));
    this->LetTheBusCatchUp();
    this->Broadcast("After");
    EXPECT_TRUE(this->m_connection->AddMatch(rule));
    this->LetTheBusCatchUp();
    this->Broadcast("Last");
    EXPECT_TRUE(this->m_owner.WaitForMessages(2));
    EXPECT_EQ((std::vector<std::string>{"During", "Last"}), this->m_owner.Messages());
}

TYPED_TEST(MatchTest, RemovingARuleThatIsNotThereSucceedsWhereNobodyReadsTheAnswer) {
    const bool result = TestFixture::Row::row.removesUnknownRules;
    for (const char* rule : {"type='signal',member='Never'", "nonsense"}) {
        TCRecordingPlatform::Get().Reset();
        EXPECT_EQ(result, this->m_connection->RemoveMatch(rule)) << rule;
        EXPECT_EQ(result ? 0U : 1U, TCRecordingPlatform::Get().CountStarting(
                                        errorLine, "[API_LITE] dbus_bus_remove_match failed! "))
            << rule;
    }
}

TYPED_TEST(MatchTest, AddingAMalformedRuleSucceedsBecauseNobodyReadsTheAnswer) {
    EXPECT_TRUE(this->m_connection->AddMatch("nonsense"));
    this->LetTheBusCatchUp();
    EXPECT_EQ(0U, TCRecordingPlatform::Get().CountStarting(errorLine, "[API_LITE]"));
}

} // namespace

} // namespace MavixTest
