#ifndef MAVIX_SIM_SCENARIO_FAULTS_H
#define MAVIX_SIM_SCENARIO_FAULTS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace MavixSim {

enum class Fault {
    NoReply,
    LateReply,
    ErrorReply,
    BrokenReplyByte,
    WrongTypes,
    TruncatedAux,
    HugeReply,
    DropName,
    Restart,
    CrashInCall,
    Hang,
    Disconnect,
    OwnerFlap,
    RefuseSession,
    FloodEvents,
    MalformedEvent,
    DuplicateEvent,
    Reorder,
    SlowStart,
    NeverStart
};

// Where a fault may stand.
constexpr unsigned inStep = 1;      // what happens to a call
constexpr unsigned inAction = 2;    // what happens at a time
constexpr unsigned inEvent = 4;     // how an event is emitted
constexpr unsigned inStart = 8;     // how the service starts
constexpr unsigned forSession = 16; // in steps of session control alone

// One parameter of a fault: a whole number within limits, or, when it has choices or a default text, a text.
struct FaultParameter {
    const char* name;
    std::int64_t least = 0;
    std::int64_t most = 0;
    std::int64_t number = 0;    // when absent
    const char* text = nullptr; // when absent
    std::vector<std::string> choices{};
    unsigned places = inStep | inAction | inEvent | inStart;

    bool IsText() const { return text != nullptr; }
};

struct FaultRow {
    const char* name;
    Fault fault;
    unsigned places;
    std::vector<FaultParameter> parameters;
};

const std::vector<FaultRow>& FaultTable();
// Null when there is no such fault.
const FaultRow* FindFault(const std::string& name);

// A fault with the values of its parameters.
struct FaultUse {
    const FaultRow* row = nullptr;
    std::map<std::string, std::int64_t> numbers;
    std::map<std::string, std::string> texts;

    explicit operator bool() const { return row != nullptr; }
    bool Is(Fault fault) const { return row != nullptr && row->fault == fault; }
    std::int32_t Number(const char* name) const { return static_cast<std::int32_t>(numbers.at(name)); }
    std::uint32_t Milliseconds() const { return static_cast<std::uint32_t>(numbers.at("milliseconds")); }
};

} // namespace MavixSim

#endif
