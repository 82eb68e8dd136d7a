#include "SimService.h"

#include <cstdio>
#include <stdexcept>

namespace MavixTools {

namespace {

constexpr std::chrono::seconds startLimit{20};

} // namespace

TCSimService::TCSimService(const std::string& program, const std::vector<std::string>& arguments,
                           const std::string& busAddress, bool discardOutput) {
    Pipe ready = MakePipe();
    ChildOptions options;
    options.program = program;
    options.arguments = arguments;
    options.arguments.push_back("--ready-fd=" + std::to_string(TCChildProcess::PassedDescriptor));
    options.environment = {{"DBUS_SYSTEM_BUS_ADDRESS", busAddress}};
    options.discardOutput = discardOutput;
    options.descriptor = ready.writer.Get();
    m_process = TCChildProcess(options);
    ready.writer.Close();
    m_ready = TCLineReader(std::move(ready.reader));
    if (!WaitReady(startLimit)) {
        m_process.End();
        throw std::runtime_error(program + " did not start");
    }
}

bool TCSimService::WaitReady(std::chrono::milliseconds limit) {
    const std::optional<std::string> line = m_ready.ReadLine(limit);
    return line &&
           std::sscanf(line->c_str(), "ready mavix-daemon=%d mavix-lite=%d", &m_daemonPid, &m_litePid) == 2;
}

} // namespace MavixTools
