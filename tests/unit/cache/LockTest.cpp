#include "Await.h"
#include "CacheFixture.h"
#include "RobustRWLock.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <future>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using namespace MavixTest;

namespace MavixApiLite {

struct TestAccess {
    static int& Descriptor(RobustRWLock& lock) { return lock.m_fd; }
};

} // namespace MavixApiLite

namespace {

using MavixApiLite::TestAccess;

constexpr uid_t owner = MAVIX_CACHE_OWNER_UID;
constexpr gid_t ownerGroup = MAVIX_CACHE_OWNER_GID;
constexpr uid_t stranger = 12345;

enum Priority { debug = 3, info = 4, warning = 5, error = 6 };

class FileLock : public CacheFixture {
protected:
    void ExpectModeAndOwner() const {
        struct stat file {};
        ASSERT_EQ(0, stat(LockPath().c_str(), &file));
        EXPECT_EQ(mode_t{0777}, file.st_mode & 07777U);
        EXPECT_EQ(owner, file.st_uid);
        EXPECT_EQ(ownerGroup, file.st_gid);
    }

    bool Exists() const { return access(LockPath().c_str(), F_OK) == 0; }

    // A thread that initialises a lock and stops in the middle until it is told to go on.
    class InitThread final {
    public:
        explicit InitThread(RobustRWLock& lock) {
            TCRecordingPlatform::Get().onLine = [this](const LogLine& line) {
                if (line.text.find("Change access") != std::string::npos && !m_hasStopped.exchange(true)) {
                    m_inTheMiddle.set_value();
                    m_goOn.get_future().wait();
                }
            };
            m_thread = std::thread([&lock] { lock.init(); });
            m_inTheMiddle.get_future().wait();
        }
        ~InitThread() {
            LetGoOn();
            TCRecordingPlatform::Get().onLine = nullptr;
        }
        InitThread(const InitThread&) = delete;
        InitThread& operator=(const InitThread&) = delete;
        void LetGoOn() {
            if (m_thread.joinable()) {
                m_goOn.set_value();
                m_thread.join();
            }
        }

    private:
        std::atomic<bool> m_hasStopped{false};
        std::promise<void> m_inTheMiddle;
        std::promise<void> m_goOn;
        std::thread m_thread;
    };

    // Whether another process, which has the lock file open, could lock it so.
    bool IsFree(int operation) const {
        const int file = open(LockPath().c_str(), O_RDONLY | O_CLOEXEC);
        const bool locked = flock(file, operation | LOCK_NB) == 0;
        close(file);
        return locked;
    }
};

} // namespace

TEST_F(FileLock, TouchesNoFileBeforeItIsInitialised) {
    const RobustRWLock lock(Name());
    EXPECT_FALSE(Exists());
}

TEST_F(FileLock, FirstUserCreatesTheFileWithModeAndOwner) {
    RobustRWLock lock(Name());
    umask(077);
    lock.init();
    umask(022);
    ExpectModeAndOwner();
    EXPECT_EQ(std::vector<std::string>{"init: File " + LockPath() + " created"}, CacheLines(info));
    EXPECT_EQ(
        (std::vector<std::string>{"init: Change access " + LockPath(), "init: Change owner " + LockPath()}),
        CacheLines(debug));
    struct stat file {};
    ASSERT_EQ(0, stat(LockPath().c_str(), &file));
    EXPECT_EQ(0, file.st_size);
}

TEST_F(FileLock, LaterUsersOpenTheFileAndApplyModeAndOwnerAgain) {
    RobustRWLock first(Name());
    first.init();
    ASSERT_EQ(0, chmod(LockPath().c_str(), 0600));
    ASSERT_EQ(0, chown(LockPath().c_str(), 0, 0));
    TCRecordingPlatform::Get().Reset();
    RobustRWLock second(Name());
    second.init();
    ExpectModeAndOwner();
    EXPECT_EQ(
        (std::vector<std::string>{"init: File " + LockPath() + " opened", "init: Change access " + LockPath(),
                                  "init: Change owner " + LockPath()}),
        CacheLines(debug));
    EXPECT_TRUE(CacheLines(info).empty());
    EXPECT_TRUE(first.lock() && first.unlock() && second.lock() && second.unlock());
}

