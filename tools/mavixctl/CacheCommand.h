#ifndef MAVIX_CONTROL_CACHE_COMMAND_H
#define MAVIX_CONTROL_CACHE_COMMAND_H

#include "Command.h"

// The operations of the command "cache".
namespace MavixControl {

// One with the cache's name as its first argument.
CLI::App* AddCacheOperation(CLI::App& cache, TSSettings& settings, const std::string& name,
                            const std::string& description, const std::string& arguments,
                            std::string& cacheName);

// get, set and reset, through the library.
void AddCacheValueOperations(CLI::App& cache, TSSettings& settings, int& exitCode);
// list and verify, by a look at the memory.
void AddCacheInspection(CLI::App& cache, TSSettings& settings, int& exitCode);
void AddCacheWatch(CLI::App& cache, TSSettings& settings, int& exitCode);

} // namespace MavixControl

#endif
