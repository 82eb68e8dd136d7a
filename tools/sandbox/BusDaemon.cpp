#include "BusDaemon.h"

#include "BusConfig.h"
#include "LineReader.h"

#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace MavixTools {

namespace {

constexpr std::chrono::seconds startLimit{20};

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream file(path);
    file << text << std::flush;
    if (!file)
        throw std::system_error(errno, std::generic_category(), "cannot write " + path);
}

} // namespace

TCBusDaemon::TCBusDaemon(const std::string& folder, const std::string& policyPath, bool discardOutput)
    : m_socketPath(folder + "/bus"), m_configPath(folder + "/bus.conf"),
      m_address("unix:path=" + m_socketPath), m_discardOutput(discardOutput) {
    const std::string ownPolicyPath = folder + "/com.norvale.Mavix.conf";
    WriteFile(ownPolicyPath, PolicyForCurrentUser(policyPath));
    WriteFile(m_configPath, BusConfigText(m_socketPath, ownPolicyPath));
}

void TCBusDaemon::Start() {
    ::unlink(m_socketPath.c_str());
    Pipe ready = MakePipe();
    ChildOptions options;
    options.program = "dbus-daemon";
    options.arguments = {"--nofork", "--nopidfile", "--nosyslog", "--config-file=" + m_configPath,
                         "--print-address=" + std::to_string(TCChildProcess::PassedDescriptor)};
    options.discardOutput = m_discardOutput;
    options.descriptor = ready.writer.Get();
    m_process = TCChildProcess(options);
    ready.writer.Close();
    if (!TCLineReader(std::move(ready.reader)).ReadLine(startLimit)) {
        m_process.End();
        throw std::runtime_error("dbus-daemon did not start");
    }
}

void TCBusDaemon::Stop() {
    m_process.End();
}

void TCBusDaemon::Kill() {
    m_process.Signal(SIGKILL);
    m_process.Wait();
}

} // namespace MavixTools
