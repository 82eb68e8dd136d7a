#include "CacheCommand.h"
#include "CachePage.h"
#include "Output.h"
#include "Payload.h"

#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <limits>
#include <map>
#include <optional>
#include <thread>

namespace MavixControl {

namespace {

using Clock = std::chrono::steady_clock;
using EState = TCCachePage::EState;

// One run of the command. The memory tells nobody that it has changed, so it is looked at again and again.
class TCCacheWatch final {
public:
    explicit TCCacheWatch(const TSSettings& settings) : m_settings(settings) {}

    void AddOptions(CLI::App& command);
    std::string& CacheName() { return m_cacheName; }
    EExitCode Run();

private:
    using Values = std::map<std::string, std::string>;

    void m_Look();
    Values m_Watched(const TCCachePage& page) const;
    bool m_IsDone() const { return m_isUnread || (m_count != 0 && m_seen >= m_count); }
    void m_Report(const char* change, const std::string& key, const std::string* value);

    const TSSettings& m_settings;
    std::string m_cacheName;
    std::vector<std::string> m_keys;
    TCPayloadView m_view;
    double m_intervalSeconds = 0.1;
    std::optional<double> m_timeoutSeconds;
    unsigned long m_count = 0;
    unsigned long m_seen = 0;
    bool m_isDecoded = true;
    bool m_isUnread = false; // what is printed cannot be written
    std::optional<EState> m_state;
    Values m_values;
};

void TCCacheWatch::AddOptions(CLI::App& command) {
    command.add_option("KEY", m_keys, "Only these values, by their whole keys; all unless given")
        ->type_name("");
    m_view.AddOptions(command);
    command.add_option("--interval", m_intervalSeconds, "Look so often; each 0.1 s unless given")
        ->type_name("SECONDS")
        ->check(Seconds());
    command.add_option("--count", m_count, "End after so many changes")
        ->type_name("N")
        ->transform(Number(1, std::numeric_limits<std::int32_t>::max()));
    command
        .add_option("--timeout", m_timeoutSeconds, "End after this time; with --count it is then a failure")
        ->type_name("SECONDS")
        ->check(Seconds());
}

EExitCode TCCacheWatch::Run() {
    const auto after = [](double seconds) {
        return Clock::now() +
               std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    };
    const Clock::time_point end = m_timeoutSeconds ? after(*m_timeoutSeconds) : Clock::time_point::max();
    m_Look();
    PrintError("watching");
    while (!m_IsDone()) {
        if (Clock::now() >= end) {
            if (m_count == 0)
                break;
            throw TCFailure(Refused,
                            fmt::format("{} of {} changes came in {} s", m_seen, m_count, *m_timeoutSeconds));
        }
        std::this_thread::sleep_until(std::min(after(m_intervalSeconds), end));
        m_Look();
    }
    return m_isDecoded ? Done : Refused;
}

TCCacheWatch::Values TCCacheWatch::m_Watched(const TCCachePage& page) const {
    Values watched;
    for (const TSCacheValue& value : page.Values())
        if (m_keys.empty() || std::find(m_keys.begin(), m_keys.end(), value.key) != m_keys.end())
            watched.emplace(value.key, value.bytes);
    return watched;
}

void TCCacheWatch::m_Look() {
    const TCCachePage page(m_cacheName);
    const bool isFirst = !m_state;
    if (!isFirst && page.State() != *m_state)
        m_Report(Name(page.State()), "", nullptr);
    m_state = page.State();
    // Otherwise readers get no values, and the next write removes them.
    if (page.State() != EState::Complete)
        return;
    const Values values = m_Watched(page);
    if (!isFirst) {
        for (const auto& [key, value] : m_values)
            if (values.count(key) == 0)
                m_Report("reset", key, nullptr);
        for (const auto& [key, value] : values) {
            const auto known = m_values.find(key);
            if (known == m_values.end() || known->second != value)
                m_Report("set", key, &value);
        }
    }
    m_values = values;
}

void TCCacheWatch::m_Report(const char* change, const std::string& key, const std::string* value) {
    if (m_IsDone())
        return;
    ++m_seen;
    if (m_settings.json) {
        Json object{{"cache", m_cacheName}, {"change", change}};
        if (!key.empty())
            object["key"] = key;
        if (value != nullptr)
            m_isDecoded = m_view.AddTo(object, *value) && m_isDecoded;
        PrintJson(object);
    } else {
        PrintLine(key.empty()
                      ? fmt::format("the cache is {}", change)
                      : fmt::format("{} {}{}", change, Paint(EColour::Name, Printable(key)),
                                    value == nullptr ? "" : fmt::format(", {} bytes", value->size())));
        if (value != nullptr)
            m_isDecoded = m_view.Print(*value, "  ") && m_isDecoded;
    }
    m_isUnread = !FlushOutput();
}

} // namespace

void AddCacheWatch(CLI::App& cache, TSSettings& settings, int& exitCode) {
    const auto watch = std::make_shared<TCCacheWatch>(settings);
    CLI::App* command = AddCacheOperation(cache, settings, "watch", "Print a cache's changes as they come",
                                          "demo volume --decode i --count 1", watch->CacheName());
    watch->AddOptions(*command);
    command->callback([watch, &exitCode] { exitCode = watch->Run(); });
}

} // namespace MavixControl
