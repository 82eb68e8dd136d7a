#include "ClientFixture.h"

#include "EventCollector.h"
#include "FlavourFixture.h"

#include <future>
#include <thread>

// Setting and unsetting callbacks, from outside and from inside of one.

using namespace MavixTest;
using namespace MavixApiLite;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

TCIpcClient* clientOfCallbacks = nullptr;
std::function<void()> insideCallback;

void RunInside(int id, const char* data, int length) {
    EventCollector::Callback<2>(id, data, length);
    if (insideCallback) {
        insideCallback();
    }
}

class Callback : public ClientTest {
protected:
    Callback() {
        clientOfCallbacks = &Client();
        insideCallback = nullptr;
        EventCollector::Events().clear();
    }
    ~Callback() override { insideCallback = nullptr; }

    void Emit(const char* member, int id) {
        Handle(Signal(member, "('" + std::to_string(id) + "', '0', [byte 0x61])"));
    }
    std::vector<Event>& Events() { return EventCollector::Events(); }
};

constexpr auto data = IPC_MESSAGE_DATA;
constexpr auto program = IPC_MESSAGE_PROGRAM;

TEST_F(Callback, GetsEventsFromSettingToUnsetting) {
    Emit("Data", 1);
    Client().SetCallbackFunction(data, EventCollector::CallbackOf(2));
    Emit("Data", 2);
    Client().UnsetCallbackFunction(data);
    Emit("Data", 3);
    EXPECT_THAT(Events(), ElementsAre(Event{2, 2, "a"}));
}

TEST_F(Callback, TheLatestOneCounts) {
    Client().SetCallbackFunction(data, EventCollector::CallbackOf(4));
    Client().SetCallbackFunction(data, EventCollector::CallbackOf(5));
    Emit("Data", 1);
    EXPECT_THAT(Events(), ElementsAre(Event{5, 1, "a"}));
}

TEST_F(Callback, UnsettingLeavesADebugLineForATypeThatHasOne) {
    for (int type = 0; type < IPC_MESSAGE_MAX; ++type) {
        const auto messageType = static_cast<EIPCMessageType>(type);
        m_platform.Reset();
        Client().UnsetCallbackFunction(messageType);
        EXPECT_THAT(LogFrom(0), IsEmpty());
        Client().SetCallbackFunction(messageType, EventCollector::CallbackOf(type));
        EXPECT_THAT(LogFrom(0), IsEmpty());
        Client().UnsetCallbackFunction(messageType);
        const std::string member = TestAccess::ConvertMsgTypeToString(Client(), messageType);
        EXPECT_THAT(LogFrom(0), ElementsAre("3|IpcClient|[API_LITE] "
                                            "interfaceName:com.norvale.Mavix.SignalIFace, "
                                            "objectName:/com/norvale/Mavix/SignalObject, MsgType: " +
                                            member));
    }
}

TEST_F(Callback, MayUnsetItselfWhileItRuns) {
    insideCallback = [] { clientOfCallbacks->UnsetCallbackFunction(data); };
    Client().SetCallbackFunction(data, RunInside);
    Emit("Data", 1);
    Emit("Data", 2);
    EXPECT_THAT(Events(), ElementsAre(Event{2, 1, "a"}));
}

TEST_F(Callback, MayReplaceItselfWhileItRuns) {
    insideCallback = [] { clientOfCallbacks->SetCallbackFunction(data, EventCollector::CallbackOf(7)); };
    Client().SetCallbackFunction(data, RunInside);
    Emit("Data", 1);
    Emit("Data", 2);
    EXPECT_THAT(Events(), ElementsAre(Event{2, 1, "a"}, Event{7, 2, "a"}));
}

TEST_F(Callback, MaySetAnotherTypesCallbackWhileItRuns) {
    insideCallback = [] { clientOfCallbacks->SetCallbackFunction(program, EventCollector::CallbackOf(3)); };
    Client().SetCallbackFunction(data, RunInside);
    Emit("Data", 1);
    Emit("Program", 2);
    EXPECT_THAT(Events(), ElementsAre(Event{2, 1, "a"}, Event{3, 2, "a"}));
}

TEST_F(Callback, MayHandleAFurtherEventOfItsTypeWhileItRuns) {
    bool nested = false;
    insideCallback = [this, &nested] {
        if (!std::exchange(nested, true)) {
            Emit("Data", 2);
        }
    };
    Client().SetCallbackFunction(data, RunInside);
    Emit("Data", 1);
    EXPECT_THAT(Events(), ElementsAre(Event{2, 1, "a"}, Event{2, 2, "a"}));
}

