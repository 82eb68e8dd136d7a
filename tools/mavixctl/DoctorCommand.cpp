#include "BusLimits.h"
#include "BusLink.h"
#include "Commands.h"
#include "Output.h"
#include "PeerCache.h"
#include "ServiceOwner.h"

#include <Platform.h>
#include <mavix-api/IPCConnection_C.h>

#include <algorithm>
#include <boost/version.hpp>
#include <dlfcn.h>
#include <filesystem>
#include <fmt/format.h>
#include <sys/stat.h>

namespace MavixControl {

namespace {

namespace fs = std::filesystem;

const char* const featureKey = "com.norvale/featureconf/broadcasting.mavix_supported";
constexpr mode_t permissions = 07777;
constexpr mode_t lockMode = 0777;
constexpr mode_t segmentMode = 0644;
constexpr off_t segmentSize = 4096;

// One look at the machine after the other; each finding says what it means and, if something is wrong, what
// to do. Owner: the command; one thread.
class TCDoctor final {
public:
    explicit TCDoctor(bool asJson) : m_asJson(asJson) {}

    int Run() {
        m_LookAtVersions();
        m_LookAtFeature();
        m_LookAtMarkers();
        m_LookAtCaches();
        if (m_LookAtBus()) {
            m_LookAtOwners();
            m_LookAtLimits();
        }
        return m_hasFailed ? Refused : Done;
    }

private:
    enum class State { Good, Note, Bad };

    void m_Tell(State state, const std::string& check, const std::string& text,
                const std::string& advice = "") {
        m_hasFailed = m_hasFailed || state == State::Bad;
        const char* word = state == State::Good ? "ok" : state == State::Note ? "note" : "failed";
        if (m_asJson) {
            PrintJson(Json{{"check", check},
                           {"state", word},
                           {"text", text},
                           {"advice", advice.empty() ? Json(nullptr) : Json(advice)}});
            return;
        }
        const EColour colour = state == State::Bad ? EColour::Bad : EColour::Good;
        PrintLine(fmt::format("{} {}: {}", Paint(colour, fmt::format("{:<6}", word)),
                              Paint(EColour::Name, Printable(check)), Printable(text)));
        if (!advice.empty())
            PrintLine(fmt::format("       {}", Printable(advice)));
    }

    void m_LookAtVersions() {
        Dl_info library{};
        std::string path = "unknown";
        if (::dladdr(reinterpret_cast<void*>(&IPCConnection__Create), &library) != 0 &&
            library.dli_fname != nullptr)
            path = library.dli_fname;
        std::error_code failed;
        const fs::path real = fs::canonical(path, failed);
        const std::string file = failed ? path : real.string();
        const std::string expected = std::string("libmavix-api.so.") + MAVIX_VERSION;
        const bool isOurs = fs::path(file).filename() == expected;
        m_Tell(isOurs ? State::Good : State::Note, "library",
               fmt::format("mavixctl " MAVIX_VERSION " uses {}", file),
               isOurs ? "" : "This is not the library that mavixctl was made with, " + expected + ".");
        std::string boost = BOOST_LIB_VERSION;
        std::replace(boost.begin(), boost.end(), '_', '.');
        m_Tell(State::Good, "boost",
               fmt::format("caches are laid out by Boost {}, which has to be that of all who share them",
                           boost));
    }

    void m_LookAtFeature() {
        bool isSupported = false;
        if (system_info_get_custom_bool(featureKey, &isSupported) != 0)
            m_Tell(State::Good, "feature",
                   "the flag is not set, so the library takes the service to be supported");
        else if (isSupported)
            m_Tell(State::Good, "feature", "the device supports the service");
        else
            m_Tell(State::Bad, "feature", "the device does not support the service: every call fails",
                   fmt::format("Set {} to true in the key file of the platform, or remove it.", featureKey));
    }

    void m_LookAtMarkers() {
        const auto exists = [](const char* path) { return ::access(path, F_OK) == 0; };
        m_Tell(State::Good, "/etc/debug",
               exists("/etc/debug")
                   ? "is there: calls of 1 s and more are logged, some waits take twice as long"
                   : "is not there: slow calls are not logged");
        m_Tell(State::Good, "/etc/perf",
               exists("/etc/perf") ? "is there, for programs that ask; the library does not"
                                   : "is not there");
        m_Tell(State::Good, "/etc/release",
               exists("/etc/release") ? "is there: a failed assertion is logged and the program goes on"
                                      : "is not there: a failed assertion ends the program");
    }

    void m_LookAtCaches() {
        const std::string suffix = "_cache_lock";
        std::vector<std::string> names;
        std::error_code ignored;
        for (const fs::directory_entry& entry : fs::directory_iterator("/run", ignored)) {
            const std::string file = entry.path().filename().string();
            if (file.size() > suffix.size() &&
                file.compare(file.size() - suffix.size(), suffix.size(), suffix) == 0)
                names.push_back(file.substr(0, file.size() - suffix.size()));
        }
        std::sort(names.begin(), names.end());
        if (names.empty())
            m_Tell(State::Good, "caches",
                   "no lock files in /run: no cache has been used since the machine started");
        for (const std::string& name : names) {
            m_LookAtLock(name, fmt::format("/run/{}{}", name, suffix));
            m_LookAtSegment(name);
        }
    }