TEST_F(FileLock, IsFreeForOthersAfterItsEndAndTheFileStays) {
    {
        RobustRWLock lock(Name());
        lock.init();
        EXPECT_TRUE(lock.lock());
        EXPECT_FALSE(IsFree(LOCK_SH));
    }
    EXPECT_TRUE(Exists());
    EXPECT_TRUE(IsFree(LOCK_EX));
}

TEST_F(FileLock, SaysWhatItDoes) {
    RobustRWLock lock(Name());
    lock.init();
    TCRecordingPlatform::Get().Reset();
    const std::string start = "lock: " + LockPath() + " ";
    EXPECT_TRUE(lock.lock_sharable());
    EXPECT_TRUE(lock.unlock_sharable());
    EXPECT_TRUE(lock.lock());
    EXPECT_TRUE(lock.unlock());
    EXPECT_EQ((std::vector<std::string>{
                  "lock_sharable: " + start + "lock sharable", "lock_sharable: " + start + "locked sharable",
                  "unlock_sharable: " + start + "unlock sharable",
                  "unlock_sharable: " + start + "unlocked sharable", "lock: " + start + "lock exclusive",
                  "lock: " + start + "locked exclusive", "unlock: " + start + "unlock exclusive",
                  "unlock: " + start + "unlocked exclusive"}),
              CacheLines(debug));
    EXPECT_EQ(8U, TCRecordingPlatform::Get().Lines().size());
}

TEST_F(FileLock, IsSharedByReadersAndExcludesWriters) {
    RobustRWLock lock(Name());
    lock.init();
    EXPECT_TRUE(lock.lock_sharable());
    EXPECT_TRUE(IsFree(LOCK_SH));
    EXPECT_FALSE(IsFree(LOCK_EX));
    EXPECT_TRUE(lock.unlock_sharable());
    EXPECT_TRUE(lock.lock());
    EXPECT_FALSE(IsFree(LOCK_SH));
    EXPECT_TRUE(lock.unlock());
    EXPECT_TRUE(IsFree(LOCK_EX));
}

TEST_F(FileLock, TwoObjectsOfOneProcessExcludeEachOther) {
    RobustRWLock first(Name());
    RobustRWLock second(Name());
    first.init();
    second.init();
    EXPECT_TRUE(first.lock());
    EXPECT_NE(0, flock(TestAccess::Descriptor(second), LOCK_SH | LOCK_NB));
    EXPECT_TRUE(first.unlock());
    EXPECT_TRUE(second.lock());
}

TEST_F(FileLock, IsConvertedByASecondLockOfTheSameObject) {
    RobustRWLock lock(Name());
    lock.init();
    EXPECT_TRUE(lock.lock());
    EXPECT_TRUE(lock.lock_sharable());
    EXPECT_TRUE(IsFree(LOCK_SH));
    EXPECT_FALSE(IsFree(LOCK_EX));
    EXPECT_TRUE(lock.lock());
    EXPECT_FALSE(IsFree(LOCK_SH));
    EXPECT_TRUE(lock.unlock());
    EXPECT_TRUE(IsFree(LOCK_EX));
}

TEST_F(FileLock, InitialisationsOfAProcessRunOneAtATime) {
    RobustRWLock first(Name());
    RobustRWLock second(Name() + "-second");
    const std::string secondPath = "/run/" + Name() + "-second_cache_lock";
    InitThread held(first);
    std::atomic<pid_t> waiting{0};
    std::thread other([&] {
        waiting = gettid();
        second.init();
    });
    EXPECT_TRUE(Await([&] { return waiting != 0; }));
    EXPECT_TRUE(WaitsInSystemCall(waiting, SYS_futex));
    EXPECT_EQ(-1, access(secondPath.c_str(), F_OK));
    held.LetGoOn();
    other.join();
    EXPECT_TRUE(first.lock() && first.unlock() && second.lock() && second.unlock());
    EXPECT_TRUE(CacheLines(error).empty());
}

TEST_F(FileLock, AChildThatIsForkedDuringAnInitialisationUsesALockOfItsOwn) {
    RobustRWLock lock(Name());
    InitThread held(lock);
    EXPECT_TRUE(HoldsInChild([this] {
        alarm(20);
        RobustRWLock own(Name() + "-child");
        EXPECT_TRUE(own.lock() && own.unlock());
    }));
    held.LetGoOn();
    EXPECT_TRUE(lock.lock() && lock.unlock());
}

