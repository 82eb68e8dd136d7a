#include "CacheFixture.h"

#include "Await.h"
#include "CSharp_IPCConnection.h"
#include "SleepingFork.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <grp.h>
#include <sstream>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace MavixTest {

namespace {

bool IsCacheLine(const LogLine& line, const std::string& text) {
    return line.tag == "IPCCache" &&
           line.text == line.function + "():" + std::to_string(line.line) + " " + text;
}

// What follows the repeated function and line.
std::string TextOf(const LogLine& line) {
    const std::string prefix = line.function + "():" + std::to_string(line.line) + " ";
    return line.text.compare(0, prefix.size(), prefix) == 0 ? line.text.substr(prefix.size())
                                                            : "NO PREFIX: " + line.text;
}

} // namespace

std::size_t CountCacheLines(int priority, const std::string& function, const std::string& text) {
    std::size_t count = 0;
    for (const LogLine& line : TCRecordingPlatform::Get().Lines()) {
        count += line.priority == priority && line.function == function && IsCacheLine(line, text) ? 1U : 0U;
    }
    return count;
}

std::vector<std::string> CacheLines(int priority) {
    std::vector<std::string> found;
    for (const LogLine& line : TCRecordingPlatform::Get().Lines()) {
        if (line.tag == "IPCCache" && line.priority == priority) {
            found.push_back(line.function + ": " + TextOf(line));
        }
    }
    return found;
}

int WaitForEnd(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

bool HoldsInChild(const std::function<void()>& body) {
    std::fflush(nullptr);
    const pid_t child = ForkWhileOthersSleep();
    if (child == 0) {
        body();
        if (testing::Test::HasFailure()) {
            std::ostringstream lines;
            TCRecordingPlatform::Get().Print(lines);
            std::printf("%s", lines.str().c_str());
        }
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    return child > 0 && WaitForEnd(child) == 0;
}

void BecomeUser(uid_t user, gid_t group) {
    ASSERT_EQ(0, setgroups(0, nullptr));
    ASSERT_EQ(0, setresgid(group, group, group));
    ASSERT_EQ(0, setresuid(user, user, user));
}

bool WaitsInSystemCall(pid_t thread, long number) {
    return Await([thread, number] {
        std::ifstream file("/proc/" + std::to_string(thread) + "/syscall");
        long call = -1;
        file >> call;
        return call == number;
    });
}

bool WaitsForFileLock(pid_t process) {
    return WaitsInSystemCall(process, SYS_flock);
}

void CacheFixture::SetUp() {
    static int number = 0;
    if (!EnterPrivateCacheFolders()) {
        GTEST_SKIP() << noCacheFoldersReason;
    }
    m_name = "cache-" + std::to_string(++number);
}

std::string CacheFixture::ReadObject() const {
    std::ifstream file(ObjectPath(), std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

void CacheFixture::WriteObject(const std::string& bytes) const {
    std::ofstream file(ObjectPath(), std::ios::binary | std::ios::trunc);
    file << bytes;
}

std::string CacheFixture::Get(IPCCache& cache, const std::string& key) {
    char* buffer = nullptr;
    unsigned long size = 0;
    if (!cache.getDataNew(key, &buffer, &size)) {
        return none;
    }
    const std::string value(buffer, size);
    TCFreeMemory(buffer);
    return value;
}

void CacheFixture::Set(IPCCache& cache, const std::string& key, const std::string& value) {
    cache.setData(key, value.data(), value.size());
}

} // namespace MavixTest
