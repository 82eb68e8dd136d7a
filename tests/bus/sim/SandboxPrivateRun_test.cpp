#include "SandboxFixture.h"

#include <sys/stat.h>
#include <unistd.h>

namespace MavixTest {

namespace {

constexpr uid_t otherUser = 65534;
const char* const onlyRoot = "needs root, to act as another user";

// Notes what the command finds in its folders, who it is, and whether it may give a file the owner of a lock
// file.
const char* const look = "me=$(id -u):$(id -g); there=$(ls -A /run /dev/shm | tr '\\n' ' '); "
                         "touch /run/$2 /dev/shm/$2; chown $1 /run/$2 2>/dev/null; "
                         "echo \"$me $there$(stat -c %u:%g /run/$2)\" >$0";

const std::string lockOwner =
    std::to_string(MAVIX_CACHE_OWNER_UID) + ":" + std::to_string(MAVIX_CACHE_OWNER_GID);
const std::string emptyFolders = "/dev/shm:  /run: ";

class SandboxPrivateRun : public SandboxFixture {
protected:
    void SetUp() override {
        if (::geteuid() != 0)
            GTEST_SKIP() << onlyRoot;
    }

    // Where the sandbox has no folders of its own, the files are the machine's.
    ~SandboxPrivateRun() override {
        for (const std::string& path : Files())
            std::filesystem::remove(path);
    }

    std::vector<std::string> Files() const { return {"/run/" + m_file, "/dev/shm/" + m_file}; }

    Arguments Look() const {
        return {"--private-run", "--no-service", "--", "sh", "-c", look, m_note, lockOwner, m_file};
    }

    // Runs a sandbox as another user, after a script of root's in mounts of its own. What the sandbox says
    // on standard error is the result.
    std::string RunAsOther(const std::string& script, const Arguments& arguments, int expectedStatus) {
        for (const std::string& folder : {m_temporary.Path(), m_notes.Path()})
            EXPECT_EQ(::chown(folder.c_str(), otherUser, otherUser), 0);
        Arguments all{"--mount",  "--propagation",
                      "private",  "sh",
                      "-euc",     script + "\nexec setpriv --reuid 65534 --regid 65534 --clear-groups \"$@\"",
                      "as-other", MAVIX_TEST_SANDBOX};
        all.insert(all.end(), arguments.begin(), arguments.end());
        testing::internal::CaptureStderr();
        const int status = Run(all, "unshare");
        const std::string errors = testing::internal::GetCapturedStderr();
        EXPECT_EQ(status, expectedStatus) << errors;
        return errors;
    }

    // Why another user cannot run the sandbox or have namespaces; empty when it can.
    std::string ReasonAgainstOther() {
#ifdef __SANITIZE_THREAD__
        return "ThreadSanitizer's own thread keeps the sandbox from a user namespace";
#elif defined(MAVIX_TEST_COVERAGE)
        return "another user may not add to the files of the coverage, and is told so on standard error";
#else
        const int status = Run({"--reuid", "65534", "--regid", "65534", "--clear-groups", "sh", "-c",
                                "test -x $0 && unshare --user true 2>/dev/null", MAVIX_TEST_SANDBOX},
                               "setpriv");
        return status == 0 ? "" : "another user may not run the sandbox, or has no user namespaces";
#endif
    }

    // Gives the other user ids of its own to map, or none.
    static std::string WithSubordinateIds(const std::string& line) {
        return "ids=$(mktemp); chmod 644 $ids; printf '" + line +
               "' >$ids; mount --bind $ids /etc/subuid; mount --bind $ids /etc/subgid; rm $ids";
    }