TEST_F(FileLock, OpensTheFileByItselfWhenItIsLockedFirst) {
    RobustRWLock lock(Name());
    EXPECT_TRUE(lock.lock());
    EXPECT_TRUE(lock.unlock());
    EXPECT_EQ(1U, CountCacheLines(error, "lock", "lock: " + LockPath() + " File not open"));
    EXPECT_EQ(1U, CacheLines(error).size());
    RobustRWLock other(Name());
    EXPECT_TRUE(other.lock_sharable());
    EXPECT_EQ(1U, CountCacheLines(error, "lock_sharable", "lock: " + LockPath() + " File not open"));
}

TEST_F(FileLock, UnlockWithoutFileFailsAndOpensNone) {
    const RobustRWLock lock(Name());
    EXPECT_FALSE(lock.unlock());
    EXPECT_FALSE(lock.unlock_sharable());
    EXPECT_FALSE(Exists());
    EXPECT_EQ((std::vector<std::string>{"unlock: lock: " + LockPath() + " File not open",
                                        "unlock_sharable: lock: " + LockPath() + " File not open"}),
              CacheLines(error));
    EXPECT_EQ(2U, TCRecordingPlatform::Get().Lines().size());
}

TEST_F(FileLock, WithoutTheRightToCreateTheFileEveryLockTriesAgainAndFails) {
    EXPECT_TRUE(HoldsInChild([this] {
        BecomeUser(stranger, stranger);
        RobustRWLock lock(Name());
        lock.init();
        const std::string failure =
            "Failed to create file " + LockPath() + " errno:13 " + std::strerror(EACCES);
        EXPECT_EQ(std::vector<std::string>{"init: " + failure}, CacheLines(error));
        TCRecordingPlatform::Get().Reset();
        EXPECT_FALSE(lock.lock());
        EXPECT_EQ(
            (std::vector<std::string>{"lock: lock: " + LockPath() + " File not open", "init: " + failure,
                                      "lock: lock: " + LockPath() + " File not open after reinit"}),
            CacheLines(error));
        EXPECT_EQ(3U, TCRecordingPlatform::Get().Lines().size());
    }));
}

TEST_F(FileLock, WithoutTheRightToChangeTheModeFails) {
    RobustRWLock roots(Name());
    roots.init();
    ASSERT_EQ(0, chown(LockPath().c_str(), 0, 0));
    EXPECT_TRUE(HoldsInChild([this] {
        BecomeUser(stranger, stranger);
        TCRecordingPlatform::Get().Reset();
        RobustRWLock lock(Name());
        EXPECT_FALSE(lock.lock_sharable());
        EXPECT_EQ(
            (std::vector<std::string>{"lock_sharable: lock: " + LockPath() + " File not open",
                                      "init: Failed to change access to file " + LockPath() + " errno:1 " +
                                          std::strerror(EPERM),
                                      "lock_sharable: lock: " + LockPath() + " File not open after reinit"}),
            CacheLines(error));
        // The first descriptor that is free again: nothing was leaked.
        const int before = dup(0);
        close(before);
        EXPECT_FALSE(lock.lock());
        EXPECT_EQ(before, dup(0));
    }));
}

TEST_F(FileLock, WithoutTheRightToChangeTheOwnerEveryLockTriesAgainAndFails) {
    ASSERT_EQ(0, chmod("/run", 01777));
    EXPECT_TRUE(HoldsInChild([this] {
        // The owner to be, without the group.
        BecomeUser(owner, stranger);
        RobustRWLock lock(Name());
        for (int at = 0; at < 2; ++at) {
            TCRecordingPlatform::Get().Reset();
            EXPECT_FALSE(lock.lock());
            EXPECT_EQ((std::vector<std::string>{"lock: lock: " + LockPath() + " File not open",
                                                "init: Failed to change owner of file " + LockPath() +
                                                    " errno:1 " + std::strerror(EPERM),
                                                "lock: lock: " + LockPath() + " File not open after reinit"}),
                      CacheLines(error));
        }
    }));
    ASSERT_EQ(0, chmod("/run", 0755));
}

