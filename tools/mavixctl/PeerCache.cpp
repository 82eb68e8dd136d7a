#include "PeerCache.h"

#include <cstdlib>
#include <cstring>

namespace MavixControl {

using MavixSim::BusHandle;
using MavixSim::Check;

namespace {

const char* const defaultAddress = "unix:path=/run/dbus/system_bus_socket";

// Fewer than the 128 replies for which a connection may wait on a system bus.
constexpr std::size_t mostAsked = 32;
constexpr std::size_t mostPeers = 16384;

// The process id among the credentials; 0 when there is none.
pid_t TakePid(sd_bus_message* answer) {
    pid_t pid = 0;
    Check(sd_bus_message_enter_container(answer, 'a', "{sv}"), "read credentials");
    while (Check(sd_bus_message_enter_container(answer, 'e', "sv"), "read credentials") > 0) {
        const char* name = nullptr;
        Check(sd_bus_message_read_basic(answer, 's', &name), "read credentials");
        if (std::strcmp(name, "ProcessID") == 0) {
            std::uint32_t value = 0;
            Check(sd_bus_message_read(answer, "v", "u", &value), "read credentials");
            pid = static_cast<pid_t>(value);
        } else {
            Check(sd_bus_message_skip(answer, "v"), "read credentials");
        }
        Check(sd_bus_message_exit_container(answer), "read credentials");
    }
    return pid;
}

} // namespace

BusHandle NewSystemBus() {
    sd_bus* created = nullptr;
    Check(sd_bus_new(&created), "new connection");
    BusHandle bus(created);
    const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    Check(sd_bus_set_address(created, address != nullptr ? address : defaultAddress), "set the address");
    Check(sd_bus_set_bus_client(created, 1), "be a client");
    return bus;
}

BusHandle OpenSystemBus() {
    BusHandle bus = NewSystemBus();
    Check(sd_bus_start(bus.get()), "connect");
    return bus;
}

TCPeerCache::TCPeerCache() : m_bus(OpenSystemBus()) {}

void TCPeerCache::Want(const std::string& name) {
    if (name.empty() || name.front() != ':')
        return;
    const auto [entry, isNew] = m_peers.try_emplace(name);
    if (!isNew)
        return;
    entry->second.owner = this;
    m_wanted.push_back(name);
    m_AskNext();
}

bool TCPeerCache::IsSettled(const std::string& name) const {
    if (name.empty() || name.front() != ':')
        return true;
    const auto found = m_peers.find(name);
    return found == m_peers.end() || found->second.isSettled;
}

const TSProcess& TCPeerCache::Find(const std::string& name) const {
    static const TSProcess unknown;
    const auto found = m_peers.find(name);
    return found != m_peers.end() ? found->second.process : unknown;
}

void TCPeerCache::Forget(const std::string& name) {
    const auto found = m_peers.find(name);
    if (found != m_peers.end())
        found->second.hasGone = true;
    if (m_peers.size() > mostPeers)
        m_MakeRoom();
}

void TCPeerCache::m_MakeRoom() {
    for (auto entry = m_peers.begin(); entry != m_peers.end();)
        entry = entry->second.hasGone && entry->second.isSettled ? m_peers.erase(entry) : std::next(entry);
}

void TCPeerCache::m_AskNext() {
    for (; m_asked < mostAsked && !m_wanted.empty(); m_wanted.pop_front()) {
        Peer& peer = m_peers.at(m_wanted.front());
        sd_bus_slot* slot = nullptr;
        const int result = sd_bus_call_method_async(
            m_bus.get(), &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "GetConnectionCredentials", m_OnAnswer, &peer, "s", m_wanted.front().c_str());
        if (result < 0) {
            // The bus has gone, which Process() tells.
            peer.isSettled = true;
            continue;
        }
        peer.slot.reset(slot);
        ++m_asked;
    }
}

int TCPeerCache::m_OnAnswer(sd_bus_message* answer, void* data, sd_bus_error*) {
    Peer& peer = *static_cast<Peer*>(data);
    try {
        // A connection may have gone before the bus was asked.
        if (sd_bus_message_is_method_error(answer, nullptr) == 0)
            if (const pid_t pid = TakePid(answer))
                peer.process = LookAtProcess(pid);
    } catch (const std::exception&) {
        // Nothing is known of the connection, then.
    }
    peer.isSettled = true;
    TCPeerCache& self = *peer.owner;
    --self.m_asked;
    self.m_AskNext();
    return 0;
}

std::uint64_t TCPeerCache::SendMark() {
    sd_bus_message* made = nullptr;
    Check(sd_bus_message_new_method_call(m_bus.get(), &made, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                         "org.freedesktop.DBus", "GetId"),
          "new call");
    const MavixSim::MessageHandle question(made);
    const auto ignore = [](sd_bus_message*, void*, sd_bus_error*) { return 0; };
    if (sd_bus_call_async(m_bus.get(), nullptr, made, ignore, nullptr, 0) < 0)
        return 0;
    std::uint64_t serial = 0;
    Check(sd_bus_message_get_cookie(made, &serial), "ask for a serial");
    return serial;
}

std::string TCPeerCache::UniqueName() const {
    const char* name = nullptr;
    Check(sd_bus_get_unique_name(m_bus.get(), &name), "ask for a name");
    return name;
}

int TCPeerCache::Descriptor() const {
    return Check(sd_bus_get_fd(m_bus.get()), "ask for the socket");
}

int TCPeerCache::Events() const {
    return Check(sd_bus_get_events(m_bus.get()), "ask what to wait for");
}

bool TCPeerCache::Process() {
    int done = 0;
    while ((done = sd_bus_process(m_bus.get(), nullptr)) > 0) {
    }
    return done == 0 && sd_bus_is_open(m_bus.get()) > 0;
}

} // namespace MavixControl