    const std::string m_file = std::filesystem::path(m_notes.Path()).filename().string();
};

TEST_F(SandboxPrivateRun, RootHasEmptyFoldersAndMayGiveALockFileItsOwner) {
    EXPECT_EQ(Run(Look()), 0);
    EXPECT_EQ(ReadNote(), "0:0 " + emptyFolders + lockOwner);
    for (const std::string& path : Files())
        EXPECT_FALSE(std::filesystem::exists(path)) << path;
    EXPECT_TRUE(NothingIsLeft());
}

TEST_F(SandboxPrivateRun, WithoutItTheFoldersAreTheMachines) {
    EXPECT_EQ(
        Run({"--no-service", "sh", "-c", "stat -c %d /run /dev/shm | tr '\\n' ' ' >$0; echo >>$0", m_note}),
        0);
    struct stat run {};
    struct stat memory {};
    ASSERT_EQ(::stat("/run", &run), 0);
    ASSERT_EQ(::stat("/dev/shm", &memory), 0);
    EXPECT_EQ(ReadNote(), std::to_string(run.st_dev) + " " + std::to_string(memory.st_dev) + " ");
}

TEST_F(SandboxPrivateRun, AnOrdinaryUserWithSubordinateIdsIsRootThereAndMayGiveALockFileItsOwner) {
    if (const std::string reason = ReasonAgainstOther(); !reason.empty())
        GTEST_SKIP() << reason;
    if (Run({"-c", "command -v newuidmap newgidmap >/dev/null"}, "sh") != 0)
        GTEST_SKIP() << "newuidmap and newgidmap (Debian: uidmap) are not installed";
    EXPECT_EQ(RunAsOther(WithSubordinateIds("somebody:1:1\\n65534:300000:65536\\n"), Look(), 0), "");
    EXPECT_EQ(ReadNote(), "0:0 " + emptyFolders + lockOwner);
    EXPECT_TRUE(NothingIsLeft());
}

TEST_F(SandboxPrivateRun, AnOrdinaryUserWithoutSubordinateIdsIsToldAndGoesOn) {
    if (const std::string reason = ReasonAgainstOther(); !reason.empty())
        GTEST_SKIP() << reason;
    for (const char* ids :
         {"", "somebody:300000:65536\\n", "nobody:300000:0\\n", "nobody\\n:\\n::\\nnobody:\\n"}) {
        SCOPED_TRACE(ids);
        EXPECT_EQ(
            RunAsOther(WithSubordinateIds(ids), Look(), 0),
            "mavix-sandbox: the cache is unavailable: user nobody has no subordinate ids in /etc/subuid and "
            "/etc/subgid\n");
        EXPECT_EQ(ReadNote(), "0:0 " + emptyFolders + "0:0");
        EXPECT_TRUE(NothingIsLeft());
    }
}

TEST_F(SandboxPrivateRun, IdsThatCannotBeMappedAreToldAndItGoesOn) {
    if (const std::string reason = ReasonAgainstOther(); !reason.empty())
        GTEST_SKIP() << reason;
    // Not a number, and a folder of programs without those that map.
    for (const std::string& script :
         {WithSubordinateIds("nobody:many:65536\\n"),
          WithSubordinateIds("nobody:300000:65536\\n") +
              "\nfor name in newuidmap newgidmap; do ! program=$(command -v $name) || "
              "mount --bind /bin/false $program; done"}) {
        EXPECT_EQ(RunAsOther(script, Look(), 0), "mavix-sandbox: the cache is unavailable: newuidmap and "
                                                 "newgidmap (Debian: uidmap) do not map the "
                                                 "ids\n");
        EXPECT_EQ(ReadNote(), "0:0 " + emptyFolders + "0:0");
        EXPECT_TRUE(NothingIsLeft());
    }
}

TEST_F(SandboxPrivateRun, WhereThereAreNoNamespacesItIsToldAndGoesOn) {
    // A user namespace can be told to have no further ones.
    const char* const script =
        "echo 0 >/proc/sys/user/max_user_namespaces; echo 0 >/proc/sys/user/max_mnt_namespaces; "
        "exec \"$@\"";
    testing::internal::CaptureStderr();
    const int status = Run({"--user", "--map-root-user", "sh", "-euc", script, "without", MAVIX_TEST_SANDBOX,
                            "--private-run", "--no-service", "--", "sh", "-c", "echo went on >$0", m_note},
                           "unshare");
    const std::string errors = testing::internal::GetCapturedStderr();
    if (errors.find("unshare:") == 0)
        GTEST_SKIP() << errors;
    EXPECT_EQ(status, 0);
    EXPECT_EQ(
        errors.rfind("mavix-sandbox: the cache is unavailable: no user namespaces here, so that /run and "
                     "/dev/shm are the machine's: ",
                     0),
        0u)
        << errors;
    EXPECT_EQ(ReadNote(), "went on");
}

TEST_F(SandboxPrivateRun, TheRuntimeFolderAndTheJournalsSocketStay) {
    const std::string script =
        "mount -t tmpfs tmpfs /run; mkdir -p /run/user/7 /run/systemd/journal /run/other; "
        "touch /run/user/7/mine /run/systemd/journal/socket; exec \"$@\"";
    EXPECT_EQ(Run({"--mount", "--propagation", "private", "sh", "-euc", script, "with-runtime-folder", "env",
                   "XDG_RUNTIME_DIR=/run/user/7", MAVIX_TEST_SANDBOX, "--private-run", "--no-service", "--",
                   "sh", "-c", "echo $(cd /run; find . -type f | sort) $DBUS_SYSTEM_BUS_ADDRESS >$0", m_note},
                  "unshare"),
              0);
    const std::string note = ReadNote();
    const std::string expected = "./systemd/journal/socket ./user/7/mavix-bus-";
    EXPECT_EQ(note.rfind(expected, 0), 0u) << note;
    EXPECT_NE(note.find(" ./user/7/mine "), std::string::npos) << note;
    EXPECT_NE(note.find(" unix:path=/run/user/7/mavix-bus-"), std::string::npos) << note;
}

TEST_F(SandboxPrivateRun, TheServiceAnswersInThere) {
    const std::string call = "dbus-send --system --print-reply --dest=org.freedesktop.DBus / "
                             "org.freedesktop.DBus.NameHasOwner string:com.norvale.MavixAPI >$0";
    EXPECT_EQ(Run({"--private-run", "--", "sh", "-c", call, m_note}), 0);
    std::ifstream file(m_note);
    const std::string reply{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    EXPECT_NE(reply.find("boolean true"), std::string::npos) << reply;
}

} // namespace

} // namespace MavixTest
