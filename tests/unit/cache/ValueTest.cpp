#include "CSharp_IPCConnection.h"
#include "CacheAccess.h"
#include "CacheFixture.h"

#include <cstring>
#include <thread>

// What a cache stores and hands out, and what it says about it.

using namespace MavixTest;
using AccessType = IPCCache::AccessType;

namespace {

enum Priority { debug = 3, info = 4, warning = 5, error = 6 };

class Value : public CacheFixture {
protected:
    void ForgetLines() const { TCRecordingPlatform::Get().Reset(); }
};

// How many one-byte values with names of this length fit.
std::size_t FillUp(IPCCache& cache) {
    std::size_t count = 0;
    while (CacheLines(error).empty()) {
        cache.setData("value-" + std::to_string(1000 + count), "x", 1);
        ++count;
    }
    return count - 1;
}

} // namespace

TEST_F(Value, IsReadWithItsExactLengthOnly) {
    IPCCache writer(Name(), AccessType::Write);
    IPCCache reader(Name(), AccessType::Read);
    Set(writer, "key", "value");
    for (IPCCache* cache : {&writer, &reader}) {
        char buffer[8] = "-------";
        EXPECT_TRUE(cache->getData("key", buffer, 5));
        EXPECT_STREQ("value--", buffer);
        for (const unsigned long size : {0UL, 4UL, 6UL, ~0UL}) {
            ForgetLines();
            EXPECT_FALSE(cache->getData("key", buffer, size)) << size;
            EXPECT_EQ(std::vector<std::string>{"getData: Shm object size mismatch " + std::to_string(size) +
                                               " != 5 in " + Shm()},
                      CacheLines(error));
            EXPECT_STREQ("value--", buffer);
        }
    }
}

TEST_F(Value, IsHandedOutInABufferOfItsLength) {
    IPCCache writer(Name(), AccessType::Write);
    Set(writer, "key", "value");
    char* buffer = nullptr;
    unsigned long size = 0;
    EXPECT_TRUE(writer.getDataNew("key", &buffer, &size));
    EXPECT_EQ(5U, size);
    EXPECT_EQ("value", std::string(buffer, size));
    TCFreeMemory(buffer);
}

TEST_F(Value, IsHandedOutWithoutASizePointerToo) {
    IPCCache writer(Name(), AccessType::Write);
    Set(writer, "key", "value");
    char* buffer = nullptr;
    EXPECT_TRUE(writer.getDataNew("key", &buffer, nullptr));
    EXPECT_EQ(0, std::memcmp("value", buffer, 5));
    TCFreeMemory(buffer);
}

TEST_F(Value, MayBeEmpty) {
    IPCCache writer(Name(), AccessType::Write);
    writer.setData("key", nullptr, 0);
    char* buffer = nullptr;
    unsigned long size = 7;
    EXPECT_TRUE(writer.getDataNew("key", &buffer, &size));
    EXPECT_EQ(0U, size);
    EXPECT_NE(nullptr, buffer);
    TCFreeMemory(buffer);
    EXPECT_TRUE(writer.getData("key", nullptr, 0));
    EXPECT_TRUE(writer.resetData("key"));
}

TEST_F(Value, HasItsBytesWhateverTheyAre) {
    IPCCache writer(Name(), AccessType::Write);
    std::string bytes;
    for (int at = 0; at < 256; ++at) {
        bytes.push_back(static_cast<char>(at));
    }
    Set(writer, "bytes", bytes);
    EXPECT_EQ(bytes, Get(writer, "bytes"));
}

TEST_F(Value, OfTheSameLengthReplacesTheOldOne) {
    IPCCache writer(Name(), AccessType::Write);
    Set(writer, "key", "first");
    Set(writer, "key", "other");
    EXPECT_EQ("other", Get(writer, "key"));
}

TEST_F(Value, ThatIsShorterLeavesTheOldTailAndLength) {
    IPCCache writer(Name(), AccessType::Write);
    Set(writer, "key", "0123456789");
    ForgetLines();
    Set(writer, "key", "abc");
    EXPECT_EQ("abc3456789", Get(writer, "key"));
    EXPECT_EQ(1U, CountCacheLines(info, "setData", Name() + ".setData(key, 3) OK"));
}

