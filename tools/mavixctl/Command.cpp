#include "Command.h"

#include "Numbers.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace MavixControl {

namespace {

// Begins the name of the validator that bears what completion offers: options have no other place for it.
const std::string choicesMark = "choices:";

// The names that D-Bus allows for an interface; the library refuses others, too.
bool IsInterfaceName(const std::string& name) {
    constexpr std::size_t longest = 255;
    bool atStart = true;
    bool hasDot = false;
    for (const char letter : name) {
        const bool isDigit = letter >= '0' && letter <= '9';
        const bool isLetter =
            (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') || letter == '_';
        if (letter == '.' ? atStart : !isLetter && (atStart || !isDigit))
            return false;
        hasDot = hasDot || letter == '.';
        atStart = letter == '.';
    }
    return hasDot && !atStart && name.size() <= longest;
}

std::string Join(const std::vector<std::string>& texts, const char* separator) {
    std::string all;
    for (const std::string& text : texts)
        all.append(all.empty() ? "" : separator).append(text);
    return all;
}

} // namespace

CLI::App* AddCommand(CLI::App& parent, TSSettings& settings, const std::string& name,
                     const std::string& description, const std::string& example) {
    CLI::App* command = parent.add_subcommand(name, description);
    command->add_flag("--json", settings.json, "Print JSON, one object a line");
    command->footer("Example:\n  " + example);
    return command;
}

CLI::Validator Number(std::int64_t lowest, std::int64_t highest) {
    return CLI::Validator(
        [lowest, highest](std::string& text) {
            const std::optional<std::int64_t> number = MavixTraffic::ParseNumber(text, lowest, highest);
            if (!number)
                return "'" + text + "' is not a whole number from " + std::to_string(lowest) + " to " +
                       std::to_string(highest);
            text = std::to_string(*number);
            return std::string();
        },
        "");
}

CLI::Validator Seconds() {
    return CLI::Validator(
        [](std::string& text) {
            constexpr double longest = 1e6;
            double seconds = 0;
            const bool isNumber = CLI::detail::lexical_cast(text, seconds) && std::isfinite(seconds);
            return isNumber && seconds >= 0 && seconds <= longest
                       ? std::string()
                       : "'" + text + "' is not a number of seconds from 0 to 1000000";
        },
        "");
}

CLI::Validator InterfaceName() {
    return CLI::Validator(
        [](std::string& text) {
            return IsInterfaceName(text)
                       ? std::string()
                       : "'" + text + "' is not an interface's name, such as com.norvale.IAVControl";
        },
        "");
}

void SetChoices(CLI::Option* option, const std::vector<std::string>& choices) {
    option->type_name(Join(choices, "|"));
    OfferChoices(option, choices);
    option->check(CLI::Validator(
        [choices](std::string& text) {
            return std::find(choices.begin(), choices.end(), text) != choices.end()
                       ? std::string()
                       : "'" + text + "' is none of " + Join(choices, ", ");
        },
        ""));
}

void OfferChoices(CLI::Option* option, const std::vector<std::string>& choices) {
    option->check(
        CLI::Validator([](std::string&) { return std::string(); }, "", choicesMark + Join(choices, "|")));
}

std::vector<std::string> ChoicesOf(CLI::Option& option) {
    try {
        for (int index = 0;; ++index) {
            const std::string& name = option.get_validator(index)->get_name();
            if (name.rfind(choicesMark, 0) == 0)
                return CLI::detail::split(name.substr(choicesMark.size()), '|');
        }
    } catch (const CLI::OptionNotFound&) {
        // The index has come to the end.
        return {};
    }
}

CLI::Option* AddInterface(CLI::App& command, std::string& interfaceName) {
    return command
        .add_option("INTERFACE", interfaceName, "Name of the interface, such as com.norvale.IAVControl")
        ->required()
        ->type_name("")
        ->check(InterfaceName());
}

CLI::Option* AddCode(CLI::App& command, std::int16_t& code) {
    using Limits = std::numeric_limits<std::int16_t>;
    return command.add_option("CODE", code, "The function's code, from -32768 to 32767")
        ->type_name("")
        ->transform(Number(Limits::min(), Limits::max()));
}

} // namespace MavixControl
