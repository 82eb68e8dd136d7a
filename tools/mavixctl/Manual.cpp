#include "Manual.h"

#include "CommandTree.h"
#include "Output.h"

#include <fmt/format.h>

namespace MavixControl {

namespace {

// Text as troff takes it: its dashes are those of the keyboard, and no line becomes a request.
std::string Troff(const std::string& text) {
    std::string escaped;
    for (const char letter : text) {
        if ((letter == '.' || letter == '\'') && (escaped.empty() || escaped.back() == '\n'))
            escaped += "\\&";
        if (letter == '-')
            escaped += "\\-";
        else if (letter == '\\')
            escaped += "\\e";
        else
            escaped += letter;
    }
    return escaped;
}

void PrintOption(const TSOption& option, bool isArgument) {
    PrintLine(".TP");
    const std::string value = option.IsFlag() ? "" : fmt::format(" \\fI{}\\fR", Troff(option.value));
    PrintLine(isArgument ? fmt::format("\\fI{}\\fR", Troff(option.name))
                         : fmt::format("\\fB{}\\fR{}", Troff(option.name), value));
    PrintLine(Troff(option.description) + ".");
}

std::string Usage(const TSCommand& command) {
    std::string usage = fmt::format("\\fB{}\\fR", Troff(command.path));
    for (const TSOption& argument : command.arguments) {
        const std::string name =
            fmt::format("\\fI{}\\fR{}", Troff(argument.name), argument.isRepeated ? "..." : "");
        usage += argument.isRequired ? " " + name : " [" + name + "]";
    }
    return usage + " [\\fIOPTION\\fR]...";
}

void PrintCommand(const TSCommand& command) {
    PrintLine(fmt::format(".SS {}", Troff(command.path)));
    PrintLine(Troff(command.description) + ".");
    // What only bears further commands has nothing else to tell.
    if (!command.commands.empty())
        return;
    PrintLine(".PP");
    PrintLine(Usage(command));
    for (const TSOption& argument : command.arguments)
        PrintOption(argument, true);
    for (const TSOption& option : command.options)
        PrintOption(option, false);
    PrintLine(fmt::format(".PP\n.nf\n{}\n.fi", Troff(command.footer)));
}

constexpr const char* head = R"(.TH MAVIXCTL 1 "" "mavixctl )" MAVIX_VERSION R"(" "Mavix"
.SH NAME
mavixctl \- calls, events, sessions and caches of the Mavix service
.SH SYNOPSIS
\fBmavixctl\fR \fICOMMAND\fR [\fIARGUMENT\fR]... [\fIOPTION\fR]...
.SH DESCRIPTION
Talks to the Mavix service on the system bus: calls its functions, prints its events, opens sessions with it, and looks
at the caches that it shares.
.SH OPTIONS)";

constexpr const char* tail = R"(.SH EXIT STATUS
.TP
0
Done.
.TP
1
The service refused, or a check failed.
.TP
2
An argument is missing, superfluous or malformed.
.TP
3
There is no bus, or nobody owns the service's name there.
.SH ENVIRONMENT
.TP
\fBDBUS_SYSTEM_BUS_ADDRESS\fR
The bus to use instead of the system's own.
.TP
\fBNO_COLOR\fR
Set to anything, it keeps colours away from terminals.
.TP
\fBMAVIX_LOG\fR
The level from which on the library's log goes to standard error: debug, info, warning or error.
.SH SEE ALSO
.BR mavix\-sandbox (1),
.BR mavix\-sim (1))";

void PrintManual(CLI::App& application) {
    PrintLine(head);
    const std::vector<TSCommand> commands = AllCommands(application);
    for (const TSOption& option : commands.front().options)
        PrintOption(option, false);
    PrintLine(".SH COMMANDS");
    for (std::size_t i = 1; i < commands.size(); ++i)
        PrintCommand(commands[i]);
    PrintLine(tail);
}

} // namespace

void AddManual(CLI::App& application) {
    application
        .add_flag_callback("--generate-man",
                           [&application] {
                               PrintManual(application);
                               // No command is needed then.
                               throw CLI::Success();
                           })
        ->group("");
}

} // namespace MavixControl