TEST_F(Value, ThatIsLongerIsRefusedAndNothingIsLost) {
    IPCCache writer(Name(), AccessType::Write);
    Set(writer, "key", "value");
    Set(writer, "other", "thing");
    ForgetLines();
    Set(writer, "key", "longer");
    EXPECT_EQ(std::vector<std::string>{"setData: " + Name() +
                                       ".setData(key, 6) refused: the stored value has 5 bytes"},
              CacheLines(error));
    EXPECT_TRUE(CacheLines(info).empty());
    EXPECT_EQ("value", Get(writer, "key"));
    EXPECT_EQ("thing", Get(writer, "other"));
    ForgetLines();
    EXPECT_TRUE(writer.resetData("key"));
    Set(writer, "key", "longer");
    EXPECT_EQ("longer", Get(writer, "key"));
    EXPECT_TRUE(CacheLines(warning).empty());
}

TEST_F(Value, SurvivesItsWriter) {
    {
        IPCCache writer(Name(), AccessType::Write);
        Set(writer, "key", "value");
    }
    IPCCache reader(Name(), AccessType::Read);
    EXPECT_EQ("value", Get(reader, "key"));
    IPCCache next(Name(), AccessType::Write);
    EXPECT_EQ("value", Get(next, "key"));
    Set(next, "other", "thing");
    EXPECT_EQ("value", Get(next, "key"));
}

TEST_F(Value, ThatDoesNotExistIsSaidToBeSo) {
    IPCCache writer(Name(), AccessType::Write);
    IPCCache reader(Name(), AccessType::Read);
    Set(writer, "key", "value");
    ForgetLines();
    char byte = 'x';
    char* buffer = &byte;
    unsigned long size = 7;
    EXPECT_FALSE(reader.getData("other", &byte, 1));
    EXPECT_FALSE(reader.getDataNew("", &buffer, &size));
    EXPECT_EQ(&byte, buffer);
    EXPECT_EQ(7U, size);
    EXPECT_EQ((std::vector<std::string>{"getData: Trying to get non existing data:other from " + Shm(),
                                        "getDataNew: Trying to get non existing data: from " + Shm()}),
              CacheLines(warning));
    EXPECT_TRUE(CacheLines(error).empty());
}

TEST_F(Value, OfACacheThatWasNeverWrittenIsRefused) {
    IPCCache writer(Name(), AccessType::Write);
    IPCCache reader(Name(), AccessType::Read);
    char byte = 0;
    char* buffer = nullptr;
    EXPECT_FALSE(reader.getData("key", &byte, 1));
    EXPECT_FALSE(writer.getDataNew("key", &buffer, nullptr));
    EXPECT_EQ((std::vector<std::string>{"getData: Last write op failed to complete on " + Shm(),
                                        "getDataNew: Last write op failed to complete on " + Shm()}),
              CacheLines(warning));
}

TEST_F(Value, IsGoneAfterAReset) {
    IPCCache writer(Name(), AccessType::Write);
    Set(writer, "key", "value");
    Set(writer, "other", "thing");
    EXPECT_TRUE(writer.resetData("key"));
    EXPECT_EQ(none, Get(writer, "key"));
    EXPECT_EQ("thing", Get(writer, "other"));
}

TEST_F(Value, ThatIsMissingIsResetWithoutResultAndWithItsOkLine) {
    IPCCache writer(Name(), AccessType::Write);
    Set(writer, "key", "value");
    ForgetLines();
    EXPECT_FALSE(writer.resetData("missing"));
    EXPECT_EQ(std::vector<std::string>{"resetData: " + Name() + ".resetData(missing) OK"}, CacheLines(info));
    EXPECT_EQ("value", Get(writer, "key"));
}

