#include "BusLink.h"
#include "Commands.h"
#include "Histogram.h"
#include "LibraryLog.h"
#include "Output.h"
#include "Payload.h"
#include "Service.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fmt/format.h>
#include <mavix-api/IpcClientInstance.h>
#include <memory>
#include <system_error>
#include <thread>

namespace MavixControl {

namespace {

using Clock = std::chrono::steady_clock;
using MavixApiLite::TCIpcClientInstance;
using MavixApiLite::TCMessageBuffer;

// What a thread has measured; read by others only when it has ended, but for the number of its calls.
struct Worker {
    TCHistogram times;
    std::uint64_t failures = 0;
    std::string firstFailure;
    std::atomic<std::uint64_t> calls{0};
    std::thread thread;
};

// One run of the command. Every thread calls one time after the other; the main thread shows how far it is.
class TCBenchCommand final {
public:
    explicit TCBenchCommand(const TSSettings& settings) : m_settings(settings) {}
    TCBenchCommand(const TCBenchCommand&) = delete;
    TCBenchCommand& operator=(const TCBenchCommand&) = delete;
    ~TCBenchCommand() { m_Stop(); }

    void AddOptions(CLI::App& command);
    EExitCode Run();

private:
    void m_Start(Clock::time_point end);
    void m_Stop();
    void m_Call(Worker& worker, Clock::time_point end) const;
    void m_ShowProgress(Clock::time_point start, Clock::time_point end, const TCBusLink& link);
    void m_Print(const TCHistogram& times, std::uint64_t failures, double seconds) const;
    void m_PrintJson(const TCHistogram& times, std::uint64_t failures, double seconds) const;

