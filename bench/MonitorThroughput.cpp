#include "ChildProcess.h"
#include "TempFolder.h"

#include "sim/Handles.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <sys/resource.h>
#include <thread>

// Whether mavixctl monitor keeps up: 10,000 messages a second pass over the bus, and each has to be printed,
// in its order, and soon. Then as many as the bus takes. Run it in a sandbox:
//     mavix-sandbox --sim-option=--no-records -- monitor-throughput [SECONDS]

namespace {

using MavixSim::Check;
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr std::uint32_t rate = 10000;
constexpr std::uint32_t slicesASecond = 20;
// From the last message to the end of the monitor, which has printed all of them then.
constexpr double longestLag = 1.0;
// Fewer than a connection may wait for.
constexpr std::uint32_t mostPending = 100;

std::string Beside(const char* name) {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

double ChildrensSeconds() {
    rusage used{};
    ::getrusage(RUSAGE_CHILDREN, &used);
    return static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) +
           static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec) / 1e6;
}

MavixSim::MessageHandle NewCall(sd_bus* bus, const char* destination, const char* path, const char* interface,
                                const char* member) {
    sd_bus_message* made = nullptr;
    Check(sd_bus_message_new_method_call(bus, &made, destination, path, interface, member), "new call");
    return MavixSim::MessageHandle(made);
}

void EmitBurst(sd_bus* bus, std::uint32_t first, std::uint32_t count) {
    const auto call =
        NewCall(bus, "com.norvale.Sim.Daemon", "/com/norvale/Sim", "com.norvale.Sim", "EmitBurst");
    Check(sd_bus_message_append(call.get(), "siuuuuus", "Data", 7, 0u, 0u, first, count, 32u, ""), "append");
    Check(sd_bus_call(bus, call.get(), 60'000'000, nullptr, nullptr), "emit events");
}

// Calls that are answered; each is two messages.
class TCCaller final {
public:
    explicit TCCaller(sd_bus* bus) : m_bus(bus) {}

    void CallMany(std::uint32_t first, std::uint32_t count) {
        for (std::uint32_t i = 0; i < count; ++i) {
            while (m_pending >= mostPending)
                m_Process();
            const std::uint32_t number = first + i;
            const auto call = NewCall(m_bus, "com.norvale.MavixAPI", "/com/norvale/Object",
                                      "com.norvale.IAVControl", "MethodCall");
            Check(sd_bus_message_append(call.get(), "iii", 1, 4, static_cast<int>(::getpid())), "append");
            Check(sd_bus_message_append_array(call.get(), 'y', &number, sizeof number), "append");
            Check(sd_bus_call_async(m_bus, nullptr, call.get(), m_OnReply, this, 0), "call");
            ++m_pending;
        }
        while (m_pending > 0)
            m_Process();
    }

private:
    static int m_OnReply(sd_bus_message* reply, void* self, sd_bus_error*) {
        if (sd_bus_message_is_method_error(reply, nullptr) != 0)
            throw std::runtime_error("a call failed");
        --static_cast<TCCaller*>(self)->m_pending;
        return 0;
    }

    void m_Process() {
        if (Check(sd_bus_process(m_bus, nullptr), "process") == 0)
            Check(sd_bus_wait(m_bus, UINT64_MAX), "wait");
    }

    sd_bus* m_bus;
    std::uint32_t m_pending = 0;
};

struct Row {
    const char* name;
    bool isCalls;
    bool isPaced;
    bool asJson;
    bool isRecorded;
};

std::uint32_t NumberOf(const nlohmann::json& object) {
    const std::string hex = object.at("payload").get<std::string>().substr(0, 8);
    std::uint8_t bytes[4];
    for (std::size_t i = 0; i < sizeof bytes; ++i)
        bytes[i] = static_cast<std::uint8_t>(std::stoul(hex.substr(2 * i, 2), nullptr, 16));
    std::uint32_t number = 0;
    std::memcpy(&number, bytes, sizeof number);
    return number;
}

