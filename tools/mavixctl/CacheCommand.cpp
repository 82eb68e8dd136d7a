#include "CacheCommand.h"

#include "Commands.h"

#include <fmt/format.h>

namespace MavixControl {

namespace {

// As the library takes them: a file's name.
bool IsCacheName(const std::string& name) {
    constexpr std::size_t longest = 200;
    const std::string file = name.substr(0, 1) == "/" ? name.substr(1) : name;
    return !file.empty() && file.size() <= longest && file.find('/') == std::string::npos &&
           file.find("..") == std::string::npos;
}

} // namespace

CLI::App* AddCacheOperation(CLI::App& cache, TSSettings& settings, const std::string& name,
                            const std::string& description, const std::string& arguments,
                            std::string& cacheName) {
    CLI::App* command =
        AddCommand(cache, settings, name, description, fmt::format("mavixctl cache {} {}", name, arguments));
    command->add_option("NAME", cacheName, "The cache's name")
        ->required()
        ->type_name("")
        ->check(CLI::Validator(
            [](std::string& text) {
                return IsCacheName(text)
                           ? std::string()
                           : fmt::format("'{}' is not a cache's name: a file's name, with a / at "
                                         "most in front",
                                         text);
            },
            ""));
    return command;
}

void AddCacheCommand(CLI::App& application, TSSettings& settings, int& exitCode) {
    CLI::App* cache = application.add_subcommand("cache", "Values in shared memory; needs no bus");
    cache->require_subcommand(1);
    AddCacheValueOperations(*cache, settings, exitCode);
    AddCacheInspection(*cache, settings, exitCode);
    AddCacheWatch(*cache, settings, exitCode);
}

} // namespace MavixControl