    void m_LookAtLock(const std::string& name, const std::string& path) {
        const std::string check = "cache " + name + ", lock file";
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0)
            return;
        const mode_t mode = status.st_mode & permissions;
        const std::string found =
            fmt::format("{} has mode {:04o} and owner {}:{}", path, mode, status.st_uid, status.st_gid);
        if (S_ISREG(status.st_mode) && mode == lockMode && status.st_uid == MAVIX_CACHE_OWNER_UID &&
            status.st_gid == MAVIX_CACHE_OWNER_GID)
            return m_Tell(State::Good, check, found);
        m_Tell(State::Bad, check,
               fmt::format("{}, not {:04o} and {}:{}: who is not its owner cannot use the cache", found,
                           lockMode, MAVIX_CACHE_OWNER_UID, MAVIX_CACHE_OWNER_GID),
               fmt::format("As root: chmod {:04o} {} && chown {}:{} {}", lockMode, path,
                           MAVIX_CACHE_OWNER_UID, MAVIX_CACHE_OWNER_GID, path));
    }

    void m_LookAtSegment(const std::string& name) {
        const std::string check = "cache " + name + ", shared memory";
        const std::string path = "/dev/shm/" + name;
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0)
            return m_Tell(State::Note, check, path + " is not there: nobody has opened the cache for writing",
                          "Readers find nothing until a writer starts.");
        const mode_t mode = status.st_mode & permissions;
        const std::string found = fmt::format("{} has {} bytes and mode {:04o}", path, status.st_size, mode);
        if (!S_ISREG(status.st_mode) || status.st_size != segmentSize)
            return m_Tell(State::Bad, check, fmt::format("{}, not {} bytes: no cache", found, segmentSize),
                          "The next writer makes a new, empty cache of it.");
        if (mode != segmentMode)
            return m_Tell(State::Bad, check, fmt::format("{}, not {:04o}", found, segmentMode),
                          fmt::format("As its owner: chmod {:04o} {}", segmentMode, path));
        m_Tell(State::Good, check, found);
    }

    bool m_LookAtBus() {
        try {
            const TCBusLink link;
            m_bus = OpenSystemBus();
            const char* address = nullptr;
            m_Tell(
                State::Good, "bus",
                fmt::format("{} answers", sd_bus_get_address(m_bus.get(), &address) >= 0 ? address : "it"));
            return true;
        } catch (const std::exception& error) {
            m_Tell(State::Bad, "bus", error.what(),
                   "Start the system bus, or set DBUS_SYSTEM_BUS_ADDRESS. mavix-sandbox gives a command a "
                   "bus of "
                   "its own.");
            return false;
        }
    }

    void m_LookAtOwners() {
        for (const std::string& name : ServiceNames()) {
            const TSServiceOwner owner = FindOwner(m_bus.get(), name);
            const std::string process = ServiceProcess(name);
            if (owner.uniqueName.empty())
                m_Tell(State::Bad, name, "has no owner: calls wait for one, for 25 s each",
                       fmt::format("Start {}. mavix-sandbox gives a command a stand-in for it.", process));
            else if (owner.process.name != process)
                m_Tell(State::Note, name,
                       fmt::format("belongs to {}[{}], not to {}", owner.process.name, owner.process.pid,
                                   process),
                       fmt::format("Its callers lend their scheduling to {}, which does not serve them.",
                                   process));
            else
                m_Tell(State::Good, name, fmt::format("belongs to {}[{}]", process, owner.process.pid));
        }
    }

    void m_LookAtLimits() {
        const std::size_t usualRules = 512;
        const std::size_t usualReplies = 128;
        m_TellLimit(
            "match rules", FindMatchRuleLimit(), usualRules,
            "An event type, id and handle takes one. The bus refuses further ones, and their events do not "
            "come, although IPCConnection__AddMatchRule has accepted them for sending.");
        m_TellLimit(
            "pending replies", FindPendingReplyLimit(), usualReplies,
            "A thread that waits in IPCConnection__Call takes one. The bus refuses further calls at once, "
            "with org.freedesktop.DBus.Error.LimitsExceeded, and they fail.");
    }

    void m_TellLimit(const char* check, const TSBusLimit& limit, std::size_t usual,
                     const std::string& beyond) {
        if (limit.isForbidden)
            return m_Tell(
                State::Note, check,
                fmt::format("the bus does not let us try; a system bus allows {} a connection", usual),
                beyond);
        if (!limit.value)
            return m_Tell(State::Good, check,
                          fmt::format("the bus allows at least {} a connection", mostTried), beyond);
        m_Tell(*limit.value < usual ? State::Note : State::Good, check,
               fmt::format("the bus allows {} a connection", *limit.value), beyond);
    }

    const bool m_asJson;
    bool m_hasFailed = false;
    MavixSim::BusHandle m_bus;
};

} // namespace

void AddDoctorCommand(CLI::App& application, TSSettings& settings, int& exitCode) {
    CLI::App* command = AddCommand(application, settings, "doctor",
                                   "Look for what keeps the library from working here", "mavixctl doctor");
    command->callback([&settings, &exitCode] { exitCode = TCDoctor(settings.json).Run(); });
}

} // namespace MavixControl
