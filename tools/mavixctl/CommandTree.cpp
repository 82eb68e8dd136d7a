#include "CommandTree.h"

namespace MavixControl {

namespace {

TSOption Describe(CLI::Option& option) {
    TSOption described;
    described.description = option.get_description();
    described.choices = ChoicesOf(option);
    described.isRequired = option.get_required();
    described.isRepeated = option.get_expected_max() > 1;
    if (option.get_positional()) {
        described.name = option.get_name(true);
    } else {
        described.name = option.get_lnames().empty() ? "-" + option.get_snames().front()
                                                     : "--" + option.get_lnames().front();
        if (option.get_type_size_max() > 0)
            described.value = option.get_type_name();
    }
    return described;
}

void Add(CLI::App& command, const std::string& path, std::vector<TSCommand>& all) {
    TSCommand described;
    described.path = path;
    described.description = command.get_description();
    described.footer = command.get_footer();
    for (CLI::Option* option : command.get_options()) {
        // Hidden ones belong to no group.
        if (!option->get_group().empty())
            (option->get_positional() ? described.arguments : described.options).push_back(Describe(*option));
    }
    const auto commands = command.get_subcommands([](const CLI::App*) { return true; });
    for (const CLI::App* own : commands)
        described.commands.emplace_back(own->get_name(), own->get_description());
    all.push_back(described);
    for (CLI::App* own : commands)
        Add(*own, path + " " + own->get_name(), all);
}

} // namespace

std::vector<TSCommand> AllCommands(CLI::App& application) {
    std::vector<TSCommand> all;
    Add(application, application.get_name(), all);
    return all;
}

} // namespace MavixControl
