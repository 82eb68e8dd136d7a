#include "FakeBus.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace MavixTest {

using MavixSim::BusHandle;
using MavixSim::Check;
using MavixSim::MessageHandle;
using MavixTools::TCDescriptor;

namespace {

TCDescriptor Listen(const std::string& path) {
    TCDescriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    constexpr int backlog = 64;
    if (::bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener.Get(), backlog) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot listen at " + path);
    }
    return listener;
}

BusHandle NewServer(TCDescriptor client) {
    sd_bus* created = nullptr;
    Check(sd_bus_new(&created), "new connection");
    BusHandle bus(created);
    const sd_id128_t id = SD_ID128_MAKE(01, 02, 03, 04, 05, 06, 07, 00, 01, 02, 03, 04, 05, 06, 07, 00);
    Check(sd_bus_set_fd(created, client.Get(), client.Get()), "set the socket");
    static_cast<void>(client.Release());
    Check(sd_bus_set_server(created, 1, id), "be a server");
    Check(sd_bus_start(created), "serve");
    return bus;
}

} // namespace

TCFakeBus::TCFakeBus(Manners manners, std::map<std::string, Answer> answers)
    : m_manners(manners), m_answers(std::move(answers)), m_listener(Listen(m_folder.Path() + "/bus")),
      m_wakeUp(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + m_folder.Path() + "/bus").c_str(), 1);
    m_thread = std::thread([this] { m_Run(); });
}

TCFakeBus::~TCFakeBus() {
    Close();
}

void TCFakeBus::Close() {
    m_closing = true;
    m_Wake();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void TCFakeBus::StopReading(bool stop) {
    m_reading = !stop;
    m_Wake();
}

bool TCFakeBus::WaitForConnections(std::size_t count) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(60), [&] { return m_connections >= count; });
}

std::size_t TCFakeBus::Count(const std::string& member) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_counts.find(member);
    return found != m_counts.end() ? found->second : 0;
}

bool TCFakeBus::WaitFor(const std::string& member, std::size_t count, std::chrono::milliseconds limit) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, limit, [&] {
        const auto found = m_counts.find(member);
        return found != m_counts.end() && found->second >= count;
    });
}

void TCFakeBus::m_Wake() const {
    const std::uint64_t one = 1;
    static_cast<void>(!::write(m_wakeUp.Get(), &one, sizeof one));
}

void TCFakeBus::m_Run() {
    while (!m_closing) {
        std::vector<pollfd> watched{{m_wakeUp.Get(), POLLIN, 0}, {m_listener.Get(), POLLIN, 0}};
        for (const BusHandle& client : m_clients) {
            const int events = m_reading ? sd_bus_get_events(client.get()) : 0;
            watched.push_back({sd_bus_get_fd(client.get()), static_cast<short>(events > 0 ? events : 0), 0});
        }
        constexpr int longestWaitMs = 1000;
        ::poll(watched.data(), watched.size(), longestWaitMs);
        if (watched[0].revents != 0) {
            std::uint64_t count = 0;
            static_cast<void>(!::read(m_wakeUp.Get(), &count, sizeof count));
        }
        if (watched[1].revents != 0) {
            m_Accept();
        }
        m_clients.erase(std::remove_if(m_clients.begin(), m_clients.end(),
                                       [this](const BusHandle& client) { return !m_Serve(client.get()); }),
                        m_clients.end());
    }
    m_muteClients.clear();
    for (const BusHandle& client : m_clients) {
        sd_bus_close(client.get());
    }
    m_clients.clear();
    m_listener.Close();
}

void TCFakeBus::m_Accept() {
    TCDescriptor client(::accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!client) {
        return;
    }
    if (m_manners == Manners::Mute) {
        m_muteClients.push_back(std::move(client));
    } else {
        m_clients.push_back(NewServer(std::move(client)));
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_connections;
    m_changed.notify_all();
}

// False when the client has gone.
bool TCFakeBus::m_Serve(sd_bus* bus) {
    while (m_reading) {
        sd_bus_message* raw = nullptr;
        const int processed = sd_bus_process(bus, &raw);
        const MessageHandle message(raw);
        if (processed <= 0) {
            return processed == 0;
        }
        if (message) {
            m_Take(raw);
        }
    }
    return true;
}

void TCFakeBus::m_Take(sd_bus_message* message) {
    const char* name = sd_bus_message_get_member(message);
    const std::string member = name != nullptr ? name : "";
    Answer answer;
    if (member == "Hello" && m_manners == Manners::Serve) {
        answer = [](sd_bus_message* reply) {
            Check(sd_bus_message_append_basic(reply, 's', ":1.1"), "append");
        };
    } else {
        const auto found = m_answers.find(member);
        answer = found != m_answers.end() ? found->second : nullptr;
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_counts[member];
        m_changed.notify_all();
    }
    if (!answer || sd_bus_message_is_method_call(message, nullptr, nullptr) <= 0) {
        return;
    }
    sd_bus_message* created = nullptr;
    Check(sd_bus_message_new_method_return(message, &created), "new reply");
    const MessageHandle reply(created);
    answer(created);
    Check(sd_bus_send(nullptr, created, nullptr), "send");
}

} // namespace MavixTest
