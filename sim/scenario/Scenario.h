#ifndef MAVIX_SIM_SCENARIO_SCENARIO_H
#define MAVIX_SIM_SCENARIO_SCENARIO_H

#include "Behaviours.h"
#include "Call.h"
#include "Event.h"
#include "Faults.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace MavixSim {

using Bytes = std::vector<std::uint8_t>;

// What a request's payload has to be.
struct Condition {
    std::optional<Bytes> equals;
    std::optional<Bytes> prefix;
    // Of the first bytes, the bits of `mask` have to be those of `value`; both are of the same size.
    Bytes mask;
    Bytes value;
    std::size_t leastSize = 0;
    std::size_t largestSize = SIZE_MAX;

    bool IsEmpty() const {
        return !equals && !prefix && mask.empty() && leastSize == 0 && largestSize == SIZE_MAX;
    }
    bool Holds(const Call& call) const;
};

// Which calls.
struct Selection {
    std::string interface;            // "*" for every one that stands for itself
    std::optional<std::int16_t> code; // every one when not set
    Condition condition;

    // Without the condition.
    bool IsOf(const Call& call) const;
};

// Something that happens at a time, once or again and again: an event, a fault, or an event with a fault.
struct Action {
    std::uint32_t afterMs = 0;
    std::uint32_t everyMs = 0;
    std::optional<std::uint32_t> count; // how often; for ever when not set
    std::optional<Event> event;
    bool toCaller = false;
    FaultUse fault;
};

// What happens to one call.
struct Step {
    FaultUse fault;
    // As the test interface has it; what a fault adds to it happens besides.
    Behaviour behaviour = Behaviour::Echo;
    Bytes parameter;
    std::optional<Bytes> reply; // the call's own payload, or what session control answers, when not set
    std::uint32_t delayMs = 0;
    std::uint32_t spreadMs = 0;
    std::uint32_t times = 1;
    std::vector<Action> then;
};

// What happens to calls, one after the other; for ever the last step in the end.
struct Rule {
    Selection calls;
    std::vector<Step> steps;
};

struct Expectation {
    std::string name;
    std::string place; // in the file
    Selection calls;
    std::uint64_t atLeast = 0;
    std::optional<std::uint64_t> atMost;
};

struct Scenario {
    std::uint64_t seed = 0;
    FaultUse start;
    std::vector<Rule> rules; // those of single interfaces first
    std::vector<Action> timeline;
    std::vector<Expectation> expectations;
    // Numbers of expectations whose first calls come in this order.
    std::vector<std::size_t> order;
    std::string orderPlace;
    bool nothingElse = false;
    std::string nothingElsePlace;
};

constexpr std::int64_t scenarioFormat = 1;

} // namespace MavixSim

#endif
