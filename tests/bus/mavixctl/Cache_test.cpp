#include "ControlProgram.h"
#include "PrivateMounts.h"

#include <SegmentLayout.h>
#include <mavix-api/IPCCache.h>

#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace MavixTest {

namespace {

using nlohmann::json;

const std::string lockPath = "/run/demo_cache_lock";
const std::string memoryPath = "/dev/shm/demo";

class ControlCache : public testing::Test {
protected:
    void SetUp() override {
        if (!EnterPrivateCacheFolders())
            GTEST_SKIP() << noCacheFoldersReason;
        ::unlink(lockPath.c_str());
        ::unlink(memoryPath.c_str());
    }

    static ControlResult Cache(Words arguments, bool asJson = false) {
        arguments.insert(arguments.begin(), "cache");
        if (asJson)
            arguments.emplace_back("--json");
        return RunControl(arguments);
    }
    // As the library's other users leave it.
    static void Store(const std::string& key, const std::string& value) {
        IPCCache("demo", IPCCache::AccessType::Write).setData(key, value.data(), value.size());
    }
    static std::string Stored(const std::string& key) {
        char* bytes = nullptr;
        unsigned long size = 0;
        if (!IPCCache("demo", IPCCache::AccessType::Read).getDataNew(key, &bytes, &size))
            return "(none)";
        const std::string value(bytes, size);
        std::free(bytes);
        return value;
    }
    // Leaves the cache as a writer does that finds no room, or dies.
    static void Interrupt() { Store("large", std::string(5000, 'x')); }
    static void Damage(std::streamoff offset) {
        std::fstream file(memoryPath, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(offset);
        file << std::string(8, '\xAA');
    }
};

TEST_F(ControlCache, StoresAValue) {
    const ControlResult text = Cache({"set", "demo", "key", "i:17", "strz:x"});
    EXPECT_EQ(text.status, 0) << text.errors;
    EXPECT_EQ(text.output, "set key: done\n");
    EXPECT_EQ(Stored("key"), std::string("\x11\0\0\0x\0", 6));
    const ControlResult object = Cache({"set", "/demo", "key", "--id", "0x30005", "c:1"}, true);
    EXPECT_EQ(object.Object(),
              (json{{"cache", "/demo"}, {"key", "key3:5"}, {"operation", "set"}, {"ok", true}, {"size", 1}}));
    EXPECT_EQ(Stored("key3:5"), "\x01");
}

TEST_F(ControlCache, SaysThatAValueKeepsItsLength) {
    Store("key", "12345");
    for (const char* value : {"c:1", "strz:longer than before"}) {
        const ControlResult result = Cache({"set", "demo", "key", value});
        EXPECT_EQ(result.status, 1) << value;
        EXPECT_EQ(
            result.errors,
            "mavixctl: set key failed: the value keeps its length of 5 bytes; --replace removes it first\n");
    }
    EXPECT_EQ(Stored("key").substr(1), "2345");
    EXPECT_EQ(Cache({"set", "demo", "key", "c:1", "--replace"}).status, 0);
    EXPECT_EQ(Stored("key"), "\x01");
}

TEST_F(ControlCache, KeepsWhatACacheHoldsWhenThereIsNoRoom) {
    Store("key", "value");
    const ControlResult result = Cache({"set", "demo", "large", "str:" + std::string(4000, 'x')});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors,
              "mavixctl: set large failed: no room for 4004 bytes and what keeps them in order; "
              "3840 bytes are free; nothing is changed\n");
    EXPECT_EQ(Cache({"set", "demo", "key", "str:" + std::string(4000, 'x'), "--replace"}).status, 1);
    EXPECT_EQ(Stored("key"), "value");
}

// What the library itself would refuse, which costs the cache all that it holds, and no more than that.
TEST_F(ControlCache, RefusesExactlyTheValuesForWhichThereIsNoRoom) {
    int refused = 0;
    int stored = 0;
    for (std::size_t size = 3840 - 120; size <= 3840; size += 4) {
        const std::string text(size - 1, 'x');
        const std::string value = text + '\0';
        ::unlink(memoryPath.c_str());
        Store("key", "value");
        const ControlResult result = Cache({"set", "demo", "large", "--id", "0xffffffff", "strz:" + text});
        EXPECT_EQ(Stored("key"), "value") << size << " bytes";
        if (result.status == 0) {
            ++stored;
            EXPECT_EQ(Stored("large65535:65535"), value) << size << " bytes";
        } else {
            ++refused;
            Store("large65535:65535", value);
            EXPECT_EQ(Stored("key"), "(none)") << size << " bytes have room";
        }
    }
    EXPECT_GT(stored, 0);
    EXPECT_GT(refused, 0);
}

TEST_F(ControlCache, RefusesAKeyForWhichThereIsNoRoom) {
    Store("key", "value");
    for (const std::size_t length : {4000u, 65536u + 60})
        EXPECT_EQ(Cache({"set", "demo", std::string(length, 'k'), "c:1"}).status, 1) << length;
    EXPECT_EQ(Stored("key"), "value");
}

TEST_F(ControlCache, RefusesAValueForWhichOnlyPiecesAreFree) {
    for (int number = 0; number < 16; ++number)
        Store("key" + std::to_string(number), std::string(160, 'x'));
    for (int number = 0; number < 16; number += 2)
        EXPECT_EQ(Cache({"reset", "demo", "key" + std::to_string(number)}).status, 0);
    const std::string value = "str:" + std::string(1000, 'y');
    EXPECT_EQ(Cache({"set", "demo", "large", value}).status, 1);
    EXPECT_EQ(Cache({"set", "demo", "key1", value, "--replace"}).status, 1);
    for (int number = 1; number < 16; number += 2)
        EXPECT_EQ(Stored("key" + std::to_string(number)), std::string(160, 'x')) << number;
}

TEST_F(ControlCache, TellsWhyAValueWasNotStored) {
    const ControlResult result = Cache({"set", "demo", "write_guard", "c:1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors,
              "mavixctl: set write_guard failed: demo.setData(write_guard) refused: the key is reserved\n");
    const json object = Cache({"set", "demo", "write_guard", "c:1"}, true).Object();
    EXPECT_EQ(object.at("ok"), false);
}

TEST_F(ControlCache, PrintsAValue) {
    Store("key3:5", std::string("\x07\0ab", 4));
    EXPECT_EQ(Cache({"get", "demo", "key", "--id", "0x30005"}).output,
              "00000000  07 00 61 62                                       |..ab|\n");
    EXPECT_EQ(Cache({"get", "demo", "key3:5", "--hex"}).output, "07006162\n");
    EXPECT_EQ(Cache({"get", "demo", "key3:5", "--decode", "s,hex"}).output, "s     7\nhex   6162\n");
    EXPECT_EQ(Cache({"get", "demo", "key3:5", "--decode", "l"}).status, 1);
    EXPECT_EQ(Cache({"get", "demo", "key3:5", "--decode", "s,hex"}, true).Object(),
              (json{{"cache", "demo"},
                    {"key", "key3:5"},
                    {"operation", "get"},
                    {"ok", true},
                    {"size", 4},
                    {"payload", "07006162"},
                    {"values", {7, "6162"}},
                    {"rest", ""}}));
}

TEST_F(ControlCache, RemovesAValue) {
    Store("key", "value");
    EXPECT_EQ(Cache({"reset", "demo", "key"}).output, "reset key: done\n");
    EXPECT_EQ(Stored("key"), "(none)");
    const ControlResult text = Cache({"reset", "demo", "key"});
    EXPECT_EQ(text.status, 1);
    EXPECT_EQ(text.errors, "mavixctl: reset key failed: there is no such value\n");
    Store("key2:1", "value");
    EXPECT_EQ(Cache({"reset", "demo", "key", "--id", "0x20001"}, true).Object(),
              (json{{"cache", "demo"}, {"key", "key2:1"}, {"operation", "reset"}, {"ok", true}}));
}

TEST_F(ControlCache, ACacheThatIsNotThereIsNotMade) {
    for (const char* operation : {"get", "reset", "list"}) {
        Words words{operation, "demo", "key"};
        if (words[0] == "list")
            words.pop_back();
        const ControlResult result = Cache(words);
        EXPECT_EQ(result.status, 1) << operation;
        EXPECT_EQ(result.errors, "mavixctl: no cache demo: /dev/shm/demo: No such file or directory\n");
    }
    EXPECT_EQ(::access(lockPath.c_str(), F_OK), -1);
    EXPECT_EQ(::access(memoryPath.c_str(), F_OK), -1);
}

TEST_F(ControlCache, TellsWhyAValueCannotBeRead) {
    Store("key", "value");
    EXPECT_EQ(Cache({"get", "demo", "other"}).errors,
              "mavixctl: get other failed: Trying to get non existing data:other from shm:demo\n");
    Interrupt();
    const ControlResult result = Cache({"get", "demo", "key"}, true);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "mavixctl: get key failed: Last write op failed to complete on shm:demo\n");
    EXPECT_EQ(result.Object().at("ok"), false);
}

TEST_F(ControlCache, ListsAllValues) {
    const ControlResult fresh = [] {
        Store("key", "value");
        Store("a", "1");
        return Cache({"list", "demo", "--hex"});
    }();
    EXPECT_EQ(fresh.status, 0) << fresh.errors;
    EXPECT_EQ(fresh.output, "state   complete\n"
                            "free    3776 of 4096 bytes\n"
                            "values  2\n"
                            "a  1 bytes\n"
                            "  31\n"
                            "key  5 bytes\n"
                            "  76616c7565\n");
    EXPECT_EQ(Cache({"list", "demo", "--decode", "c,hex"}, true).Object(),
              (json{{"cache", "demo"},
                    {"state", "complete"},
                    {"free", 3776},
                    {"values",
                     {{{"key", "a"}, {"size", 1}, {"payload", "31"}, {"values", {49, ""}}, {"rest", ""}},
                      {{"key", "key"},
                       {"size", 5},
                       {"payload", "76616c7565"},
                       {"values", {118, "616c7565"}},
                       {"rest", ""}}}}}));
    EXPECT_EQ(Cache({"list", "demo", "--decode", "s"}).status, 1);
}

TEST_F(ControlCache, ListsAsManyValuesAsFit) {
    for (int i = 0; i < 40; ++i)
        Store("k" + std::to_string(i), std::string(32, 'x'));
    const json object = Cache({"list", "demo"}, true).Object();
    EXPECT_EQ(object.at("values").size(), 40u);
    EXPECT_EQ(object.at("state"), "complete");
}

TEST_F(ControlCache, ChangesNothingWhenItLists) {
    Store("key", "value");
    ::chmod(lockPath.c_str(), 0600);
    EXPECT_EQ(Cache({"list", "demo"}).status, 0);
    EXPECT_EQ(Cache({"verify", "demo"}).status, 1);
    struct stat info {};
    ASSERT_EQ(::stat(lockPath.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777U, 0600u);
}

std::string Verdicts(const json& object) {
    std::string text;
    for (const json& check : object.at("checks"))
        text += check.at("check").get<std::string>() + (check.at("ok") ? " ok\n" : " bad\n");
    return text;
}

TEST_F(ControlCache, VerifiesASoundCache) {
    Store("key", "value");
    const ControlResult text = Cache({"verify", "demo"});
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(text.output, "ok   lock file   /run/demo_cache_lock, mode 0777, owner " +
                               std::to_string(MAVIX_CACHE_OWNER_UID) + ":" +
                               std::to_string(MAVIX_CACHE_OWNER_GID) +
                               "\n"
                               "ok   memory      /dev/shm/demo, 4096 bytes of 4096, mode 0644\n"
                               "ok   segment     begins like one that fills the page\n"
                               "ok   structure   blocks and names agree, 1 values, 3840 bytes free\n"
                               "ok   last write  complete\n");
    const json object = Cache({"verify", "demo"}, true).Object();
    EXPECT_EQ(object.at("cache"), "demo");
    EXPECT_EQ(object.at("ok"), true);
    EXPECT_EQ(Verdicts(object), "lock file ok\nmemory ok\nsegment ok\nstructure ok\nlast write ok\n");
}

struct FaultRow {
    const char* name;
    void (*make)();
    const char* verdicts;
    const char* state; // as list tells it; null without memory
};

TEST_F(ControlCache, FindsWhatIsWrongWithACache) {
    const FaultRow rows[] = {
        {"nothing is there", [] { ::unlink(lockPath.c_str()), ::unlink(memoryPath.c_str()); },
         "lock file bad\nmemory bad\n", nullptr},
        {"the lock file is missing", [] { ::unlink(lockPath.c_str()); },
         "lock file bad\nmemory ok\nsegment ok\nstructure ok\nlast write ok\n", "complete"},
        {"the lock file is another user's", [] { EXPECT_EQ(::chown(lockPath.c_str(), 0, 0), 0); },
         "lock file bad\nmemory ok\nsegment ok\nstructure ok\nlast write ok\n", "complete"},
        {"the lock file is a folder", [] { ::unlink(lockPath.c_str()), ::mkdir(lockPath.c_str(), 0777); },
         "lock file bad\nmemory ok\nsegment ok\nstructure ok\nlast write ok\n", "complete"},
        {"the memory is a pipe", [] { ::unlink(memoryPath.c_str()), ::mkfifo(memoryPath.c_str(), 0644); },
         "lock file ok\nmemory bad\n", nullptr},
        {"the memory is empty", [] { EXPECT_EQ(::truncate(memoryPath.c_str(), 0), 0); },
         "lock file ok\nmemory bad\nsegment bad\n", "damaged"},
        {"the memory is cut", [] { EXPECT_EQ(::truncate(memoryPath.c_str(), 1000), 0); },
         "lock file ok\nmemory bad\nsegment bad\n", "damaged"},
        {"the memory is too large", [] { EXPECT_EQ(::truncate(memoryPath.c_str(), 8192), 0); },
         "lock file ok\nmemory bad\nsegment ok\nstructure ok\nlast write ok\n", "complete"},
        {"the memory holds no segment",
         [] {
             EXPECT_EQ(::truncate(memoryPath.c_str(), 0), 0);
             EXPECT_EQ(::truncate(memoryPath.c_str(), 4096), 0);
         },
         "lock file ok\nmemory ok\nsegment bad\n", "damaged"},
        {"the tree of free blocks is damaged", [] { Damage(0); },
         "lock file ok\nmemory ok\nsegment ok\nstructure bad\n", "damaged"},
        {"the tree of names is damaged", [] { Damage(64); },
         "lock file ok\nmemory ok\nsegment ok\nstructure bad\n", "damaged"},
        {"the last write is incomplete", Interrupt,
         "lock file ok\nmemory ok\nsegment ok\nstructure ok\nlast write bad\n", "interrupted"},
    };
    for (const FaultRow& row : rows) {
        SCOPED_TRACE(row.name);
        ::rmdir(lockPath.c_str());
        ::unlink(lockPath.c_str());
        ::unlink(memoryPath.c_str());
        Store("key", "value");
        row.make();
        const ControlResult verdict = Cache({"verify", "demo"}, true);
        EXPECT_EQ(verdict.status, 1);
        EXPECT_EQ(verdict.Object().at("ok"), false);
        EXPECT_EQ(Verdicts(verdict.Object()), row.verdicts);
        EXPECT_NE(Cache({"verify", "demo"}).output.find("bad  "), std::string::npos);
        const ControlResult list = Cache({"list", "demo"}, true);
        if (row.state != nullptr) {
            EXPECT_EQ(list.Object().at("state"), row.state);
        }
        EXPECT_EQ(list.status, row.state != nullptr && std::string(row.state) != "damaged" ? 0 : 1);
    }
    ::rmdir(lockPath.c_str());
}

TEST_F(ControlCache, ReadsAnyBytesWithoutHarm) {
    Store("key", "value");
    Store("other", "more");
    const std::string sound = [] {
        std::ifstream file(memoryPath, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }();
    // Each word up to the end of the second value's block.
    for (std::size_t at = 0; at < 480; at += 8) {
        Damage(static_cast<std::streamoff>(at));
        const int status = Cache({"list", "demo"}).status;
        EXPECT_TRUE(status == 0 || status == 1) << at << ": " << status;
        std::ofstream(memoryPath, std::ios::binary) << sound;
    }
}

// A page whose nodes have the next one as both of their children.
std::string PageWithManyWaysDown(const std::string& sound, std::size_t nodes) {
    namespace Layout = MavixApiLite::SegmentLayout;
    const auto put = [](std::string& page, std::size_t at, std::size_t word) {
        std::memcpy(page.data() + at, &word, sizeof word);
    };
    const std::string name = "write_guard";
    const std::size_t pitch = Layout::Round(Layout::value + name.size() + 1);
    std::string page = sound;
    std::size_t node = Layout::firstBlock;
    const std::size_t root = Layout::nameTree + Layout::treeNode + Layout::parent;
    put(page, root, node - root);
    for (std::size_t i = 0; i < nodes; ++i, node += pitch) {
        for (const std::size_t child : {Layout::left, Layout::right})
            put(page, node + child, i + 1 < nodes ? pitch - child : Layout::nullPointer);
        put(page, node + Layout::valueBytes, 0);
        put(page, node + Layout::nameLength, name.size());
        page[node + Layout::kind] = static_cast<char>(Layout::namedKind);
        page.replace(node + Layout::value, name.size() + 1, name.c_str(), name.size() + 1);
    }
    return page;
}

TEST_F(ControlCache, LooksAtNoNodeOfADamagedTreeAgainAndAgain) {
    Store("key", "value");
    const std::string sound = [] {
        std::ifstream file(memoryPath, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }();
    std::ofstream(memoryPath, std::ios::binary) << PageWithManyWaysDown(sound, 32);
    const ControlResult result = Cache({"list", "demo"}, true);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.Object().at("state"), "damaged");
}

TEST_F(ControlCache, LeavesACacheAloneThatTakesThePlaceOfAClosedStream) {
    for (const char* redirection : {">&-", "2>&-", "<&- >&- 2>&-"}) {
        ::unlink(lockPath.c_str());
        ::unlink(memoryPath.c_str());
        const ControlResult result =
            RunControl({"cache", "set", "demo", "key", "i:17"},
                       TCControlProgram::Options::Behind(std::string("exec \"$@\" ") + redirection));
        EXPECT_EQ(result.status, std::string(redirection) == "2>&-" ? 0 : 1) << redirection;
        EXPECT_EQ(Stored("key"), std::string("\x11\0\0\0", 4)) << redirection;
        struct stat info {};
        ASSERT_EQ(::stat(lockPath.c_str(), &info), 0);
        EXPECT_EQ(info.st_size, 0) << redirection;
        EXPECT_EQ(Cache({"verify", "demo"}).status, 0) << redirection;
    }
}

TEST_F(ControlCache, DoesNotWaitForAWriterForEver) {
    Store("key", "value");
    const int file = ::open(lockPath.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(::flock(file, LOCK_EX), 0);
    const ControlResult result = Cache({"list", "demo"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "mavixctl: /run/demo_cache_lock stays locked by a writer\n");
    ::close(file);
    EXPECT_EQ(Cache({"list", "demo"}).status, 0);
}

class ControlCacheWatch : public ControlCache {
protected:
    static std::unique_ptr<TCControlProgram> Watch(Words arguments) {
        arguments.insert(arguments.begin(), {"cache", "watch", "demo", "--interval", "0.001"});
        auto program = std::make_unique<TCControlProgram>(arguments);
        EXPECT_TRUE(program->AwaitErrors("watching")) << program->Errors();
        return program;
    }
};

TEST_F(ControlCacheWatch, PrintsChangesAsTheyCome) {
    Store("old", "value");
    const auto text = Watch({});
    const auto objects = Watch({"--json", "--count", "4"});
    const auto await = [&](const char* line, const char* object) {
        EXPECT_TRUE(text->AwaitOutput(line)) << text->Output();
        EXPECT_TRUE(objects->AwaitOutput(object)) << objects->Output();
    };
    Store("key", "one");
    await("set key, 3 bytes\n  00000000  6f 6e 65 ",
          R"("change":"set","key":"key","size":3,"payload":"6f6e65"})");
    Store("key", "two");
    await("set key, 3 bytes\n  00000000  74 77 6f ",
          R"("change":"set","key":"key","size":3,"payload":"74776f"})");
    IPCCache("demo", IPCCache::AccessType::Write).resetData("old");
    await("reset old\n", R"("change":"reset","key":"old"})");
    Interrupt();
    await("the cache is interrupted\n", R"("change":"interrupted"})");
    const ControlResult result = objects->Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.Objects().size(), 4u);
    text->Signal(SIGINT);
    EXPECT_EQ(text->Wait().status, 128 + SIGINT);
}

TEST_F(ControlCacheWatch, WatchesSomeValuesOnly) {
    Store("a", "1");
    const auto program = Watch({"b", "--count", "1", "--decode", "c", "--json"});
    Store("a", "2");
    Store("b", "3");
    const ControlResult result = program->Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.Object(), (json{{"cache", "demo"},
                                     {"change", "set"},
                                     {"key", "b"},
                                     {"size", 1},
                                     {"payload", "33"},
                                     {"values", json::array({51})},
                                     {"rest", ""}}));
}

TEST_F(ControlCacheWatch, MayComeBeforeTheCache) {
    const auto program = Watch({});
    Store("key", "value");
    EXPECT_TRUE(program->AwaitOutput("the cache is complete\nset key, 5 bytes\n")) << program->Output();
}

TEST_F(ControlCacheWatch, EndsWhenItsOutputCannotBeWritten) {
    Store("key", "value");
    TCControlProgram program({"cache", "watch", "demo"},
                             TCControlProgram::Options::Behind("exec \"$@\" >/dev/full"));
    ASSERT_TRUE(program.AwaitErrors("watching"));
    Store("key", "other");
    const ControlResult result = program.Wait();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "mavixctl: watching\nmavixctl: standard output cannot be written\n");
}

TEST_F(ControlCacheWatch, EndsAfterItsTime) {
    Store("key", "value");
    EXPECT_EQ(Cache({"watch", "demo", "--timeout", "0.01", "--interval", "1000"}).status, 0);
    EXPECT_EQ(Cache({"watch", "demo", "--timeout", "0.01", "--interval", "0.001"}).status, 0);
    const ControlResult result = Cache({"watch", "demo", "--timeout", "0.01", "--count", "2"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "mavixctl: watching\nmavixctl: 0 of 2 changes came in 0.01 s\n");
}

} // namespace

} // namespace MavixTest
