#include "FakeRegistry.h"
#include "FlavourFixture.h"
#include "ProxyFaults.h"
#include "ProxyFixture.h"
#include "SleepingFork.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

// The flat functions over a registry of the test's own.

using namespace MavixTest;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class SessionFlat : public testing::Test {
protected:
    SessionFlat() { FakeRegistry::client = m_client; }
    ~SessionFlat() override {
        FakeRegistry::client.reset();
        delete std::exchange(TestAccess::TheProxy(), nullptr);
        ProxyFaults::beforeExclusive = nullptr;
        ProxyFaults::afterShared = nullptr;
        ProxyFaults::sharedErrors = 0;
    }

    TCRecordingPlatform& m_platform = TCRecordingPlatform::Get();
    std::shared_ptr<FakeClient> m_client = std::make_shared<FakeClient>();
};

// Each function with arguments that are good.
struct Outcome {
    int result;
    bool written; // whether the output was
};
using Function = std::function<Outcome()>;

const Function open = [] { return Outcome{SessionControl__Open(), false}; };
const Function openAndClose = [] {
    SessionControl__Open();
    return Outcome{SessionControl__Close(), false};
};
const Function openTrace = [] {
    SessionControlDebugInfo info{24, "caller", 1};
    return Outcome{SessionControl__OpenDebugTrace(1, &info), false};
};
const Function closeTrace = [] { return Outcome{SessionControl__CloseDebugTrace(1), false}; };
const Function getText = [] {
    char untouched = 0;
    char* text = &untouched;
    const int result = SessionControl__GetSessionsDebugInfo(&text);
    const bool written = text != &untouched;
    if (written) {
        std::free(text);
    }
    return Outcome{result, written};
};
const Function isTerminated = [] {
    int flag = 77;
    const int result = SessionControl__IsMavixTerminated(&flag);
    return Outcome{result, flag != 77};
};

