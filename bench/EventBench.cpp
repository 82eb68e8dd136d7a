#include "Events.h"
#include "GdbusPeer.h"
#include "Peer.h"

#include "IPCConnection_C.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>

// Events of a sender in a process of its own, received by this library and by a plain subscription of GDBus,
// both on the default main context.

using namespace MavixBench;
using namespace MavixApiLite;

extern char** environ;

namespace {

constexpr int ourId = 1;
constexpr int gdbusId = 2;

// What the receiving thread keeps of a round.
class TCRound final {
public:
    void Start(std::size_t count, std::size_t size) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_count = count;
        m_size = size;
        m_times.clear();
        m_times.reserve(count);
    }

    // On the thread of the default main context.
    void Take(const char* payload, std::size_t size) {
        std::int64_t sent = 0;
        if (size < sizeof sent) {
            return;
        }
        std::memcpy(&sent, payload, sizeof sent);
        const std::int64_t now = NowNs();
        if (m_times.empty()) {
            m_firstNs = now;
        }
        m_times.push_back(now - sent);
        if (m_times.size() == m_count) {
            m_isSizeRight = size == m_size;
            m_lastNs = now;
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_count = 0;
            m_ended.notify_all();
        }
    }

    bool Wait() {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_ended.wait_for(lock, std::chrono::seconds(60), [this] { return m_count == 0; }) &&
               m_isSizeRight;
    }

    double Seconds() const { return static_cast<double>(m_lastNs - m_firstNs) / 1e9; }
    std::vector<std::int64_t>& Times() { return m_times; }

private:
    std::mutex m_mutex;
    std::condition_variable m_ended;
    std::size_t m_count = 0;
    std::size_t m_size = 0;
    bool m_isSizeRight = false;
    std::int64_t m_firstNs = 0;
    std::int64_t m_lastNs = 0;
    std::vector<std::int64_t> m_times;
};

TCRound round;

void TakeOurs(int id, const char* payload, int size) {
    if (id == ourId) {
        round.Take(payload, static_cast<std::size_t>(size));
    }
}

void TakeGdbus(GDBusConnection* /*connection*/, const gchar* /*sender*/, const gchar* /*path*/,
               const gchar* /*interface*/, const gchar* /*member*/, GVariant* arguments, gpointer /*data*/) {
    const VariantHandle idText(g_variant_get_child_value(arguments, 0));
    const VariantHandle bytes(g_variant_get_child_value(arguments, 2));
    gsize size = 0;
    const void* data = g_variant_get_fixed_array(bytes.get(), &size, 1);
    if (std::stoi(g_variant_get_string(idText.get(), nullptr)) == gdbusId) {
        round.Take(static_cast<const char*>(data), size);
    }
}

ObjectHandle<GDBusConnection> Subscribe() {
    ObjectHandle<GDBusConnection> connection = ConnectGdbus();
    g_dbus_connection_signal_subscribe(connection.get(), nullptr, eventInterface, eventMember, eventObject,
                                       std::to_string(gdbusId).c_str(), G_DBUS_SIGNAL_FLAGS_NONE, TakeGdbus,
                                       nullptr, nullptr);
    // The rule is in force when the bus has answered a later request.
    const VariantHandle answer(g_dbus_connection_call_sync(
        connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
        nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
    return connection;
}

// Beside this program.
std::string SenderProgram() {
    const TextHandle self(g_file_read_link("/proc/self/exe", nullptr));
    const TextHandle folder(g_path_get_dirname(self.get()));
    return std::string(folder.get()) + "/bench-events";
}

void Receive(int id, std::size_t size, std::size_t count, int rate) {
    static const std::string sender = SenderProgram();
    std::string texts[] = {sender, std::to_string(id), std::to_string(count), std::to_string(size),
                           std::to_string(rate)};
    char* arguments[] = {texts[0].data(), texts[1].data(), texts[2].data(),
                         texts[3].data(), texts[4].data(), nullptr};
    round.Start(count, size);
    pid_t child = 0;
    if (posix_spawn(&child, sender.c_str(), nullptr, nullptr, arguments, environ) != 0) {
        Fail("the sender does not start");
    }
    const bool complete = round.Wait();
    waitpid(child, nullptr, 0);
    if (!complete) {
        Fail("events were lost");
    }
}

void Events(benchmark::State& state, int id, std::size_t size, std::size_t count, int rate) {
    for ([[maybe_unused]] auto step : state) {
        Receive(id, size, count, rate);
        state.SetIterationTime(round.Seconds());
    }
    AddPercentiles(state, round.Times());
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(count));
}

// As many as it takes: the time from the first to the last. At a rate: the median delay.
void EventsInTurns(benchmark::State& state, std::size_t size, std::size_t count, int rate) {
    const auto turnOf = [&](int id) {
        return [=] {
            TurnCost cost = CostOf([=] { Receive(id, size, count, rate); });
            std::vector<std::int64_t>& delays = round.Times();
            const auto middle = delays.begin() + static_cast<std::ptrdiff_t>(delays.size() / 2);
            std::nth_element(delays.begin(), middle, delays.end());
            cost.timeNs = rate == 0 ? round.Seconds() * 1e9 : static_cast<double>(*middle);
            return cost;
        };
    };
    TakeTurns(state, turnOf(ourId), turnOf(gdbusId));
}

struct Receiver {
    const char* name;
    int id;
};

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    const MainLoopHandle loop(g_main_loop_new(nullptr, FALSE));
    std::thread loopThread([&loop] { g_main_loop_run(loop.get()); });
    IPCConnection__SetCallbackFunction(IPC_MESSAGE_DATA, TakeOurs);
    IPCConnection__AddMatchRule(IPC_MESSAGE_DATA, ourId, 0, 0);
    // The rule is in force before a later call is answered.
    CreateOurs()->Call(std::vector<char>(64));
    const ObjectHandle<GDBusConnection> subscription = Subscribe();

    for (const Receiver& receiver : {Receiver{"ours", ourId}, Receiver{"gdbus", gdbusId}}) {
        for (const std::size_t size : {64U, 4096U}) {
            const std::string place = "/" + std::to_string(size) + "/" + receiver.name;
            benchmark::RegisterBenchmark(("events" + place).c_str(), Events, receiver.id, size, 20000, 0)
                ->Iterations(1)
                ->MeasureProcessCPUTime()
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
            benchmark::RegisterBenchmark(("paced" + place).c_str(), Events, receiver.id, size, 1000, 1000)
                ->Iterations(1)
                ->MeasureProcessCPUTime()
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
        }
    }
    for (const std::size_t size : {64U, 4096U}) {
        const std::string place = "/" + std::to_string(size) + "/ours";
        benchmark::RegisterBenchmark(("turns-events" + place).c_str(), EventsInTurns, size, 2000, 0)
            ->Iterations(5);
        benchmark::RegisterBenchmark(("turns-paced" + place).c_str(), EventsInTurns, size, 250, 1000)
            ->Iterations(4);
    }
    benchmark::RunSpecifiedBenchmarks();
    g_main_loop_quit(loop.get());
    loopThread.join();
    return 0;
}