TEST_F(Value, OperationsSayWhatTheyDo) {
    IPCCache writer(Name(), AccessType::Write);
    Set(writer, "key", "value");
    const std::string path = "lock: " + LockPath() + " ";
    const std::vector<std::string> writeLock = {
        "lock: " + path + "lock exclusive", "lock: " + path + "locked exclusive",
        "unlock: " + path + "unlock exclusive", "unlock: " + path + "unlocked exclusive"};
    ForgetLines();
    Set(writer, "key", "again");
    std::vector<std::string> expected = {"setData: " + Name() + ".setData(key)",
                                         "setData: " + Name() + ".lock()"};
    expected.insert(expected.end(), writeLock.begin(), writeLock.end());
    EXPECT_EQ(expected, CacheLines(debug));
    EXPECT_EQ(std::vector<std::string>{"setData: " + Name() + ".setData(key, 5) OK"}, CacheLines(info));
    EXPECT_EQ(7U, TCRecordingPlatform::Get().Lines().size());

    ForgetLines();
    EXPECT_TRUE(writer.resetData("key"));
    expected[0] = "resetData: " + Name() + ".resetData(key)";
    expected[1] = "resetData: " + Name() + ".lock()";
    EXPECT_EQ(expected, CacheLines(debug));
    EXPECT_EQ(std::vector<std::string>{"resetData: " + Name() + ".resetData(key) OK"}, CacheLines(info));

    Set(writer, "key", "value");
    ForgetLines();
    char buffer[5];
    EXPECT_TRUE(writer.getData("key", buffer, 5));
    EXPECT_EQ(std::vector<std::string>{"getData: " + Name() + ".getData(key, 5) OK"}, CacheLines(info));
    EXPECT_EQ((std::vector<std::string>{"lock_sharable: " + path + "lock sharable",
                                        "lock_sharable: " + path + "locked sharable",
                                        "unlock_sharable: " + path + "unlock sharable",
                                        "unlock_sharable: " + path + "unlocked sharable"}),
              CacheLines(debug));
    EXPECT_EQ(5U, TCRecordingPlatform::Get().Lines().size());

    ForgetLines();
    EXPECT_EQ("value", Get(writer, "key"));
    EXPECT_EQ(std::vector<std::string>{"getDataNew: " + Name() + ".getData(key) OK"}, CacheLines(info));
}

TEST_F(Value, IsLoggedWhileTheLockIsHeld) {
    IPCCache writer(Name(), AccessType::Write);
    Set(writer, "key", "value");
    ForgetLines();
    EXPECT_EQ("value", Get(writer, "key"));
    EXPECT_TRUE(writer.resetData("key"));
    const std::vector<LogLine> lines = TCRecordingPlatform::Get().Lines();
    ASSERT_EQ(12U, lines.size());
    EXPECT_EQ("getDataNew", lines[2].function);
    EXPECT_EQ("unlock_sharable", lines[3].function);
    EXPECT_EQ("resetData", lines[9].function);
    EXPECT_EQ("unlock", lines[10].function);
}

TEST_F(Value, TooLargeForTheRestLogsItAndTheNextWriteWipesEverything) {
    for (const unsigned long size : {3900UL, 4096UL, 1UL << 40U, ~0UL}) {
        IPCCache writer(Name(), AccessType::Write);
        IPCCache reader(Name(), AccessType::Read);
        writer.resetData("key");
        Set(writer, "key", "value");
        const std::size_t available = MavixApiLite::TestAccess::Segment(writer).get_free_memory();
        ForgetLines();
        const std::string data(4096, 'x');
        writer.setData("large", data.data(), size);
        EXPECT_EQ(std::vector<std::string>{"setData: No free memory in " + Shm() + ", currently available " +
                                           std::to_string(available) + " needed " + std::to_string(size)},
                  CacheLines(error));
        EXPECT_EQ(none, Get(reader, "key"));
        EXPECT_EQ(std::vector<std::string>{"getDataNew: Last write op failed to complete on " + Shm()},
                  CacheLines(warning));

        ForgetLines();
        Set(writer, "next", "thing");
        EXPECT_EQ(
            std::vector<std::string>{"setData: Last write operation left data in corrupted state, all data "
                                     "saved in " +
                                     Shm() + " will be removed"},
            CacheLines(warning));
        EXPECT_EQ((std::vector<std::string>{"destroyAllObjects: Delete object:key from " + Shm(),
                                            "destroyAllObjects: Delete object:write_guard from " + Shm(),
                                            "setData: " + Name() + ".setData(next, 5) OK"}),
                  CacheLines(info));
        EXPECT_EQ(none, Get(reader, "key"));
        EXPECT_EQ("thing", Get(reader, "next"));
        EXPECT_TRUE(writer.resetData("next"));
    }
}

TEST_F(Value, CountIsBoundedByThePageAndARemovedOneMakesRoom) {
    IPCCache writer(Name(), AccessType::Write);
    writer.resetData("nothing");
    const std::size_t count = FillUp(writer);
    EXPECT_LT(40U, count);
    ForgetLines();
    EXPECT_EQ(count, FillUp(writer)) << "after the wipe it is as empty as before";
    ForgetLines();
    Set(writer, "value-0001", "y");
    for (std::size_t at = 1; at < count; ++at) {
        Set(writer, "value-" + std::to_string(1000 + at), "y");
    }
    EXPECT_TRUE(CacheLines(error).empty());
    EXPECT_TRUE(writer.resetData("value-1001"));
    Set(writer, "value-9999", "z");
    EXPECT_TRUE(CacheLines(error).empty());
    EXPECT_EQ("z", Get(writer, "value-9999"));
    EXPECT_EQ("y", Get(writer, "value-0001"));
}

