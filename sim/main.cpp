#include "Complaint.h"
#include "Server.h"
#include "Supervisor.h"
#include "replay/Replay.h"
#include "scenario/Judgement.h"
#include "scenario/ScenarioReader.h"

#include <fstream>
#include <memory>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

using namespace MavixSim;

constexpr int refused = 2;
constexpr int notMet = 124;
constexpr int notRecorded = 123;

void TellReady(int descriptor) {
    [[maybe_unused]] const ssize_t written = ::write(descriptor, "\n", 1);
    ::close(descriptor);
}

// On the bus for a while. How long to stay off it then; none when the process is to end with `exitCode`.
std::optional<std::uint32_t> ServeOnce(const SimOptions& options, const Playback* playback,
                                       const Replayed* replayed, bool isFirstTime, int& exitCode) {
    TCServer server(*options.role, options.keepRecords, playback, replayed);
    server.TakeNames(isFirstTime);
    if (isFirstTime && options.readyDescriptor >= 0)
        TellReady(options.readyDescriptor);
    exitCode = server.Run();
    return server.AwayMs();
}

int Serve(const SimOptions& options, const Playback* playback, const Replayed* replayed) {
    ::prctl(PR_SET_NAME, options.role->processName);
    int exitCode = 0;
    for (bool isFirstTime = true;; isFirstTime = false) {
        const auto awayMs = ServeOnce(options, playback, replayed, isFirstTime, exitCode);
        if (!awayMs || (*awayMs != 0 && !WaitWithoutServing(*awayMs)))
            return exitCode;
    }
}

int Supervise(const SimOptions& options) {
    return TCSupervisor(options, nullptr).Run();
}

void Report(const SimOptions& options, const std::string& text) {
    if (!options.report.empty() && std::ofstream(options.report) << text << "\n" << std::flush)
        return;
    Complain(text);
}

Scenario Load(const std::string& file, std::string& text) {
    const TCJsonTree tree = TCJsonTree::Load(file);
    text = tree.Text();
    return ReadScenario(tree);
}

int Play(const SimOptions& options) {
    std::string text;
    const Scenario scenario = Load(options.scenario, text);
    if (options.role != nullptr) {
        TCProgress progress(scenario, options.progressDescriptor);
        const Playback playback{scenario, progress};
        return Serve(options, &playback, nullptr);
    }
    SupervisedScenario supervised(scenario, text, "scenario");
    const int exitCode = TCSupervisor(options, &supervised).Run();
    const std::string report = Judge(scenario, supervised.progress);
    if (report.empty())
        return exitCode;
    Report(options, report);
    return notMet;
}

int ServeRecorded(const SimOptions& options) {
    const TCRecordedCalls calls(MavixTraffic::ReadRecording(options.replay));
    TCProgress progress(calls.Counted(), options.progressDescriptor);
    const Replayed replayed{calls, progress, options.isReplayFast};
    return Serve(options, nullptr, &replayed);
}

// What a recording holds is for the serving processes; here it is checked and counted.
std::unique_ptr<SupervisedScenario> CheckRecording(const std::string& file) {
    const std::string text = MavixTraffic::ReadRecordingText(file);
    const TCRecordedCalls calls(MavixTraffic::ParseRecording(file, text));
    return std::make_unique<SupervisedScenario>(calls.Counted(), text, "replay");
}

int Replay(const SimOptions& options) {
    if (options.role != nullptr)
        return ServeRecorded(options);
    const std::unique_ptr<SupervisedScenario> supervised = CheckRecording(options.replay);
    const int exitCode = TCSupervisor(options, supervised.get()).Run();
    const std::string report = TellUnknownCalls(supervised->progress);
    if (report.empty())
        return exitCode;
    Report(options, report);
    return notRecorded;
}

} // namespace

int main(int argc, char** argv) {
    int exitCode = 0;
    const auto options = ParseSimOptions(argc, argv, exitCode);
    if (!options)
        return exitCode;
    try {
        if (!options->scenario.empty())
            return Play(*options);
        if (!options->replay.empty())
            return Replay(*options);
        return options->role != nullptr ? Serve(*options, nullptr, nullptr) : Supervise(*options);
    } catch (const MavixTraffic::RecordingError& error) {
        Report(*options, error.what());
        return refused;
    } catch (const JsonFault& fault) {
        Report(*options, fault.what());
        return refused;
    } catch (const std::exception& error) {
        Complain(error.what());
        return 1;
    }
}
