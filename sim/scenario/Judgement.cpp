#include "Judgement.h"

#include "Hex.h"

namespace MavixSim {

namespace {

std::string Times(std::uint64_t count) {
    return std::to_string(count) + (count == 1 ? " call" : " calls");
}

std::string Wanted(const Expectation& expectation) {
    if (expectation.atMost == expectation.atLeast)
        return "exactly " + Times(expectation.atLeast);
    if (!expectation.atMost)
        return "at least " + Times(expectation.atLeast);
    if (expectation.atLeast == 0)
        return "at most " + Times(*expectation.atMost);
    return std::to_string(expectation.atLeast) + " to " + Times(*expectation.atMost);
}

std::string FunctionText(const std::string& interface, std::optional<std::int16_t> code) {
    return (interface == "*" ? "any interface" : interface) + " " +
           (code ? std::to_string(*code) : "of any code");
}

void JudgeCalls(const Scenario& scenario, const TCProgress& progress, std::vector<std::string>& lines) {
    for (std::size_t at = 0; at < scenario.expectations.size(); ++at) {
        const Expectation& expectation = scenario.expectations[at];
        const TCProgress::Tally& tally = progress.TallyOf(at);
        const std::uint64_t count = tally.count;
        if (count >= expectation.atLeast && count <= expectation.atMost.value_or(count))
            continue;
        const Selection& calls = expectation.calls;
        std::string line = expectation.place + ": '" + expectation.name + "' (" +
                           FunctionText(calls.interface, calls.code) + "): expected " + Wanted(expectation) +
                           (calls.condition.IsEmpty() ? "" : " with the payload of 'when'") + ", came " +
                           (count == 0 ? "none" : std::to_string(count));
        if (tally.others != 0)
            line += ", and " + Times(tally.others) + " with another payload";
        lines.push_back(line);
    }
}

void JudgeOrder(const Scenario& scenario, const TCProgress& progress, std::vector<std::string>& lines) {
    const auto nameOf = [&](std::size_t at) {
        return "'" + scenario.expectations[scenario.order[at]].name + "'";
    };
    for (std::size_t at = 0; at < scenario.order.size(); ++at) {
        const std::uint64_t first = progress.TallyOf(scenario.order[at]).first;
        const std::uint64_t before = at == 0 ? 0 : progress.TallyOf(scenario.order[at - 1]).first.load();
        if (first == 0)
            lines.push_back(scenario.orderPlace + ": order: expected " + nameOf(at) +
                            (at == 0 ? " first" : " after " + nameOf(at - 1)) + ", it did not come");
        else if (first < before)
            lines.push_back(scenario.orderPlace + ": order: expected " + nameOf(at) + " after " +
                            nameOf(at - 1) + ", it came before");
    }
}

void JudgeStrangers(const Scenario& scenario, const TCProgress& progress, std::vector<std::string>& lines) {
    std::uint64_t all = 0;
    const auto strangers = progress.Strangers(all);
    for (const TCProgress::Stranger* stranger : strangers)
        lines.push_back(scenario.nothingElsePlace + ": not expected: " + StrangerText(*stranger));
    if (all > strangers.size())
        lines.push_back(scenario.nothingElsePlace + ": and " + Times(all - strangers.size()) + " more");
}

} // namespace

std::string StrangerText(const TCProgress::Stranger& stranger) {
    std::string text = std::string("a call of ") + stranger.interface;
    if (stranger.hasCode)
        text += " " + std::to_string(stranger.code);
    text += " with " + std::to_string(stranger.size) + " bytes";
    if (stranger.size != 0) {
        const bool isWhole = stranger.size <= sizeof stranger.start;
        const std::size_t shown = isWhole ? stranger.size : sizeof stranger.start;
        text += " hex:" + MavixTraffic::ToHex(stranger.start, shown) + (isWhole ? "" : "...");
    }
    if (stranger.reason[0] != '\0')
        text += std::string(", refused: ") + stranger.reason;
    return text;
}

std::string Judge(const Scenario& scenario, const TCProgress& progress) {
    std::vector<std::string> lines;
    JudgeCalls(scenario, progress, lines);
    JudgeOrder(scenario, progress, lines);
    if (scenario.nothingElse)
        JudgeStrangers(scenario, progress, lines);
    std::string text;
    for (const std::string& line : lines)
        text += "\n" + line;
    return text.empty() ? "" : "the scenario's expectations were not met:" + text;
}

} // namespace MavixSim
