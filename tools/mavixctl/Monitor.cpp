#include "Monitor.h"

#include "BusLink.h"

#include "sim/Roles.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <limits>
#include <poll.h>
#include <sys/signalfd.h>

namespace MavixControl {

using MavixSim::Check;
using MavixTraffic::Kind;
using MavixTraffic::Message;
using MavixTraffic::MonotonicUs;
using MavixTraffic::WaitingCall;

namespace {

constexpr std::size_t outputBufferSize = 1 << 20;
// Between two looks at everything else.
constexpr int messagesARound = 256;

// A sender that is not known by then is printed without its process.
constexpr std::uint64_t longestHoldUs = 1'000'000;
// The end is not waited for longer.
constexpr std::uint64_t longestEndUs = 2'000'000;
constexpr std::size_t mostHeld = 65536;
constexpr std::size_t mostHeldBytes = 256u << 20;

// All that can belong to the service. Replies can be told from others only by their calls.
std::vector<std::string> Rules() {
    const char* const ownerChanges =
        "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
        "member='NameOwnerChanged'";
    std::vector<std::string> rules{
        "type='method_call',path='/com/norvale/Object'",
        "type='method_return'",
        "type='error'",
        "type='signal',path='/com/norvale/Mavix/SignalObject'",
        "type='signal',interface='com.norvale.Mavix.SignalIFace'",
        ownerChanges,
    };
    for (const MavixSim::Role& role : MavixSim::Roles())
        for (const std::string& name : role.busNames)
            rules.push_back("type='method_call',destination='" + name + "'");
    return rules;
}

MavixTraffic::TCPairing::Limits PairingLimits(const TSMonitorOptions& options) {
    MavixTraffic::TCPairing::Limits limits;
    limits.longestWaitUs = static_cast<std::uint64_t>(options.replySeconds * 1e6);
    return limits;
}

// Not started yet. Throws TCFailure when there is no bus.
MavixSim::BusHandle ReachableBus() {
    const TCBusLink link;
    return NewSystemBus();
}

// Throws TCFailure when it cannot be written.
std::unique_ptr<MavixTraffic::TCRecordingWriter> NewRecording(const std::string& path, std::uint64_t nowUs) {
    try {
        return std::make_unique<MavixTraffic::TCRecordingWriter>(path, "mavixctl " MAVIX_VERSION, nowUs);
    } catch (const std::system_error& error) {
        throw TCFailure(Refused, error.what());
    }
}

// Whose process is wanted beside a message.
const std::string& PeerOf(const Message& message) {
    if (message.kind != Kind::Owner)
        return message.sender;
    return message.owner.newOwner.empty() ? message.owner.oldOwner : message.owner.newOwner;
}

} // namespace

TCMonitor::TCMonitor(const TSSettings& settings, const TSMonitorOptions& options) try
    : m_options(options), m_signals(MavixTools::WatchEndingSignals(SFD_NONBLOCK)), m_bus(ReachableBus()),
      m_pairing(PairingLimits(options)), m_view(settings.json, options.wholePayloads) {
    // Lines are written when there is nothing else to do, or many of them.
    std::setvbuf(stdout, nullptr, _IOFBF, outputBufferSize);
    m_BecomeMonitor();
    const std::uint64_t now = MonotonicUs();
    if (!options.recordPath.empty())
        m_recording = NewRecording(options.recordPath, now);
    if (options.timeoutSeconds)
        m_endUs = now + static_cast<std::uint64_t>(*options.timeoutSeconds * 1e6);
    PrintError("monitoring");
} catch (const std::system_error& error) {
    throw TCFailure(NoService, fmt::format("the bus does not answer: {}", error.what()));
}

void TCMonitor::m_BecomeMonitor() {
    sd_bus* bus = m_bus.get();
    Check(sd_bus_set_monitor(bus, 1), "be a monitor");
    sd_bus_message* created = nullptr;
    Check(sd_bus_start(bus), "connect");
    Check(sd_bus_message_new_method_call(bus, &created, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                         "org.freedesktop.DBus.Monitoring", "BecomeMonitor"),
          "new call");
    const MavixSim::MessageHandle request(created);
    Check(sd_bus_message_open_container(created, 'a', "s"), "append");
    for (const std::string& rule : Rules())
        Check(sd_bus_message_append_basic(created, 's', rule.c_str()), "append");
    Check(sd_bus_message_close_container(created), "append");
    Check(sd_bus_message_append(created, "u", 0), "append");
    sd_bus_error error = SD_BUS_ERROR_NULL;
    const int result = sd_bus_call(bus, created, 0, &error, nullptr);
    if (result >= 0)
        return;
    const std::string text = error.message != nullptr ? error.message : std::strerror(-result);
    const bool isRefusal = sd_bus_error_has_name(&error, SD_BUS_ERROR_ACCESS_DENIED) > 0;
    sd_bus_error_free(&error);
    if (isRefusal)
        throw TCFailure(Refused, "the bus lets only root and its own user monitor: " + text);
    throw TCFailure(NoService, "the bus does not answer: " + text);
}

EExitCode TCMonitor::Run() {
    State state = State::Goes;
    while (state == State::Goes)
        state = m_Step();
    return m_Finish(state);
}

TCMonitor::State TCMonitor::m_Step() {
    bool more = false;
    const State state = m_ReadSome(more);
    if (!m_peers.Process() || state == State::BusGone) {
        m_HandleHeld(true);
        return m_IsFull() ? State::Done : State::BusGone;
    }
    m_HandleHeld(false);
    m_HandleTimeOuts();
    if (m_IsFull() || std::ferror(stdout) != 0)
        return State::Done;
    if (!m_latestEndUs && (m_IsSignalled() || m_IsOver()))
        m_BeginToEnd();
    if (m_HasEnded()) {
        m_HandleHeld(true);
        return State::Done;
    }
    if (more)
        return State::Goes;
    if (!FlushOutput())
        return State::Done;
    m_Wait();
    return State::Goes;
}

TCMonitor::State TCMonitor::m_ReadSome(bool& more) {
    for (int i = 0; i < messagesARound; ++i) {
        sd_bus_message* taken = nullptr;
        const int result = sd_bus_process(m_bus.get(), &taken);
        const MavixSim::MessageHandle raw(taken);
        if (result < 0)
            return State::BusGone;
        if (result == 0)
            return State::Goes;
        if (raw)
            m_TakeUp(raw.get());
    }
    more = true;
    return State::Goes;
}

void TCMonitor::m_TakeUp(sd_bus_message* raw) {
    Held held{MavixSim::RefMessage(raw), MavixTraffic::Decode(raw, MonotonicUs())};
    const Message& message = held.message;
    if (m_latestEndUs && message.replySerial == m_markSerial && message.destination == m_peers.UniqueName())
        m_markSeen = true;
    // Everything behind it has come too late.
    if (message.kind == Kind::Other || m_markSeen)
        return;
    if (message.kind == Kind::Owner && message.owner.name.rfind(':', 0) == 0) {
        // Asked before it says anything, for it may be gone by then.
        if (!message.owner.newOwner.empty())
            m_peers.Want(message.owner.name);
        else
            m_peers.Forget(message.owner.name);
        return;
    }
    if (message.kind == Kind::Owner && !MavixTraffic::IsServiceName(message.owner.name))
        return;
    m_peers.Want(PeerOf(message));
    m_heldBytes += message.payloadSize;
    m_held.push_back(std::move(held));
}

bool TCMonitor::m_MayHandle(const Held& held, std::uint64_t nowUs) const {
    return m_peers.IsSettled(PeerOf(held.message)) || m_held.size() > mostHeld ||
           m_heldBytes > mostHeldBytes || nowUs - held.message.atUs > longestHoldUs;
}

void TCMonitor::m_HandleHeld(bool all) {
    const std::uint64_t now = MonotonicUs();
    while (!m_held.empty() && !m_IsFull() && (all || m_MayHandle(m_held.front(), now))) {
        m_Handle(m_held.front());
        m_heldBytes -= m_held.front().message.payloadSize;
        m_held.pop_front();
    }
}

void TCMonitor::m_Handle(const Held& held) {
    switch (held.message.kind) {
    case Kind::Call:
        return m_HandleCall(held);
    case Kind::Reply:
    case Kind::Error:
        return m_HandleReply(held);
    case Kind::Event:
        return m_HandleEvent(held);
    case Kind::Owner:
        return m_HandleOwner(held);
    case Kind::Other:
        return;
    }
}

template <class Write>
void TCMonitor::m_Record(std::uint64_t number, const Write& write) {
    if (!m_recording)
        return;
    try {
        write(*m_recording);
    } catch (const std::invalid_argument& error) {
        PrintError(fmt::format("#{} is not recorded: {}", number, error.what()));
    }
}

void TCMonitor::m_HandleCall(const Held& held) {
    const Message& message = held.message;
    const TSProcess& caller = m_peers.Find(message.sender);
    WaitingCall call;
    call.number = ++m_lastNumber;
    call.isSelected = m_options.filter.TakesCall(message, caller);
    if (call.isSelected)
        m_Record(call.number, [&](auto& recording) { recording.AddCall(message, call.number); });
    if (call.isSelected && m_options.filter.TakesType("call")) {
        m_view.PrintCall(message, {call.number, &caller});
        ++m_printed;
    }
    if (sd_bus_message_get_expect_reply(held.raw.get()) == 0)
        return;
    call.atUs = message.atUs;
    call.sender = message.sender;
    call.serial = message.serial;
    call.destination = message.destination;
    call.interface = message.interface;
    if (message.call.header)
        call.code = message.call.Code();
    call.timestampSent = message.call.timestampSent;
    m_pairing.Add(std::move(call));
}

void TCMonitor::m_HandleReply(const Held& held) {
    const Message& message = held.message;
    const std::optional<WaitingCall> call = m_pairing.Take(message);
    if (!call)
        return;
    const std::uint64_t number = ++m_lastNumber;
    if (!call->isSelected)
        return;
    m_Record(number, [&](auto& recording) { recording.AddReply(held.raw.get(), message, call->number); });
    if (m_options.filter.TakesType(MavixTraffic::KindName(message.kind))) {
        m_view.PrintReply(message, *call, {number, &m_peers.Find(message.sender)});
        ++m_printed;
    }
}

void TCMonitor::m_HandleEvent(const Held& held) {
    const Message& message = held.message;
    const TSProcess& emitter = m_peers.Find(message.sender);
    const std::uint64_t number = ++m_lastNumber;
    if (!m_options.filter.TakesEvent(message, emitter))
        return;
    m_Record(number, [&](auto& recording) { recording.AddEvent(held.raw.get(), message); });
    if (m_options.filter.TakesType("event", &message)) {
        m_view.PrintEvent(message, {number, &emitter});
        ++m_printed;
    }
}

void TCMonitor::m_HandleOwner(const Held& held) {
    const Message& message = held.message;
    const TSProcess& newOwner = m_peers.Find(message.owner.newOwner);
    const std::uint64_t number = ++m_lastNumber;
    if (!m_options.filter.TakesOwner(m_peers.Find(message.owner.oldOwner), newOwner))
        return;
    m_Record(number, [&](auto& recording) { recording.AddOwner(message); });
    if (m_options.filter.TakesType("owner")) {
        m_view.PrintOwner(message, {number, &newOwner});
        ++m_printed;
    }
}

void TCMonitor::m_HandleTimeOuts() {
    const std::uint64_t now = MonotonicUs();
    for (const WaitingCall& call : m_pairing.TakeTimedOut(now)) {
        const std::uint64_t number = ++m_lastNumber;
        if (!call.isSelected || !m_options.filter.TakesType("timeout") || m_IsFull())
            continue;
        m_view.PrintTimeOut(call, now, {number, &m_peers.Find(call.sender)});
        ++m_printed;
    }
}

void TCMonitor::m_Wait() {
    std::uint64_t next = m_endUs.value_or(std::numeric_limits<std::uint64_t>::max());
    next = std::min(next, m_pairing.NextTimeOutUs().value_or(next));
    if (m_latestEndUs)
        next = *m_latestEndUs;
    if (!m_held.empty())
        next = std::min(next, m_held.front().message.atUs + longestHoldUs);
    const std::uint64_t now = MonotonicUs();
    constexpr std::uint64_t longestMs = 60'000;
    const std::uint64_t leftMs = next > now ? std::min((next - now) / 1000 + 1, longestMs) : 0;
    std::array<pollfd, 3> wanted{
        pollfd{Check(sd_bus_get_fd(m_bus.get()), "ask for the socket"), POLLIN, 0},
        pollfd{m_peers.Descriptor(), static_cast<short>(m_peers.Events()), 0},
        // A signal that has been seen stays.
        pollfd{m_latestEndUs ? -1 : m_signals.Get(), POLLIN, 0},
    };
    if (::poll(wanted.data(), wanted.size(), static_cast<int>(leftMs)) < 0 && errno != EINTR)
        throw std::system_error(errno, std::generic_category(), "cannot wait");
}

void TCMonitor::m_BeginToEnd() {
    m_latestEndUs = MonotonicUs() + longestEndUs;
    m_markSerial = m_peers.SendMark();
}

bool TCMonitor::m_HasEnded() const {
    return m_latestEndUs && ((m_markSeen && m_held.empty()) || MonotonicUs() >= *m_latestEndUs);
}

bool TCMonitor::m_IsSignalled() const {
    pollfd wanted{m_signals.Get(), POLLIN, 0};
    return ::poll(&wanted, 1, 0) > 0;
}

bool TCMonitor::m_IsOver() const {
    return m_endUs && MonotonicUs() >= *m_endUs;
}

EExitCode TCMonitor::m_Finish(State state) {
    if (m_recording)
        m_recording->Finish();
    if (state == State::BusGone)
        throw TCFailure(NoService, busHasGone);
    if (m_options.count == 0 || m_IsFull() || !m_IsOver())
        return Done;
    PrintError(
        fmt::format("{} of {} messages came in {} s", m_printed, m_options.count, *m_options.timeoutSeconds));
    return Refused;
}

} // namespace MavixControl