    const TSSettings& m_settings;
    std::string m_interface;
    std::int16_t m_code = 0;
    std::size_t m_size = 0;
    unsigned int m_threads = 1;
    double m_seconds = 5;
    double m_waitSeconds = 0;
    std::string m_bus;
    bool m_isBusGone = false;
    std::atomic<bool> m_isStopped{false};
    std::vector<std::unique_ptr<Worker>> m_workers;
};

void TCBenchCommand::AddOptions(CLI::App& command) {
    constexpr std::int64_t mostThreads = 1024;
    AddInterface(command, m_interface);
    AddCode(command, m_code)->required();
    command.add_option("--size", m_size, "Bytes in each call; 0 unless given")
        ->type_name("N")
        ->transform(Number(0, largestPayload));
    command.add_option("--threads", m_threads, "Call from so many threads at once; 1 unless given")
        ->type_name("N")
        ->transform(Number(1, mostThreads));
    command.add_option("--seconds", m_seconds, "Go on so long; 5 unless given")
        ->type_name("SECONDS")
        ->check(Seconds());
    command.add_option("--wait", m_waitSeconds, "Wait so long for the service to appear; 0 unless given")
        ->type_name("SECONDS")
        ->check(Seconds());
}

void TCBenchCommand::m_Start(Clock::time_point end) {
    for (unsigned int i = 0; i < m_threads; ++i) {
        Worker& worker = *m_workers.emplace_back(std::make_unique<Worker>());
        try {
            worker.thread = std::thread([this, &worker, end] { m_Call(worker, end); });
        } catch (const std::system_error& error) {
            throw TCFailure(Refused, fmt::format("--threads: thread {} of {} cannot be started: {}", i + 1,
                                                 m_threads, error.code().message()));
        }
    }
}

void TCBenchCommand::m_Stop() {
    m_isStopped = true;
    for (const auto& worker : m_workers)
        if (worker->thread.joinable())
            worker->thread.join();
}

void TCBenchCommand::m_Call(Worker& worker, Clock::time_point end) const {
    const auto client = TCIpcClientInstance::GetInstance();
    TCMessageBuffer request;
    request.Resize(static_cast<unsigned int>(m_size));
    TCMessageBuffer reply;
    Clock::time_point before = Clock::now();
    while (before < end && !m_isStopped) {
        const TCErrorLines lines;
        reply.Clean();
        const bool succeeded = client->Call(m_interface, m_code, request, reply);
        const Clock::time_point after = Clock::now();
        worker.times.Add(static_cast<std::uint64_t>(std::chrono::nanoseconds(after - before).count()));
        worker.calls.fetch_add(1, std::memory_order_relaxed);
        if (!succeeded && worker.failures++ == 0)
            worker.firstFailure = lines.Describe();
        before = Clock::now();
    }
}

void TCBenchCommand::m_ShowProgress(Clock::time_point start, Clock::time_point end, const TCBusLink& link) {
    constexpr double pauseSeconds = 0.1;
    constexpr int width = 30;
    const std::chrono::duration<double> all = end - start;
    const bool isWatched = IsTerminal(stderr) && !m_settings.json;
    for (Clock::time_point now = Clock::now(); now < end; now = Clock::now()) {
        std::uint64_t calls = 0;
        for (const auto& worker : m_workers)
            calls += worker->calls.load(std::memory_order_relaxed);
        const std::chrono::duration<double> done = now - start;
        if (isWatched) {
            const int filled = static_cast<int>(done / all * width);
            fmt::print(stderr, "\r[{:=<{}}{: <{}}] {:.1f} of {:.1f} s, {} calls", "", filled, "",
                       width - filled, done.count(), all.count(), calls);
        }
        const std::chrono::duration<double> left = end - now;
        m_isBusGone = !link.Wait(std::min(pauseSeconds, left.count()));
        if (m_isBusGone)
            break;
    }
    if (isWatched)
        fmt::print(stderr, "\r\033[K");
}

EExitCode TCBenchCommand::Run() {
    m_bus = ServiceConfiguration().MethodBusName(m_interface, m_code);
    const TCBusLink link;
    link.RequireOwner(m_bus, m_waitSeconds);
    // Connecting, and finding the service, are not measured.
    TCMessageBuffer nothing;
    TCMessageBuffer reply;
    {
        const TCErrorLines lines;
        if (!TCIpcClientInstance::GetInstance()->Call(m_interface, m_code, nothing, reply))
            throw TCFailure(Refused, fmt::format("{} {} failed: {}", m_interface, m_code, lines.Describe()));
    }
    const Clock::time_point start = Clock::now();
    const Clock::time_point end =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(m_seconds));
    m_Start(end);
    m_ShowProgress(start, end, link);
    m_Stop();
    TCHistogram times;
    std::uint64_t failures = 0;
    std::string firstFailure;
    for (const auto& worker : m_workers) {
        times.Add(worker->times);
        failures += worker->failures;
        firstFailure = firstFailure.empty() ? worker->firstFailure : firstFailure;
    }
    const std::chrono::duration<double> took = Clock::now() - start;
    if (m_settings.json)
        m_PrintJson(times, failures, took.count());
    else
        m_Print(times, failures, took.count());
    if (failures > 0)
        PrintError(fmt::format("{} of {} calls failed, first: {}", failures, times.Count(), firstFailure));
    if (m_isBusGone)
        throw TCFailure(NoService, busHasGone);
    return failures == 0 ? Done : Refused;
}

constexpr struct {
    const char* name;
    double share;
} quantiles[] = {{"median", 0.5}, {"90 %", 0.9}, {"99 %", 0.99}, {"99.9 %", 0.999}};

double Microseconds(double nanoseconds) {
    return nanoseconds / 1000;
}

double Microseconds(std::uint64_t nanoseconds) {
    return Microseconds(static_cast<double>(nanoseconds));
}

void TCBenchCommand::m_Print(const TCHistogram& times, std::uint64_t failures, double seconds) const {
    constexpr std::uint64_t width = 40;
    const double calls = static_cast<double>(times.Count());
    PrintLine(fmt::format("{} {} at {}, {} bytes, {} threads, {:.2f} s", m_interface, m_code, m_bus, m_size,
                          m_threads, seconds));
    PrintLine(fmt::format("calls     {}, {} failed", times.Count(), failures));
    PrintLine(fmt::format("rate      {:.0f} calls a second, {:.2f} MB/s each way", calls / seconds,
                          calls * static_cast<double>(m_size) / seconds / 1e6));
    PrintLine(fmt::format("least     {:.1f} us", Microseconds(times.LeastNs())));
    for (const auto& quantile : quantiles)
        PrintLine(
            fmt::format("{:<8}  {:.1f} us", quantile.name, Microseconds(times.QuantileNs(quantile.share))));
    PrintLine(fmt::format("most      {:.1f} us", Microseconds(times.MostNs())));
    const std::vector<TCHistogram::Bucket> octaves = times.Octaves();
    std::uint64_t fullest = 1;
    for (const TCHistogram::Bucket& bucket : octaves)
        fullest = std::max(fullest, bucket.count);
    PrintLine("    up to us      calls");
    for (const TCHistogram::Bucket& bucket : octaves) {
        const std::string bar(bucket.count * width / fullest, '#');
        PrintLine(fmt::format("{:>12.1f} {:>10}{}{}", Microseconds(bucket.toNs), bucket.count,
                              bar.empty() ? "" : "  ", bar));
    }
}

void TCBenchCommand::m_PrintJson(const TCHistogram& times, std::uint64_t failures, double seconds) const {
    Json object{{"interface", m_interface},
                {"code", m_code},
                {"bus", m_bus},
                {"size", m_size},
                {"threads", m_threads},
                {"seconds", seconds},
                {"calls", times.Count()},
                {"failed", failures},
                {"callsPerSecond", static_cast<double>(times.Count()) / seconds}};
    Json latency{{"least", Microseconds(times.LeastNs())}, {"mean", Microseconds(times.MeanNs())}};
    for (const auto& quantile : quantiles)
        latency[quantile.name == quantiles[0].name ? "median" : fmt::format("p{:g}", quantile.share * 100)] =
            Microseconds(times.QuantileNs(quantile.share));
    latency["most"] = Microseconds(times.MostNs());
    object["microseconds"] = latency;
    Json histogram = Json::array();
    for (const TCHistogram::Bucket& bucket : times.Octaves())
        histogram.push_back({{"from", Microseconds(bucket.fromNs)},
                             {"to", Microseconds(bucket.toNs)},
                             {"calls", bucket.count}});
    object["histogram"] = histogram;
    PrintJson(object);
}

} // namespace

void AddBenchCommand(CLI::App& application, TSSettings& settings, int& exitCode) {
    CLI::App* command =
        AddCommand(application, settings, "bench", "Measure how long calls take",
                   "mavixctl bench com.norvale.IAVControl 1 --size 1024 --threads 4 --seconds 10");
    const auto bench = std::make_shared<TCBenchCommand>(settings);
    bench->AddOptions(*command);
    command->callback([bench, &exitCode] { exitCode = bench->Run(); });
}

} // namespace MavixControl
