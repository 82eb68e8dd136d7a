#include "Sessions.h"

#include "Trampoline.h"

#include <cstring>
#include <nlohmann/json.hpp>

namespace MavixSim {

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::int32_t done = 0;
constexpr std::int32_t nothingChanged = 1;
constexpr std::int32_t notTerminated = 0;

void Append(Bytes& bytes, std::int32_t value) {
    const std::size_t position = bytes.size();
    bytes.resize(position + sizeof value);
    std::memcpy(bytes.data() + position, &value, sizeof value);
}

Bytes Result(std::int32_t value) {
    Bytes bytes;
    Append(bytes, value);
    return bytes;
}

// With every line of the text in a line of its own.
std::string Indented(const std::string& text) {
    std::string lines;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        lines += "    " + text.substr(start, end - start) + "\n";
        start = end + 1;
    }
    return lines;
}

} // namespace

int TCSessions::m_OnGone(sd_bus_track*, void* client) {
    Guarded([client] {
        auto* gone = static_cast<Client*>(client);
        TCSessions& self = *gone->owner;
        self.m_counters.vanished += gone->isOpen ? 1u : 0u;
        self.m_clients.erase(std::string(gone->name));
    });
    return 1;
}

TCSessions::Client* TCSessions::m_Find(const Call& call) {
    const auto found = m_clients.find(call.sender);
    if (found != m_clients.end())
        return &found->second;
    Client& client = m_clients[call.sender];
    client.owner = this;
    client.name = call.sender;
    client.pid = call.pid.value_or(0);
    sd_bus_track* track = nullptr;
    Check(sd_bus_track_new(m_bus, &track, m_OnGone, &client), "watch a client");
    client.track.reset(track);
    if (sd_bus_track_add_name(track, call.sender.c_str()) >= 0)
        return &client;
    m_clients.erase(call.sender);
    return nullptr;
}

bool TCSessions::m_Open(const Call& call) {
    Client* client = m_Find(call);
    if (client == nullptr)
        return false;
    ++(client->isOpen ? m_counters.repeatedOpens : m_counters.opened);
    return !std::exchange(client->isOpen, true);
}

bool TCSessions::m_Close(const Call& call) {
    Client* client = m_Find(call);
    if (client == nullptr)
        return false;
    ++(client->isOpen ? m_counters.closed : m_counters.needlessCloses);
    return std::exchange(client->isOpen, false);
}

Bytes TCSessions::Answer(const Call& call) {
    switch (static_cast<SessionFunction>(call.Code())) {
    case SessionFunction::Open:
        return Result(m_Open(call) ? done : nothingChanged);
    case SessionFunction::Close:
        return Result(m_Close(call) ? done : nothingChanged);
    case SessionFunction::DebugInfo: {
        const std::string text = Text();
        Bytes answer = Result(done);
        Append(answer, static_cast<std::int32_t>(text.size()));
        answer.insert(answer.end(), text.begin(), text.end());
        return answer;
    }
    case SessionFunction::OpenTrace: {
        TraceRequest request = DecodeTraceRequest(call);
        if (Client* client = m_Find(call))
            client->traces[request.id] = std::move(request);
        return {};
    }
    case SessionFunction::CloseTrace:
        if (Client* client = m_Find(call))
            client->traces.erase(DecodeTraceRequest(call).id);
        return {};
    case SessionFunction::IsTerminated: {
        Bytes answer = Result(done);
        Append(answer, notTerminated);
        return answer;
    }
    }
    return {};
}

std::string TCSessions::Text() const {
    std::string text;
    for (const auto& [name, client] : m_clients) {
        text += "client " + name + ", process " + std::to_string(client.pid) + ": session " +
                (client.isOpen ? "open" : "closed") + "\n";
        for (const auto& [id, trace] : client.traces)
            text += "  trace " + std::to_string(id) + ", parameter " + std::to_string(trace.parameter) +
                    "\n" + Indented(trace.text);
    }
    return text.empty() ? "no clients\n" : text;
}

nlohmann::json TCSessions::Counters() const {
    std::size_t open = 0;
    std::size_t traces = 0;
    for (const auto& [name, client] : m_clients) {
        open += client.isOpen ? 1u : 0u;
        traces += client.traces.size();
    }
    return {{"clients", m_clients.size()},
            {"open", open},
            {"traces", traces},
            {"opened", m_counters.opened},
            {"closed", m_counters.closed},
            {"repeatedOpens", m_counters.repeatedOpens},
            {"needlessCloses", m_counters.needlessCloses},
            {"vanished", m_counters.vanished}};
}

} // namespace MavixSim
