#include "SimFixture.h"

#include <array>
#include <cerrno>
#include <functional>
#include <grp.h>
#include <sys/wait.h>

namespace MavixTest {

namespace {

using std::chrono::milliseconds;

constexpr uid_t otherUser = 65534;
const char* const clientName = "com.norvale.Mavix.Signal.Victim";

// Runs `action` in a child process of another user; what it returns, or the failure that it threw.
std::string AsOtherUser(const std::function<std::string()>& action) {
    MavixTools::Pipe report = MavixTools::MakePipe();
    const pid_t pid = ::fork();
    if (pid == 0) {
        std::string text;
        try {
            if (::setgroups(0, nullptr) != 0 || ::setgid(otherUser) != 0 || ::setuid(otherUser) != 0)
                throw std::runtime_error("cannot become another user");
            text = action();
        } catch (const std::exception& error) {
            text = std::string("failed: ") + error.what();
        }
        const ssize_t written = ::write(report.writer.Get(), text.data(), text.size());
        ::_exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
    }
    report.writer.Close();
    std::string text;
    std::array<char, 256> chunk{};
    for (ssize_t count = 0; (count = ::read(report.reader.Get(), chunk.data(), chunk.size())) > 0;)
        text.append(chunk.data(), static_cast<std::size_t>(count));
    ::waitpid(pid, nullptr, 0);
    return text;
}

// A client of the service, here of the service's own user, that listens to events and owner changes.
class Policy : public testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root, to act as a second user";
        m_bus = std::make_unique<TCPrivateBus>(TCPrivateBus::Access::EveryUser);
        m_victim = std::make_unique<TCRawClient>(m_bus->Address());
        ASSERT_EQ(m_victim->RequestName(clientName), 0);
        m_victim->Subscribe("type='signal',path='/com/norvale/Mavix/SignalObject'");
        m_victim->Subscribe("type='signal',interface='org.freedesktop.DBus',member='NameOwnerChanged',"
                            "arg0='com.norvale.MavixAPI'");
        m_victim->KeepUnicast();
        // The connection and its name have each brought a signal of the bus's.
        for (int names = 0; names < 2; ++names) {
            const std::optional<RawEvent> acquired = m_victim->NextEvent();
            ASSERT_TRUE(acquired && acquired->member == "NameAcquired");
        }
    }

    std::string EmitAsOtherUser(const RawSignal& signal) const {
        return AsOtherUser([&] {
            TCRawClient(m_bus->Address()).Emit(signal);
            return "emitted";
        });
    }

    // Whether the victim gets the signal. Another one, which everybody may send, marks the end.
    bool Arrives(const RawSignal& signal, const std::function<void(const RawSignal&)>& emit) {
        emit(signal);
        RawSignal end;
        end.member = "End";
        TCRawClient(m_bus->Address()).Emit(end);
        bool arrived = false;
        for (;;) {
            const std::optional<RawEvent> event = m_victim->NextEvent();
            if (!event) {
                ADD_FAILURE() << "the end mark got lost";
                return arrived;
            }
            if (event->member == "End")
                return arrived;
            arrived = arrived || event->member == signal.member;
        }
    }

    bool ArrivesFromOtherUser(const RawSignal& signal) {
        return Arrives(signal, [&](const RawSignal& each) { EXPECT_EQ(EmitAsOtherUser(each), "emitted"); });
    }

    bool ArrivesFromService(const RawSignal& signal) {
        return Arrives(signal, [&](const RawSignal& each) { TCRawClient(m_bus->Address()).Emit(each); });
    }

    std::unique_ptr<TCPrivateBus> m_bus;
    std::unique_ptr<TCRawClient> m_victim;
};

RawSignal Event() {
    RawSignal signal;
    signal.texts = {"7", "0"};
    signal.payload = {1, 2, 3};
    return signal;
}

RawSignal OwnerChange() {
    RawSignal signal;
    signal.path = "/org/freedesktop/DBus";
    signal.interface = "org.freedesktop.DBus";
    signal.member = "NameOwnerChanged";
    signal.texts = {"com.norvale.MavixAPI", ":1.1", ""};
    return signal;
}

TEST_F(Policy, AForgedEventIsRefused) {
    EXPECT_TRUE(ArrivesFromService(Event()));
    EXPECT_FALSE(ArrivesFromOtherUser(Event()));
}

TEST_F(Policy, AForgedEventAddressedToAClientIsRefusedOnAnyPath) {
    RawSignal signal = Event();
    signal.path = "/com/example/Elsewhere";
    signal.interface = "com.example.Elsewhere";
    for (const std::string& destination : {m_victim->UniqueName(), std::string(clientName)}) {
        signal.destination = destination;
        EXPECT_TRUE(ArrivesFromService(signal)) << destination;
        EXPECT_FALSE(ArrivesFromOtherUser(signal)) << destination;
    }
}

