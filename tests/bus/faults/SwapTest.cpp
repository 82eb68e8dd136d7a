#include "ChildProgram.h"
#include "tests/bus/client/ClientBus.h"

#include <fstream>
#include <thread>

// Calls in flight whose answers change places. The table's calls come one after the other.

using namespace MavixTest;

namespace {

// Whether each of two calls in flight gets its own answer, although the later one's comes first.
MAVIX_CHILD(SwapAnswers) {
    const TCPrivateBus bus;
    const std::string file = bus.Folder() + "/scenario.json";
    std::ofstream(file) << R"({"format":1,"interfaces":{"com.norvale.ITest":[)"
                        << R"({"code":1,"fault":"reorder","with":{"milliseconds":60000}}]}})";
    const TCSimProcess service(bus, {"--scenario=" + file}, true);
    const auto call = [](const char* text) { return Call("com.norvale.ITest", 1, TextBytes(text)); };
    for (int time = 0; time < 5; ++time) {
        CallResult first;
        std::thread other([&] { first = call("first"); });
        const CallResult second = call("second");
        other.join();
        if (first.output != TextBytes("first") || second.output != TextBytes("second")) {
            return 1;
        }
    }
    return 0;
}

TEST(FaultOfTwoCalls, AnswersThatChangePlacesReachTheirCallers) {
    const ChildResult result = RunChildProgram("SwapAnswers", plainFlavour, {}, std::chrono::seconds(120));
    EXPECT_EQ(0, result.exitCode) << result.errors;
}

} // namespace
