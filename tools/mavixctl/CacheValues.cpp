#include "CacheCommand.h"
#include "CachePage.h"
#include "LibraryLog.h"
#include "Output.h"
#include "Payload.h"

#include <algorithm>
#include <fmt/format.h>
#include <limits>
#include <mavix-api/IPCCache_C.h>
#include <memory>

namespace MavixControl {

namespace {

struct CacheDeleter {
    void operator()(void* cache) const { IPCCache_Destroy(cache); }
};
using CacheHandle = std::unique_ptr<void, CacheDeleter>;

struct ValueOptions {
    std::string cacheName;
    std::string key;
    unsigned long id = std::numeric_limits<unsigned long>::max();
    std::vector<std::string> values;
    bool replaces = false;
    TCPayloadView view;
};

std::string Address(const ValueOptions& options) {
    constexpr unsigned long half = 0xFFFF;
    return options.id == std::numeric_limits<unsigned long>::max()
               ? options.key
               : fmt::format("{}{}:{}", options.key, (options.id >> 16U) & half, options.id & half);
}

// The library makes the lock file of a cache that it opens, so a cache that is not there is not opened.
void RequireCache(const ValueOptions& options) {
    const TCCachePage page(options.cacheName);
    if (!page.Object().IsThere())
        throw TCFailure(Refused, fmt::format("no cache {}: {}: {}", options.cacheName, page.Object().path,
                                             page.Object().complaint));
}

bool Read(const CacheHandle& cache, const ValueOptions& options, std::string& value) {
    char* bytes = nullptr;
    std::size_t size = 0;
    if (!IPCCache_GetData(cache.get(), options.key.c_str(), options.id, &bytes, &size))
        return false;
    value.assign(bytes, size);
    TCFreeMemory(bytes);
    return true;
}

EExitCode Report(const TSSettings& settings, const ValueOptions& options, const char* operation,
                 const std::string& complaint, const Json& more = Json::object()) {
    const bool isDone = complaint.empty();
    if (settings.json) {
        Json object{{"cache", options.cacheName},
                    {"key", Address(options)},
                    {"operation", operation},
                    {"ok", isDone}};
        object.update(more);
        PrintJson(object);
    } else if (isDone) {
        PrintLine(
            fmt::format("{} {}: {}", operation, Printable(Address(options)), Paint(EColour::Good, "done")));
    }
    if (!isDone)
        PrintError(fmt::format("{} {} failed: {}", operation, Printable(Address(options)), complaint));
    return isDone ? Done : Refused;
}

EExitCode Get(const TSSettings& settings, const ValueOptions& options) {
    RequireCache(options);
    const TCErrorLines lines;
    const CacheHandle cache(IPCCache_CreateReader(options.cacheName.c_str()));
    std::string value;
    if (!Read(cache, options, value))
        return Report(settings, options, "get", lines.Describe());
    if (!settings.json)
        return options.view.Print(value) ? Done : Refused;
    Json more;
    const bool isDecoded = options.view.AddTo(more, value);
    Report(settings, options, "get", "", more);
    return isDecoded ? Done : Refused;
}

// A value for which there is no room would cost the cache all that it holds.
void RequireRoom(const ValueOptions& options, std::size_t size) {
    const TCCachePage page(options.cacheName);
    const std::string key = Address(options);
    if (page.State() != TCCachePage::EState::Complete)
        return;
    const bool isThere = std::any_of(page.Values().begin(), page.Values().end(),
                                     [&key](const TSCacheValue& value) { return value.key == key; });
    // A value that is there keeps its place.
    if ((!isThere || options.replaces) && !page.HasRoomFor(key, size))
        throw TCFailure(Refused,
                        fmt::format("set {} failed: no room for {} bytes and what keeps them in order; {} "
                                    "bytes are free; nothing is changed",
                                    Printable(key), size, page.FreeBytes()));
}

EExitCode Set(const TSSettings& settings, const ValueOptions& options) {
    const MavixApiLite::TCMessageBuffer value = BuildPayload("VALUE", options.values);
    RequireRoom(options, value.PayloadSize());
    const TCErrorLines lines;
    const CacheHandle cache(IPCCache_CreateWriter(options.cacheName.c_str()));
    if (options.replaces)
        IPCCache_ResetData(cache.get(), options.key.c_str(), options.id);
    const std::string_view bytes = BytesOf(value);
    IPCCache_SetData(cache.get(), options.key.c_str(), options.id, bytes.data(), bytes.size());
    // The library does not say whether it stored the value, and keeps the length of an older one.
    std::string stored;
    std::string complaint;
    const bool isStored = Read(cache, options, stored);
    if (isStored && stored.size() != bytes.size())
        complaint =
            fmt::format("the value keeps its length of {} bytes; --replace removes it first", stored.size());
    else if (!isStored || stored != bytes)
        complaint = lines.Describe();
    return Report(settings, options, "set", complaint, {{"size", bytes.size()}});
}

EExitCode Reset(const TSSettings& settings, const ValueOptions& options) {
    RequireCache(options);
    const TCErrorLines lines;
    const CacheHandle cache(IPCCache_CreateWriter(options.cacheName.c_str()));
    const bool wasThere = IPCCache_ResetData(cache.get(), options.key.c_str(), options.id);
    const bool hasLines = lines.HasLines();
    return Report(settings, options, "reset",
                  wasThere   ? ""
                  : hasLines ? lines.Describe()
                             : "there is no such value");
}

CLI::App* AddOperation(CLI::App& cache, TSSettings& settings, const std::string& name,
                       const std::string& description, const std::string& arguments, ValueOptions& options) {
    CLI::App* command = AddCacheOperation(cache, settings, name, description, arguments, options.cacheName);
    command->add_option("KEY", options.key, "The value's name")
        ->required()
        ->type_name("")
        ->check(CLI::Validator(
            [](std::string& text) {
                return text.empty() ? std::string("'' is not a value's name") : std::string();
            },
            ""));
    command->add_option("--id", options.id, "The value's id; without one the name stands alone")
        ->type_name("N")
        ->transform(Number(0, std::numeric_limits<std::int64_t>::max()));
    return command;
}

} // namespace

void AddCacheValueOperations(CLI::App& cache, TSSettings& settings, int& exitCode) {
    const auto options = std::make_shared<ValueOptions>();
    CLI::App* get = AddOperation(cache, settings, "get", "Print a value", "demo volume --decode i", *options);
    options->view.AddOptions(*get);
    get->callback([options, &settings, &exitCode] { exitCode = Get(settings, *options); });

    CLI::App* set = AddOperation(cache, settings, "set", "Store a value", "demo volume i:17", *options);
    set->add_option("VALUE", options->values,
                    "The value's bytes, in the words that the arguments of call have")
        ->required()
        ->type_name("");
    set->add_flag("--replace", options->replaces, "Remove the value first, so that its length may change");
    set->callback([options, &settings, &exitCode] { exitCode = Set(settings, *options); });

    CLI::App* reset = AddOperation(cache, settings, "reset", "Remove a value", "demo volume", *options);
    reset->callback([options, &settings, &exitCode] { exitCode = Reset(settings, *options); });
}

} // namespace MavixControl
