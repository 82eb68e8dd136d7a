#include "Commands.h"
#include "LibraryLog.h"
#include "Manual.h"
#include "Output.h"

#include <exception>
#include <fcntl.h>
#include <unistd.h>

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

const CLI::Option* MissingArgument(const CLI::App& command) {
    for (const CLI::Option* option : command.get_options())
        if (option->get_required() && option->count() == 0)
            return option;
    return nullptr;
}

std::string Complaint(const CLI::App& application, const CLI::ParseError& error) {
    const CLI::App& command = LastCommand(application);
    const std::string choices = CommandNames(command);
    const std::vector<std::string> words = command.remaining();
    const std::string word = words.empty() ? "" : "'" + words.front() + "'";
    if (!choices.empty())
        return word.empty() ? "a command is missing, one of " + choices : word + " is none of " + choices;
    const CLI::Option* missing = MissingArgument(command);
    if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr && missing != nullptr)
        return missing->get_name() + " is missing: " + missing->get_description();
    if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr && !word.empty())
        return word + (word[1] == '-' ? " is no option of " : " is one argument too many for ") +
               CommandName(application);
    return error.what();
}

int ReportUsage(const CLI::App& application, const CLI::ParseError& error) {
    // Help and version are told by exceptions, too.
    if (error.get_exit_code() == 0)
        return application.exit(error);
    PrintError(Complaint(application, error) + "; see " + CommandName(application) + " --help");
    return WrongUsage;
}

// Without one of the three streams, a file or socket that we open would take its place, and what we print
// would go there.
void KeepStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (::fcntl(stream, F_GETFD) < 0)
            // The other direction: reading and writing fail as before.
            ::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
}

int Run(int argc, char** argv) {
    int exitCode = Done;
    TSSettings settings;
    CLI::App application("Talks to the Mavix service: calls, events, sessions, caches.", "mavixctl");
    application.set_version_flag("--version", "mavixctl " MAVIX_VERSION);
    application.require_subcommand(1);
    AddCallCommand(application, settings, exitCode);
    AddListenCommand(application, settings, exitCode);
    AddMonitorCommand(application, settings, exitCode);
    AddOwnersCommand(application, settings, exitCode);
    AddRouteCommand(application, settings, exitCode);
    AddBenchCommand(application, settings, exitCode);
    AddSessionCommand(application, settings, exitCode);
    AddCacheCommand(application, settings, exitCode);
    AddDoctorCommand(application, settings, exitCode);
    AddCompletionCommand(application, settings, exitCode);
    AddManual(application);
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
    KeepStreams();
    ReportAborts();
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
