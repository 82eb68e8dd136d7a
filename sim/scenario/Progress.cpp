#include "Progress.h"

#include "Clock.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>

namespace MavixSim {

namespace {

template <std::size_t Size>
void Copy(char (&target)[Size], const std::string& text) {
    const std::size_t length = std::min(text.size(), Size - 1);
    std::memcpy(target, text.data(), length);
    target[length] = '\0';
}

} // namespace

static_assert(TCProgress::Counter::is_always_lock_free, "counters are shared between processes");

TCProgress::TCProgress(const Scenario& scenario, int descriptor) : m_size(m_SizeFor(scenario)) {
    const int flags = MAP_SHARED | (descriptor < 0 ? MAP_ANONYMOUS : 0);
    void* mapped = MAP_FAILED;
    if (descriptor < 0 || ::ftruncate(descriptor, static_cast<off_t>(m_size)) == 0)
        mapped = ::mmap(nullptr, m_size, PROT_READ | PROT_WRITE, flags, descriptor, 0);
    if (mapped == MAP_FAILED)
        throw std::system_error(errno, std::generic_category(), "cannot keep the scenario's progress");
    // Zeros are what all of it begins with.
    m_shared = static_cast<Shared*>(mapped);
    m_tallies = reinterpret_cast<Tally*>(m_shared + 1);
    m_rules = reinterpret_cast<Counter*>(m_tallies + scenario.expectations.size());
    m_actions = m_rules + scenario.rules.size();
}

TCProgress::~TCProgress() {
    ::munmap(m_shared, m_size);
}

std::size_t TCProgress::m_SizeFor(const Scenario& scenario) {
    return sizeof(Shared) + scenario.expectations.size() * sizeof(Tally) +
           (scenario.rules.size() + scenario.timeline.size()) * sizeof(Counter);
}

std::uint64_t TCProgress::StartMs() {
    std::uint64_t start = 0;
    const std::uint64_t now = MonotonicMs();
    return m_shared->startMs.compare_exchange_strong(start, now) ? now : start;
}

TCProgress::Counter& TCProgress::AwayMs(const Role& role) {
    return m_shared->awayMs[static_cast<std::size_t>(&role - Roles().data())];
}

void TCProgress::Count(const Scenario& scenario, const Call& call, const std::string& refusal) {
    const std::uint64_t number = ++m_shared->calls;
    bool isExpected = false;
    for (std::size_t at = 0; at < scenario.expectations.size() && refusal.empty(); ++at) {
        const Selection& calls = scenario.expectations[at].calls;
        if (!calls.IsOf(call))
            continue;
        if (!calls.condition.Holds(call)) {
            ++m_tallies[at].others;
            continue;
        }
        ++m_tallies[at].count;
        std::uint64_t none = 0;
        m_tallies[at].first.compare_exchange_strong(none, number);
        isExpected = true;
    }
    if (!isExpected)
        m_AddStranger(call, refusal);
}

void TCProgress::m_AddStranger(const Call& call, const std::string& refusal) {
    const std::uint64_t number = m_shared->strangers++;
    if (number >= mostStrangers)
        return;
    Stranger& stranger = m_shared->first[number];
    Copy(stranger.interface, call.interface);
    stranger.hasCode = call.header.has_value();
    stranger.code = call.Code();
    stranger.size = call.payloadSize;
    std::copy_n(call.payload, std::min(call.payloadSize, sizeof stranger.start), stranger.start);
    Copy(stranger.reason, refusal);
    stranger.complete = true;
}

std::vector<const TCProgress::Stranger*> TCProgress::Strangers(std::uint64_t& strangers) const {
    strangers = m_shared->strangers;
    std::vector<const Stranger*> first;
    for (const Stranger& stranger : m_shared->first)
        if (stranger.complete)
            first.push_back(&stranger);
    return first;
}

} // namespace MavixSim
