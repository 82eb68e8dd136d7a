#include "ControlProgram.h"

#include "Await.h"

#include <csignal>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace MavixTest {

namespace {

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// A shell leads the three streams to files of the folder that is its working directory's stand-in, $0.
MavixTools::TCChildProcess Start(const std::string& folder, const Words& arguments,
                                 const TCControlProgram::Options& options) {
    std::ofstream(folder + "/in", std::ios::binary) << options.input;
    std::ofstream(folder + "/out");
    std::ofstream(folder + "/err");
    MavixTools::ChildOptions child;
    child.program = "sh";
    child.arguments = {"-c", "exec \"$@\" <\"$0/in\" >>\"$0/out\" 2>>\"$0/err\"", folder};
    child.arguments.insert(child.arguments.end(), options.launcher.begin(), options.launcher.end());
    child.arguments.emplace_back(MAVIX_TEST_CONTROL);
    child.arguments.insert(child.arguments.end(), arguments.begin(), arguments.end());
    child.environment = options.environment;
    return MavixTools::TCChildProcess(child);
}

} // namespace

std::vector<nlohmann::json> ControlResult::Objects() const {
    std::vector<nlohmann::json> objects;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);)
        objects.push_back(nlohmann::json::parse(line));
    return objects;
}

nlohmann::json ControlResult::Object() const {
    const std::vector<nlohmann::json> objects = Objects();
    if (objects.size() != 1)
        throw std::runtime_error("not one object: " + output + errors);
    return objects.front();
}

TCControlProgram::Options TCControlProgram::Options::Behind(const std::string& script) {
    Options options;
    options.launcher = {"sh", "-c", script, "sh"};
    return options;
}

TCControlProgram::TCControlProgram(const Words& arguments, const Options& options)
    : m_process(Start(m_folder.Path(), arguments, options)) {}

std::string TCControlProgram::Output() const {
    return ReadFile(m_folder.Path() + "/out");
}

std::string TCControlProgram::Errors() const {
    return ReadFile(m_folder.Path() + "/err");
}

bool TCControlProgram::AwaitOutput(const std::string& text) const {
    return Await([&] { return Output().find(text) != std::string::npos; });
}

bool TCControlProgram::AwaitErrors(const std::string& text) const {
    return Await([&] { return Errors().find(text) != std::string::npos; });
}

ControlResult TCControlProgram::Wait(std::chrono::milliseconds limit) {
    std::optional<int> status = m_process.Wait(limit);
    if (!status) {
        m_process.Signal(SIGKILL);
        status = m_process.Wait();
    }
    return {MavixTools::ShellStatus(*status), Output(), Errors()};
}

ControlResult RunControl(const Words& arguments, const TCControlProgram::Options& options) {
    return TCControlProgram(arguments, options).Wait();
}

} // namespace MavixTest