TEST_F(Value, KeyOfTheGuardIsRefusedAndReadsAsNonExisting) {
    IPCCache writer(Name(), AccessType::Write);
    Set(writer, "key", "value");
    ForgetLines();
    Set(writer, "write_guard", "1234");
    Set(writer, std::string("write_guard\0tail", 16), "1234");
    EXPECT_FALSE(writer.resetData("write_guard"));
    EXPECT_EQ((std::vector<std::string>{
                  "setData: " + Name() + ".setData(write_guard) refused: the key is reserved",
                  "setData: " + Name() + ".setData(write_guard) refused: the key is reserved",
                  "resetData: " + Name() + ".resetData(write_guard) refused: the key is reserved"}),
              CacheLines(error));
    EXPECT_EQ(6U, TCRecordingPlatform::Get().Lines().size()) << "no lock was taken";
    char buffer[4];
    EXPECT_FALSE(writer.getData("write_guard", buffer, 4));
    EXPECT_EQ(std::vector<std::string>{"getData: Trying to get non existing data:write_guard from " + Shm()},
              CacheLines(warning));
    EXPECT_EQ("value", Get(writer, "key"));
}

TEST_F(Value, KeysMayBeEmptyLongAndAlike) {
    IPCCache writer(Name(), AccessType::Write);
    const std::string longKey(1000, 'k');
    const std::vector<std::string> keys = {
        "", "a", "b", "aa", "ab", "write_guarc", "write_guare", "write_guard1", longKey, longKey + "l"};
    for (const std::string& key : keys) {
        Set(writer, key, "value of " + key.substr(0, 20));
    }
    EXPECT_TRUE(CacheLines(error).empty());
    for (const std::string& key : keys) {
        EXPECT_EQ("value of " + key.substr(0, 20), Get(writer, key));
    }
    for (const std::string& key : keys) {
        EXPECT_TRUE(writer.resetData(key)) << key;
        EXPECT_EQ(none, Get(writer, key)) << key;
    }
}

// The segment keeps the length of a name in 16 bits: some of these would seem short.
TEST_F(Value, OfAKeyThatFitsNowhereIsRefusedForWantOfMemory) {
    for (const std::size_t length : {3900U, 5000U, 65535U, 65536U, 65537U, 65600U, 69000U, 70000U, 131080U}) {
        IPCCache writer(Name(), AccessType::Write);
        writer.resetData("key");
        const std::size_t available = MavixApiLite::TestAccess::Segment(writer).get_free_memory();
        const std::string key(length, 'k');
        ForgetLines();
        Set(writer, key, "value");
        EXPECT_EQ(std::vector<std::string>{"setData: No free memory in " + Shm() + ", currently available " +
                                           std::to_string(available) + " needed 5"},
                  CacheLines(error))
            << length;
        Set(writer, "key", "value");
        EXPECT_EQ("value", Get(writer, "key")) << length;
        EXPECT_EQ(none, Get(writer, key)) << length;
        EXPECT_FALSE(writer.resetData(key)) << length;
        EXPECT_EQ("value", Get(writer, "key")) << length;
    }
}

TEST_F(Value, OfOneCacheIsNotSeenInAnother) {
    IPCCache writer(Name(), AccessType::Write);
    IPCCache other(Name() + "-other", AccessType::Write);
    Set(writer, "key", "value");
    Set(other, "key", "thing");
    EXPECT_EQ("value", Get(writer, "key"));
    EXPECT_EQ("thing", Get(other, "key"));
}

TEST_F(Value, OfANameWithASeparatorInFrontIsTheSame) {
    IPCCache writer("/" + Name(), AccessType::Write);
    IPCCache reader(Name(), AccessType::Read);
    Set(writer, "key", "value");
    EXPECT_EQ("value", Get(reader, "key"));
}

TEST_F(Value, IsWholeWhenThreadsShareOneCache) {
    IPCCache cache(Name(), AccessType::Write);
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            const std::string key = "key" + std::to_string(thread);
            for (int round = 0; round < 50; ++round) {
                const std::string value(20, static_cast<char>('a' + round % 26));
                Set(cache, key, value);
                wrong += Get(cache, key) == value ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, wrong);
}