TEST_F(Policy, AForgedOwnerChangeIsRefusedFromEveryUser) {
    RawSignal signal = OwnerChange();
    EXPECT_FALSE(ArrivesFromOtherUser(signal));
    EXPECT_FALSE(ArrivesFromService(signal));
    signal.destination = m_victim->UniqueName();
    EXPECT_FALSE(ArrivesFromOtherUser(signal));
    EXPECT_FALSE(ArrivesFromService(signal));
}

TEST_F(Policy, TheBussOwnOwnerChangesArrive) {
    TCRawClient service(m_bus->Address());
    ASSERT_EQ(service.RequestName("com.norvale.MavixAPI"), 0);
    const std::optional<RawEvent> event = m_victim->NextEvent();
    ASSERT_TRUE(event);
    EXPECT_EQ(event->member, "NameOwnerChanged");
}

TEST_F(Policy, AnotherUserCannotOwnAServiceName) {
    for (const char* name :
         {"com.norvale.MavixAPI", "com.norvale.MavixAPI.Pipeline", "com.norvale.MavixAPI.ServiceDb",
          "com.norvale.MavixAPI.HyperFast", "com.norvale.ISessionControl", "com.norvale.Sim.Daemon"}) {
        const auto request = [&] { return std::to_string(TCRawClient(m_bus->Address()).RequestName(name)); };
        EXPECT_EQ(request(), "0") << name;
        EXPECT_EQ(AsOtherUser(request), std::to_string(-EACCES)) << name;
    }
}

TEST_F(Policy, AnotherUserOwnsAClientNameAndNoOtherName) {
    EXPECT_EQ(AsOtherUser([&] {
                  TCRawClient client(m_bus->Address());
                  return std::to_string(client.RequestName("com.norvale.Mavix.Signal._1_99")) + " " +
                         std::to_string(client.RequestName("com.norvale.Mavix.Signals"));
              }),
              "0 " + std::to_string(-EACCES));
}

TEST_F(Policy, AnotherUserCallsTheServiceAndGetsItsEvents) {
    const TCSimProcess sim(*m_bus, {}, true);
    EXPECT_EQ(AsOtherUser([&]() -> std::string {
                  TCRawClient client(m_bus->Address());
                  for (const char* name : {"com.norvale.MavixAPI", "com.norvale.MavixAPI.Pipeline",
                                           "com.norvale.MavixAPI.ServiceDb", "com.norvale.MavixAPI.HyperFast",
                                           "com.norvale.ISessionControl"}) {
                      RawCall call;
                      call.destination = name;
                      if (call.destination == "com.norvale.ISessionControl")
                          call.interface = call.destination;
                      const RawReply reply = client.Call(call);
                      if (reply.IsError())
                          return std::string(name) + ": " + reply.errorText;
                  }
                  client.Subscribe("type='signal',path='/com/norvale/Mavix/SignalObject'");
                  TCSimDriver(*m_bus).Emit(2, 7, {1});
                  return client.NextEvent() ? "served" : "no event";
              }),
              "served");
}

// The error that a caller of one of the victim's built-in methods gets; empty when it is answered.
std::string CallVictim(const std::string& address, const char* interface, const char* member) {
    RawCall call;
    call.destination = clientName;
    call.path = "/";
    call.interface = interface;
    call.member = member;
    call.body = [](sd_bus_message*) {};
    return TCRawClient(address).Call(call).errorName;
}

TEST_F(Policy, AnotherUserCannotCallAClient) {
    const std::string denied = "org.freedesktop.DBus.Error.AccessDenied";
    const std::string address = m_bus->Address();
    EXPECT_EQ(
        AsOtherUser([&] { return CallVictim(address, "org.freedesktop.DBus.Introspectable", "Introspect"); }),
        denied);
    EXPECT_EQ(AsOtherUser([&] { return CallVictim(address, "org.freedesktop.DBus.Peer", "Ping"); }), denied);
}

TEST_F(Policy, TheServiceCallsAClientAndIsAnswered) {
    const pid_t service = ::fork();
    if (service == 0)
        ::_exit(CallVictim(m_bus->Address(), "org.freedesktop.DBus.Peer", "Ping").empty() ? 0 : 1);
    // The victim answers while it waits for an event.
    int status = -1;
    while (::waitpid(service, &status, WNOHANG) == 0)
        m_victim->NextEvent(milliseconds(5));
    EXPECT_EQ(status, 0);
}

} // namespace

} // namespace MavixTest
