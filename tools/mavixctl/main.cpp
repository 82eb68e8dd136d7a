#include "Commands.h"
#include "Output.h"

#include <exception>

namespace MavixControl {

namespace {

// The command line as far as it names commands.
std::string CommandName(const CLI::App& application) {
    std::string name = application.get_name();
    for (const CLI::App* command : application.get_subcommands())
        name += " " + CommandName(*command);
    return name;
}

// The command whose own commands are the ones to choose from.
const CLI::App& LastCommand(const CLI::App& application) {
    const auto commands = application.get_subcommands();
    return commands.empty() ? application : LastCommand(*commands.front());
}

std::string CommandNames(const CLI::App& application) {
    std::string names;
    for (const CLI::App* command : application.get_subcommands([](const CLI::App*) { return true; }))
        names.append(names.empty() ? "" : ", ").append(command->get_name());
    return names;
}

std::string Complaint(const CLI::App& application, const CLI::ParseError& error) {
    const CLI::App& last = LastCommand(application);
    const std::string choices = CommandNames(last);
    if (choices.empty())
        return error.what();
    const std::vector<std::string> words = application.remaining(true);
    return words.empty() ? "a command is missing, one of " + choices
                         : "'" + words.front() + "' is none of " + choices;
}

int ReportUsage(const CLI::App& application, const CLI::ParseError& error) {
    // Help and version are told by exceptions, too.
    if (error.get_exit_code() == 0)
        return application.exit(error);
    PrintError(Complaint(application, error) + "; see " + CommandName(application) + " --help");
    return WrongUsage;
}

int Run(int argc, char** argv) {
    int exitCode = Done;
    TSSettings settings;
    CLI::App application("Talks to the Mavix service: calls, events, sessions, caches.", "mavixctl");
    application.set_version_flag("--version", "mavixctl " MAVIX_VERSION);
    application.require_subcommand(1);
    AddRouteCommand(application, settings, exitCode);
    try {
        application.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return ReportUsage(application, error);
    }
    return exitCode;
}

} // namespace

} // namespace MavixControl

int main(int argc, char** argv) {
    using namespace MavixControl;
    int exitCode = Refused;
    try {
        exitCode = Run(argc, argv);
    } catch (const TCFailure& failure) {
        PrintError(failure.what());
        exitCode = failure.Code();
    } catch (const std::exception& error) {
        PrintError(error.what());
    }
    if (!FlushOutput()) {
        PrintError("standard output cannot be written");
        return exitCode == Done ? Refused : exitCode;
    }
    return exitCode;
}