TEST_F(SessionFlat, ResultsFollowTheService) {
    const std::string noAnswer = "-";
    const struct {
        const char* name;
        const Function& function;
        std::string answer; // or none: the call fails
        int result;
        bool written;
    } rows[] = {
        {"open, 0", open, Int(0), 0, false},
        {"open, 5", open, Int(5), 5, false},
        {"open, -2", open, Int(-2), -2, false},
        {"open, -1", open, Int(-1), -1, false},
        {"open, no answer", open, noAnswer, -1, false},
        {"close, 0", openAndClose, Int(0), 0, false},
        {"close, 5", openAndClose, Int(5), 5, false},
        {"close, -2", openAndClose, Int(-2), -2, false},
        {"close, -1", openAndClose, Int(-1), -1, false},
        {"close, no answer", openAndClose, noAnswer, -1, false},
        {"close without an open",
         [] {
             return Outcome{SessionControl__Close(), false};
         },
         Int(0), -2, false},
        {"open trace", openTrace, Int(9), 0, false},
        {"open trace, not sent", openTrace, noAnswer, -1, false},
        {"open trace, null",
         [] {
             return Outcome{SessionControl__OpenDebugTrace(1, nullptr), false};
         },
         Int(0), -2, false},
        {"open trace, size 23",
         [] {
             SessionControlDebugInfo info{23, "caller", 1};
             return Outcome{SessionControl__OpenDebugTrace(1, &info), false};
         },
         Int(0), -2, false},
        {"open trace, size 25",
         [] {
             SessionControlDebugInfo info{25, "caller", 1};
             return Outcome{SessionControl__OpenDebugTrace(1, &info), false};
         },
         Int(0), -2, false},
        {"close trace", closeTrace, Int(9), 0, false},
        {"close trace, not sent", closeTrace, noAnswer, -1, false},
        {"text, 0", getText, Int(0) + Int(1) + "x", 0, true},
        {"text, 5", getText, Int(5) + Int(1) + "x", 5, false},
        {"text, -2", getText, Int(-2), -2, false},
        {"text, too short", getText, Int(0) + Int(2) + "x", -1, false},
        {"text, no answer", getText, noAnswer, -1, false},
        {"text, null",
         [] {
             return Outcome{SessionControl__GetSessionsDebugInfo(nullptr), false};
         },
         Int(0), -2, false},
        {"terminated, 0", isTerminated, Int(0) + Int(0), 0, true},
        {"terminated, 5", isTerminated, Int(5) + Int(0), -1, false},
        {"terminated, -2", isTerminated, Int(-2) + Int(0), -1, false},
        {"terminated, no answer", isTerminated, noAnswer, -1, false},
        {"terminated, null",
         [] {
             return Outcome{SessionControl__IsMavixTerminated(nullptr), false};
         },
         Int(0) + Int(0), -2, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        if (row.answer == noAnswer) {
            m_client->FailCalls();
        } else {
            m_client->AnswerWith(row.answer);
        }
        m_client->sendsAsync = row.answer != noAnswer;
        const Outcome outcome = row.function();
        EXPECT_EQ(row.result, outcome.result);
        EXPECT_EQ(row.written, outcome.written);
        delete std::exchange(TestAccess::TheProxy(), nullptr);
    }
}

TEST_F(SessionFlat, FunctionsShareOneProxyThatKeepsAShareOfTheClient) {
    EXPECT_EQ(2, m_client.use_count());
    EXPECT_EQ(0, SessionControl__Open());
    SessionControlProxy* proxy = TestAccess::TheProxy();
    ASSERT_NE(nullptr, proxy);
    EXPECT_EQ(proxy, SessionControlProxy::Instance());
    EXPECT_EQ(3, m_client.use_count());
    EXPECT_EQ(0, SessionControl__Open());
    EXPECT_EQ(0, SessionControl__Close());
    EXPECT_EQ(0, SessionControl__Close());
    EXPECT_EQ(proxy, TestAccess::TheProxy());
    EXPECT_EQ(3, m_client.use_count());
    EXPECT_THAT(m_client->Codes(), ElementsAre(openCode, closeCode));
}

TEST_F(SessionFlat, TheProxyIsCreatedOnceWhenThreadsRaceForIt) {
    SessionControlProxy* first = nullptr;
    ProxyFaults::beforeExclusive = [&first] {
        first = SessionControlProxy::Instance();
        return 0;
    };
    SessionControlProxy* second = SessionControlProxy::Instance();
    EXPECT_NE(nullptr, first);
    EXPECT_EQ(first, second);
}

// The child has no thread that would give the lock back.
TEST_F(SessionFlat, AChildThatIsForkedWhileAThreadLooksForTheProxyCreatesItsOwn) {
    std::promise<void> looking;
    std::promise<void> forked;
    ProxyFaults::afterShared = [&] {
        looking.set_value();
        forked.get_future().wait();
    };
    std::thread first([] { SessionControl__Open(); });
    looking.get_future().wait();
    const pid_t child = ForkWhileOthersSleep();
    if (child == 0) {
        alarm(20);
        _exit(SessionControl__Open() == 0 && SessionControl__Close() == 0 ? 0 : 1);
    }
    forked.set_value();
    first.join();
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ(0, SessionControl__Close());
}

// A callback of the client that comes back while the session lock is held would wait for itself.
TEST_F(SessionFlat, AnOpenInsideAnOpenFailsAndTheOuterOneGoesOn) {
    int inner = 0;
    m_client->onCall = [&inner](short, std::string&) {
        inner = SessionControl__Open();
        return true;
    };
    EXPECT_EQ(0, SessionControl__Open());
    EXPECT_EQ(-1, inner);
    EXPECT_EQ(1, TestAccess::Counter(*TestAccess::TheProxy()));
    EXPECT_EQ(1U, m_platform.CountStarting(6, "[API_LITE] exception: "));
}

TEST_F(SessionFlat, AnExceptionGivesMinus1AndOneLine) {
    const auto failToLock = [] {
        ProxyFaults::sharedError = EDEADLK;
        ProxyFaults::sharedErrors = 1;
    };
    const struct {
        const char* name;
        const Function& function;
        const char* lineOf; // the function that the line names
    } rows[] = {
        {"open", open, "SessionControl__Open"},
        {"close",
         [] {
             return Outcome{SessionControl__Close(), false};
         },
         "SessionControl__Close"},
        {"open trace", openTrace, "SessionControl__OpenDebugTrace"},
        {"close trace", closeTrace, "SessionControl__CloseDebugTrace"},
        {"text", getText, "SessionControl__GetSessionsDebugInfo"},
        {"terminated", isTerminated, "SessionControl__IsMavixTerminated"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        m_platform.Reset();
        failToLock();
        const Outcome outcome = row.function();
        EXPECT_EQ(-1, outcome.result);
        EXPECT_FALSE(outcome.written);
        ASSERT_THAT(m_platform.Lines(), SizeIs(1));
        EXPECT_EQ("SessionControl_C", m_platform.Lines()[0].source);
        EXPECT_EQ(row.lineOf, m_platform.Lines()[0].function);
        EXPECT_EQ(6, m_platform.Lines()[0].priority);
    }
    EXPECT_THAT(m_client->Sent(), IsEmpty());
}

// Each flat function in turn; whether all of them gave -1 and wrote nothing.
bool AllFail() {
    const Function close = [] { return Outcome{SessionControl__Close(), false}; };
    for (const Function* function : {&open, &close, &openTrace, &closeTrace, &getText, &isTerminated}) {
        const Outcome outcome = (*function)();
        if (outcome.result != -1 || outcome.written) {
            return false;
        }
    }
    return true;
}

constexpr const char* source = "../../../src/proxy/SessionControlProxy";

// Argument: whether the registry says that it is gone for good.
MAVIX_CHILD(EmptyRegistry) {
    FakeRegistry::isGone = arguments.at(0) == "gone";
    const bool failed = AllFail();
    std::printf("proxy: %d\n", TestAccess::TheProxy() != nullptr ? 1 : 0);
    return failed ? 0 : 1;
}

MAVIX_CHILD(NoMemoryForTheProxy) {
    FakeRegistry::client = std::make_shared<FakeClient>();
    ProxyFaults::noMemory = true;
    const bool failed = AllFail();
    const bool isNull = SessionControlProxy::Instance() == nullptr;
    ProxyFaults::noMemory = false;
    // Later there is room.
    return failed && isNull && SessionControl__Open() == 0 ? 0 : 1;
}

// Members of a proxy that was made without a client, in an order that shows the counter.
MAVIX_CHILD(MembersWithoutAClient) {
    SessionControlProxy proxy(nullptr);
    SessionControlDebugInfo info{24, "caller", 1};
    char* text = nullptr;
    int flag = 77;
    const bool failed = proxy.DecreaseSessionCount() == -1 && proxy.IncreaseSessionCount() == -1 &&
                        proxy.IncreaseSessionCount() == -1 && proxy.DecreaseSessionCount() == -1 &&
                        TestAccess::Open(proxy) == -1 && TestAccess::Close(proxy) == -1 &&
                        proxy.OpenDebugTrace(1, &info) == -1 && proxy.OpenDebugTrace(1, nullptr) == -1 &&
                        proxy.CloseDebugTrace(1) == -1 && proxy.GetSessionsDebugInfo(&text) == -1 &&
                        proxy.GetSessionsDebugInfo(nullptr) == -1 && proxy.IsMavixTerminated(&flag) == -1 &&
                        proxy.IsMavixTerminated(nullptr) == -1;
    return failed && text == nullptr && flag == 77 ? 0 : 1;
}

using SessionFlavour = FlavourFixture;

TEST_F(SessionFlavour, WithoutAClientTheProcessStops) {
    for (const char* child : {"EmptyRegistry", "MembersWithoutAClient"}) {
        const ChildResult result = RunChildProgram(child, plainFlavour, {"empty"});
        EXPECT_EQ(SIGABRT, result.signal) << child;
        EXPECT_EQ(1U, CountAssertions(result, source, "m_ipcConnection", "Failed to create IPC object"))
            << result.errors;
    }
}

TEST_F(SessionFlavour, WithoutAClientEveryFunctionFailsOnARelease) {
    const ChildResult result = RunChildProgram("EmptyRegistry", releaseFlavour, {"empty"});
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_EQ("proxy: 1\n", result.output);
    // Said once, when the proxy is made; then by each function, an open by its own line.
    EXPECT_EQ(1U, CountAssertions(result, source, "m_ipcConnection", "Failed to create IPC object"));
    EXPECT_EQ(5U, result.CountLines(6, "[API_LITE] no client")) << result.errors;
    EXPECT_EQ(1U, result.CountLines(6, "Open Session, retCode(-1), refCount(1), m_sessionState(undefined)"));
}

TEST_F(SessionFlavour, WithoutAClientEveryMemberFailsOnARelease) {
    const ChildResult result = RunChildProgram("MembersWithoutAClient", releaseFlavour);
    EXPECT_EQ(0, result.exitCode) << result.errors;
}

TEST_F(SessionFlavour, WithoutMemoryForTheProxyTheProcessStops) {
    const ChildResult result = RunChildProgram("NoMemoryForTheProxy");
    EXPECT_EQ(SIGABRT, result.signal) << result.errors;
    EXPECT_EQ(1U, CountAssertions(result, source, "m_pSessionControlProxy", "Failed to create proxy object"))
        << result.errors;
}

TEST_F(SessionFlavour, WithoutMemoryForTheProxyEveryFunctionFailsOnARelease) {
    const ChildResult result = RunChildProgram("NoMemoryForTheProxy", releaseFlavour);
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_EQ(7U, CountAssertions(result, source, "m_pSessionControlProxy", "Failed to create proxy object"))
        << result.errors;
}

TEST_F(SessionFlavour, ARegistryThatIsGoneFailsEveryFunctionWithoutAnAssertion) {
    const ChildResult result = RunChildProgram("EmptyRegistry", plainFlavour, {"gone"});
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_EQ("proxy: 0\n", result.output);
    EXPECT_EQ("", result.errors);
}

} // namespace
