#include "CacheCommand.h"
#include "CachePage.h"
#include "Output.h"
#include "Payload.h"

#include <fmt/format.h>

namespace MavixControl {

namespace {

using EState = TCCachePage::EState;

const char* Meaning(EState state) {
    switch (state) {
    case EState::Damaged:
        return "damaged: the next write begins with an empty cache";
    case EState::Unwritten:
        return "unwritten: readers get nothing before the first write";
    case EState::Interrupted:
        return "interrupted: readers get nothing, and the next write begins with an empty cache";
    default:
        return Name(state);
    }
}

EExitCode List(const TSSettings& settings, const std::string& cacheName, const TCPayloadView& view) {
    const TCCachePage page(cacheName);
    if (!page.Object().IsThere())
        throw TCFailure(Refused, fmt::format("no cache {}: {}: {}", cacheName, page.Object().path,
                                             page.Object().complaint));
    bool isDecoded = true;
    if (settings.json) {
        Json values = Json::array();
        for (const TSCacheValue& value : page.Values()) {
            Json object{{"key", value.key}};
            isDecoded = view.AddTo(object, value.bytes) && isDecoded;
            values.push_back(object);
        }
        PrintJson({{"cache", cacheName},
                   {"state", Name(page.State())},
                   {"free", page.FreeBytes()},
                   {"values", values}});
    } else {
        PrintLine(
            fmt::format("state   {}", Paint(page.State() == EState::Complete ? EColour::Good : EColour::Bad,
                                            Meaning(page.State()))));
        PrintLine(fmt::format("free    {} of {} bytes", page.FreeBytes(), page.Object().size));
        PrintLine(fmt::format("values  {}", page.Values().size()));
        for (const TSCacheValue& value : page.Values()) {
            PrintLine(
                fmt::format("{}  {} bytes", Paint(EColour::Name, Printable(value.key)), value.bytes.size()));
            isDecoded = view.Print(value.bytes, "  ") && isDecoded;
        }
    }
    return isDecoded && page.State() != EState::Damaged ? Done : Refused;
}

struct Check {
    const char* name;
    bool isGood;
    std::string text;
};

Check CheckObject(const TSCacheFile& object) {
    if (!object.IsThere())
        return {"memory", false, fmt::format("{}: {}", object.path, object.complaint)};
    return {
        "memory", object.size == cachePageSize,
        fmt::format("{}, {} bytes of {}, mode {:04o}", object.path, object.size, cachePageSize, object.mode)};
}

Check CheckLockFile(const TSCacheFile& file) {
    constexpr unsigned int lockMode = 0777;
    if (!file.IsThere())
        return {"lock file", false, fmt::format("{}: {}", file.path, file.complaint)};
    const bool isGood =
        file.mode == lockMode && file.user == MAVIX_CACHE_OWNER_UID && file.group == MAVIX_CACHE_OWNER_GID;
    return {"lock file", isGood,
            fmt::format("{}, mode {:04o}, owner {}:{}{}", file.path, file.mode, file.user, file.group,
                        isGood ? ""
                               : fmt::format("; {:04o} and {}:{} are expected", lockMode,
                                             MAVIX_CACHE_OWNER_UID, MAVIX_CACHE_OWNER_GID))};
}

EExitCode Verify(const TSSettings& settings, const std::string& cacheName) {
    const TCCachePage page(cacheName);
    std::vector<Check> checks{CheckLockFile(page.LockFile()), CheckObject(page.Object())};
    if (page.Object().IsThere()) {
        const bool hasHeader = page.HasHeader();
        checks.push_back(
            {"segment", hasHeader,
             hasHeader ? "begins like one that fills the page" : "none: the next write makes it"});
        if (hasHeader) {
            const bool isSound = page.IsSound();
            checks.push_back(
                {"structure", isSound,
                 isSound ? fmt::format("blocks and names agree, {} values, {} bytes free",
                                       page.Values().size(), page.FreeBytes())
                         : "blocks and names do not agree: the next write begins with an empty cache"});
        }
        const EState state = page.State();
        if (state != EState::Damaged)
            checks.push_back({"last write", state == EState::Complete, Meaning(state)});
    }
    bool isGood = true;
    Json list = Json::array();
    for (const Check& check : checks) {
        isGood = isGood && check.isGood;
        list.push_back({{"check", check.name}, {"ok", check.isGood}, {"text", check.text}});
        if (!settings.json)
            PrintLine(fmt::format("{}  {:<10}  {}",
                                  check.isGood ? Paint(EColour::Good, "ok ") : Paint(EColour::Bad, "bad"),
                                  check.name, check.text));
    }
    if (settings.json)
        PrintJson({{"cache", cacheName}, {"ok", isGood}, {"checks", list}});
    return isGood ? Done : Refused;
}

struct InspectionOptions {
    std::string cacheName;
    TCPayloadView view;
};

} // namespace

void AddCacheInspection(CLI::App& cache, TSSettings& settings, int& exitCode) {
    const auto options = std::make_shared<InspectionOptions>();
    CLI::App* list = AddCacheOperation(
        cache, settings, "list", "Print all values of a cache; changes nothing", "demo", options->cacheName);
    options->view.AddOptions(*list);
    list->callback(
        [options, &settings, &exitCode] { exitCode = List(settings, options->cacheName, options->view); });
    CLI::App* verify =
        AddCacheOperation(cache, settings, "verify", "Check a cache's lock file and memory; changes nothing",
                          "demo", options->cacheName);
    verify->callback([options, &settings, &exitCode] { exitCode = Verify(settings, options->cacheName); });
}

} // namespace MavixControl