TEST_F(Callback, MayCallTheServiceWhileItRuns) {
    AnswerWith("(byte 1, 0, @ay [])");
    bool called = false;
    insideCallback = [this, &called] { called = Call() && CallAsync(); };
    Client().SetCallbackFunction(data, RunInside);
    Emit("Data", 1);
    EXPECT_TRUE(called);
    EXPECT_EQ(2U, Requests().size());
}

TEST_F(Callback, OtherTypesAreSetByOtherThreadsWhileItRuns) {
    insideCallback = [] {
        std::thread([] {
            clientOfCallbacks->SetCallbackFunction(program, EventCollector::CallbackOf(3));
            clientOfCallbacks->UnsetCallbackFunction(program);
        }).join();
    };
    Client().SetCallbackFunction(data, RunInside);
    Emit("Data", 1);
    EXPECT_THAT(Events(), ElementsAre(Event{2, 1, "a"}));
}

TEST_F(Callback, AnotherThreadThatSetsOrUnsetsItsTypeWaitsForItsEnd) {
    const std::function<void()> changes[] = {
        [] { clientOfCallbacks->SetCallbackFunction(data, nullptr); },
        [] { clientOfCallbacks->UnsetCallbackFunction(data); },
    };
    for (const std::function<void()>& change : changes) {
        SCOPED_TRACE(&change == changes ? "set" : "unset");
        Events().clear();
        std::promise<void> running;
        std::promise<void> release;
        insideCallback = [&] {
            running.set_value();
            release.get_future().wait();
        };
        Client().SetCallbackFunction(data, RunInside);
        std::thread events([this] { Emit("Data", 1); });
        running.get_future().wait();
        std::future<void> changed = std::async(std::launch::async, change);
        EXPECT_EQ(std::future_status::timeout, changed.wait_for(std::chrono::milliseconds(50)));
        release.set_value();
        changed.wait();
        events.join();
        Emit("Data", 2);
        EXPECT_THAT(Events(), ElementsAre(Event{2, 1, "a"}));
    }
}

// Arguments: "set" or "unset", the type.
MAVIX_CHILD(CallbackOfUnknownType) {
    FakedClient faked;
    const auto type = static_cast<EIPCMessageType>(std::stoi(arguments.at(1)));
    if (arguments.at(0) == "set") {
        faked.Client().SetCallbackFunction(type, EventCollector::CallbackOf(0));
    } else {
        faked.Client().UnsetCallbackFunction(type);
    }
    for (const auto& callback : TestAccess::Callbacks(faked.Client())) {
        if (callback != nullptr) {
            return 1;
        }
    }
    return 0;
}

constexpr const char* source = "../../../src/ipc/IpcClient";
constexpr const char* unknownType = "type < IPC_MESSAGE_MAX";

using CallbackFlavour = FlavourFixture;

TEST_F(CallbackFlavour, AnUnknownTypeStopsTheProcess) {
    for (const char* operation : {"set", "unset"}) {
        for (const char* type : {"14", "-1"}) {
            SCOPED_TRACE(testing::Message() << operation << ' ' << type);
            const ChildResult result =
                RunChildProgram("CallbackOfUnknownType", plainFlavour, {operation, type});
            EXPECT_EQ(SIGABRT, result.signal);
            EXPECT_TRUE(HasAssertion(result, source, unknownType)) << result.errors;
        }
    }
}

TEST_F(CallbackFlavour, AnUnknownTypeIsIgnoredOnARelease) {
    const std::pair<const char*, const char*> operations[] = {{"set", "SetCallbackFunction"},
                                                              {"unset", "UnsetCallbackFunction"}};
    for (const auto& [operation, function] : operations) {
        for (const char* type : {"14", "20", "-1", "2147483647"}) {
            SCOPED_TRACE(testing::Message() << operation << ' ' << type);
            const ChildResult result =
                RunChildProgram("CallbackOfUnknownType", releaseFlavour, {operation, type});
            EXPECT_EQ(0, result.exitCode) << result.errors;
            EXPECT_TRUE(HasAssertion(result, source, unknownType)) << result.errors;
            EXPECT_TRUE(HasAssertLine(result, function)) << result.output;
        }
    }
}

} // namespace
