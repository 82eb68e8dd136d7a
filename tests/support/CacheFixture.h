#ifndef MAVIX_TEST_CACHE_FIXTURE_H
#define MAVIX_TEST_CACHE_FIXTURE_H

#include "IPCCache.h"
#include "PrivateMounts.h"
#include "RecordingPlatform.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace MavixTest {

constexpr std::size_t cachePageSize = 4096;

// The lines of the cache and its lock: tag and repeated function included.
std::size_t CountCacheLines(int priority, const std::string& function, const std::string& text);
// Those of a priority, as "function: text".
std::vector<std::string> CacheLines(int priority);

// Runs the body in a forked child; true when nothing failed there. The child has the record of its parent's
// log.
bool HoldsInChild(const std::function<void()>& body);
// Ends what root may do, in a child.
void BecomeUser(uid_t user, gid_t group);
// Wait until the thread or process waits in this system call, or for a file lock; false when it does not come
// to that.
bool WaitsInSystemCall(pid_t thread, long number);
bool WaitsForFileLock(pid_t process);
// How a child ended: its exit status, or the negative number of the signal.
int WaitForEnd(pid_t child);

// Tests of caches: in folders of their own, each test with a cache name of its own.
class CacheFixture : public testing::Test {
protected:
    void SetUp() override;

    const std::string& Name() const { return m_name; }
    std::string LockPath() const { return "/run/" + m_name + "_cache_lock"; }
    std::string ObjectPath() const { return "/dev/shm/" + m_name; }

    // The object's bytes, as a file.
    std::string ReadObject() const;
    void WriteObject(const std::string& bytes) const;

    // What a read gives; `none` without a value.
    static constexpr const char* none = "(none)";
    static std::string Get(IPCCache& cache, const std::string& key);
    static void Set(IPCCache& cache, const std::string& key, const std::string& value);

    // "shm:name" is part of many texts.
    std::string Shm() const { return "shm:" + m_name; }

private:
    std::string m_name;
};

} // namespace MavixTest

#endif