TEST_F(FileLock, WorksOnceTheFileHasBeenGivenToTheProcess) {
    RobustRWLock roots(Name());
    roots.init();
    ASSERT_EQ(0, chown(LockPath().c_str(), 0, 0));
    int ready[2];
    int go[2];
    ASSERT_EQ(0, pipe(ready));
    ASSERT_EQ(0, pipe(go));
    const pid_t child = fork();
    if (child == 0) {
        char byte = 0;
        BecomeUser(owner, ownerGroup);
        RobustRWLock lock(Name());
        EXPECT_FALSE(lock.lock());
        EXPECT_EQ(1, write(ready[1], &byte, 1));
        EXPECT_EQ(1, read(go[0], &byte, 1));
        EXPECT_TRUE(lock.lock() && lock.unlock() && lock.lock_sharable() && lock.unlock_sharable());
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    char byte = 0;
    ASSERT_EQ(1, read(ready[0], &byte, 1));
    EXPECT_EQ(0, chown(LockPath().c_str(), owner, ownerGroup));
    EXPECT_EQ(1, write(go[1], &byte, 1));
    EXPECT_EQ(0, WaitForEnd(child));
}

TEST_F(FileLock, KillingAHolderLetsAWaiterAcquireIt) {
    RobustRWLock lock(Name());
    lock.init();
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    const pid_t holder = fork();
    if (holder == 0) {
        RobustRWLock own(Name());
        const char answer = own.lock() ? 'y' : 'n';
        static_cast<void>(!write(ready[1], &answer, 1));
        for (;;) {
            pause();
        }
    }
    char answer = 0;
    ASSERT_EQ(1, read(ready[0], &answer, 1));
    EXPECT_EQ('y', answer);
    const pid_t waiter = fork();
    if (waiter == 0) {
        RobustRWLock own(Name());
        _exit(own.lock_sharable() ? 0 : 1);
    }
    EXPECT_TRUE(WaitsForFileLock(waiter));
    EXPECT_EQ(0, kill(holder, SIGKILL));
    EXPECT_EQ(0, WaitForEnd(waiter));
    EXPECT_EQ(-SIGKILL, WaitForEnd(holder));
}

namespace {

void OnSignal(int /*signal*/) {}

} // namespace

TEST_F(FileLock, ASignalEndsTheWaitWithoutARetry) {
    RobustRWLock holder(Name());
    holder.init();
    EXPECT_TRUE(holder.lock());
    struct Row {
        bool (RobustRWLock::*lock)();
        const char* function;
        const char* mode;
    };
    for (const Row& row : {Row{&RobustRWLock::lock, "lock", "exclusive"},
                           Row{&RobustRWLock::lock_sharable, "lock_sharable", "sharable"}}) {
        const pid_t child = fork();
        if (child == 0) {
            struct sigaction action {};
            action.sa_handler = OnSignal;
            sigaction(SIGUSR1, &action, nullptr);
            RobustRWLock lock(Name());
            EXPECT_FALSE((lock.*row.lock)());
            EXPECT_EQ(1U, CountCacheLines(error, row.function,
                                          "lock: " + LockPath() + " Failed to lock " + row.mode +
                                              " errno:4 " + std::strerror(EINTR)));
            _exit(testing::Test::HasFailure() ? 1 : 0);
        }
        EXPECT_TRUE(WaitsForFileLock(child)) << row.function;
        EXPECT_EQ(0, kill(child, SIGUSR1));
        EXPECT_EQ(0, WaitForEnd(child)) << row.function;
    }
}

TEST_F(FileLock, AFailureToUnlockIsLogged) {
    RobustRWLock lock(Name());
    lock.init();
    const int descriptor = TestAccess::Descriptor(lock);
    TestAccess::Descriptor(lock) = 9999;
    TCRecordingPlatform::Get().Reset();
    EXPECT_FALSE(lock.unlock());
    EXPECT_FALSE(lock.unlock_sharable());
    EXPECT_FALSE(lock.lock());
    const std::string start = "lock: " + LockPath() + " Failed to ";
    const std::string end = std::string(" errno:9 ") + std::strerror(EBADF);
    EXPECT_EQ((std::vector<std::string>{"unlock: " + start + "unlock exclusive" + end,
                                        "unlock_sharable: " + start + "unlock sharable" + end,
                                        "lock: " + start + "lock exclusive" + end}),
              CacheLines(error));
    TestAccess::Descriptor(lock) = descriptor;
}

TEST_F(FileLock, ClosesOnExec) {
    RobustRWLock lock(Name());
    lock.init();
    EXPECT_EQ(FD_CLOEXEC, fcntl(TestAccess::Descriptor(lock), F_GETFD));
}

TEST_F(FileLock, WorksInAProcessWhoseStandardInputIsClosed) {
    EXPECT_TRUE(HoldsInChild([this] {
        close(0);
        RobustRWLock lock(Name());
        lock.init();
        const int descriptor = TestAccess::Descriptor(lock);
        EXPECT_LT(2, descriptor);
        EXPECT_EQ(FD_CLOEXEC, fcntl(descriptor, F_GETFD));
        EXPECT_EQ(-1, fcntl(0, F_GETFD));
        EXPECT_TRUE(lock.lock() && lock.unlock());
        EXPECT_EQ(descriptor, TestAccess::Descriptor(lock));
        EXPECT_TRUE(CacheLines(error).empty());
    }));
}

TEST_F(FileLock, IsOpenedOnce) {
    RobustRWLock lock(Name());
    lock.init();
    const int descriptor = TestAccess::Descriptor(lock);
    lock.init();
    EXPECT_EQ(descriptor, TestAccess::Descriptor(lock));
}

TEST_F(FileLock, RefusesNamesThatLeadElsewhere) {
    ASSERT_EQ(0, mkdir("/run/folder", 0755));
    const std::string longName(300, 'n');
    struct Row {
        std::string name;
        int number;
    };
    for (const Row& row :
         {Row{"folder/name", EINVAL}, Row{"/folder/name", EINVAL}, Row{"..", EINVAL}, Row{"a..b", EINVAL},
          Row{"../name", EINVAL}, Row{"name/", EINVAL}, Row{longName, ENAMETOOLONG}}) {
        TCRecordingPlatform::Get().Reset();
        RobustRWLock lock(row.name);
        EXPECT_FALSE(lock.lock()) << row.name;
        EXPECT_EQ(1U, CountCacheLines(error, "init",
                                      "Failed to create file /run/" + row.name + "_cache_lock errno:" +
                                          std::to_string(row.number) + " " + std::strerror(row.number)))
            << row.name;
        EXPECT_EQ(-1, access(("/run/" + row.name + "_cache_lock").c_str(), F_OK)) << row.name;
    }
    ASSERT_EQ(0, rmdir("/run/folder"));
}

TEST_F(FileLock, RefusesANameThatEndsBeforeItsEnd) {
    RobustRWLock lock(std::string("na\0me", 5));
    EXPECT_FALSE(lock.lock());
    EXPECT_EQ(
        1U, CountCacheLines(error, "init",
                            std::string("Failed to create file /run/na errno:22 ") + std::strerror(EINVAL)));
    EXPECT_EQ(-1, access("/run/na", F_OK));
}

TEST_F(FileLock, TakesANameThatBeginsWithASeparator) {
    RobustRWLock lock("/" + Name());
    EXPECT_TRUE(lock.lock());
    EXPECT_TRUE(Exists());
}

TEST_F(FileLock, RefusesWhatIsNoRegularFileAndDoesNotBlockOnIt) {
    struct Row {
        const char* name;
        int (*make)(const char* path);
    };
    const Row rows[] = {{"folder", [](const char* path) { return mkdir(path, 0777); }},
                        {"pipe", [](const char* path) { return mkfifo(path, 0777); }},
                        {"device", [](const char* path) { return mknod(path, S_IFCHR | 0777, 0x103); }},
                        {"link to a device", [](const char* path) { return symlink("/dev/null", path); }}};
    for (const Row& row : rows) {
        ASSERT_EQ(0, row.make(LockPath().c_str())) << row.name;
        TCRecordingPlatform::Get().Reset();
        RobustRWLock lock(Name());
        EXPECT_FALSE(lock.lock()) << row.name;
        EXPECT_EQ(1U,
                  CountCacheLines(error, "init",
                                  "Failed to open file " + LockPath() + " errno:22 " + std::strerror(EINVAL)))
            << row.name;
        ASSERT_EQ(0, remove(LockPath().c_str())) << row.name;
        EXPECT_TRUE(lock.lock()) << row.name;
        ASSERT_EQ(0, remove(LockPath().c_str())) << row.name;
    }
}

TEST_F(FileLock, AFileThatExistsAndCannotBeOpenedIsLogged) {
    ASSERT_EQ(0, symlink("/run/nothing-there", LockPath().c_str()));
    RobustRWLock lock(Name());
    lock.init();
    EXPECT_EQ(std::vector<std::string>{"init: Failed to open file " + LockPath() + " errno:2 " +
                                       std::strerror(ENOENT)},
              CacheLines(error));
    ASSERT_EQ(0, unlink(LockPath().c_str()));
    EXPECT_TRUE(lock.lock());
}