// How many messages came in their order. Replies stand behind their calls, but others may stand between.
std::uint32_t CountJson(const std::string& path, bool isCalls) {
    std::ifstream file(path);
    std::uint32_t next = 0;
    std::uint32_t nextReply = 0;
    for (std::string line; std::getline(file, line);) {
        const nlohmann::json object = nlohmann::json::parse(line);
        if (object.at("deviation") != nullptr)
            return next + nextReply;
        std::uint32_t& expected = object.at("kind") == "reply" ? nextReply : next;
        if (NumberOf(object) != expected)
            return next + nextReply;
        ++expected;
    }
    return isCalls ? next + nextReply : next;
}

std::uint32_t CountText(const std::string& path) {
    std::ifstream file(path);
    std::uint32_t count = 0;
    for (std::string line; std::getline(file, line);)
        count += line.find(" event Data id 7, handle 0") != std::string::npos ? 1u : 0u;
    return count;
}

bool Measure(sd_bus* bus, const Row& row, double seconds) {
    const MavixTools::TCTempFolder folder;
    const std::uint32_t each = row.isCalls ? 2 : 1;
    const auto slices = static_cast<std::uint32_t>(seconds * slicesASecond);
    const std::uint32_t aSlice = rate / slicesASecond / each;
    const std::uint32_t all = slices * aSlice * each;

    MavixTools::ChildOptions options;
    options.program = "sh";
    options.arguments = {"-c",
                         "exec \"$@\" >\"$0/out\" 2>\"$0/err\"",
                         folder.Path(),
                         Beside("mavixctl"),
                         "monitor",
                         "--count",
                         std::to_string(all)};
    if (row.asJson)
        options.arguments.emplace_back("--json");
    if (row.isRecorded)
        options.arguments.push_back("--record=" + folder.Path() + "/recording");
    const double cpuBefore = ChildrensSeconds();
    MavixTools::TCChildProcess monitor(options);
    while (ReadFile(folder.Path() + "/err").find("monitoring\n") == std::string::npos)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));

    TCCaller caller(bus);
    const auto start = Clock::now();
    for (std::uint32_t slice = 0; slice < slices; ++slice) {
        if (row.isCalls)
            caller.CallMany(slice * aSlice, aSlice);
        else
            EmitBurst(bus, slice * aSlice, aSlice);
        if (row.isPaced)
            std::this_thread::sleep_until(start + (slice + 1) * Seconds(1.0 / slicesASecond));
    }
    const double sent = Seconds(Clock::now() - start).count();
    const auto status = monitor.Wait(std::chrono::seconds(60));
    const double lag = Seconds(Clock::now() - start).count() - sent;
    if (!status)
        monitor.End();
    const std::string out = folder.Path() + "/out";
    const std::uint32_t printed = row.asJson ? CountJson(out, row.isCalls) : CountText(out);
    const double sentRate = all / sent;
    const double cpu = ChildrensSeconds() - cpuBefore;
    // The machine that sends must have reached the rate for the monitor to have shown anything.
    const bool isFastEnough = !row.isPaced || (sentRate > 0.98 * rate && lag < longestLag);
    const bool isWhole = status && MavixTools::ShellStatus(*status) == 0 && printed == all;
    std::printf("%-28s %7u messages, %6.0f a second, printed %u, lag %.3f s, %.1f us of CPU each: %s\n",
                row.name, all, sentRate, printed, lag, cpu / all * 1e6,
                !isWhole       ? "LOST"
                : isFastEnough ? "ok"
                               : "TOO SLOW");
    std::fflush(stdout);
    return isWhole && isFastEnough;
}

} // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::stod(argv[1]) : 5;
    const Row rows[] = {
        {"events, JSON", false, true, true, false},
        {"events, text", false, true, false, false},
        {"events, JSON, recorded", false, true, true, true},
        {"calls and replies, JSON", true, true, true, false},
        {"events, JSON, unpaced", false, false, true, false},
        {"calls, JSON, unpaced", true, false, true, true},
    };
    try {
        sd_bus* opened = nullptr;
        Check(sd_bus_open_system(&opened), "connect");
        const MavixSim::BusHandle bus(opened);
        bool isGood = true;
        for (const Row& row : rows)
            isGood = Measure(bus.get(), row, seconds) && isGood;
        return isGood ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "monitor-throughput: %s\n", error.what());
        return 2;
    }
}
