#include "ChildProgram.h"
#include "FlavourFixture.h"
#include "SourceFixture.h"

#include <csignal>
#include <stdexcept>
#include <unistd.h>

using namespace MavixTest;

// Stop from inside the handler, which is against its contract.

namespace {

constexpr const char* refusal = "Stopping from signal callback! Aborting..";

struct Scene {
    MainContextHandle context{g_main_context_new()};
    CountingAllocator allocator;
    std::unique_ptr<TCGSourceHandler> handler = std::make_unique<TCGSourceHandler>(&allocator);
    int handled = 0;

    void Start(const std::function<void()>& onMessage) {
        handler->Start(context.get(), [this, onMessage](TIIpcMessage&) {
            ++handled;
            onMessage();
        });
        for (std::int32_t number : {1, 2}) {
            TCGdbusMessage message;
            message.SetRawMessage(Numbered(number).release());
            handler->PushMessage(message);
        }
        while (g_main_context_iteration(context.get(), FALSE) != FALSE) {
        }
    }
};

class MessageSourceRefusal : public FlavourFixture {};

} // namespace

MAVIX_CHILD(StopInsideTheHandler) {
    Scene scene;
    scene.Start([&] { scene.handler->Stop(); });
    // Only a release build comes here.
    const bool nothingReleased = scene.allocator.deleted == 0 && scene.handled == 1 && messagesAlive == 1 &&
                                 TestAccess::Source(*scene.handler) != nullptr &&
                                 !TestAccess::Semaphore(*scene.handler)->signalled;
    // Outside of the handler it is an ordinary stop.
    scene.handler->Stop();
    const bool released =
        scene.allocator.deleted == 1 && messagesAlive == 0 && TestAccess::Source(*scene.handler) == nullptr;
    return nothingReleased ? released ? 0 : 2 : 1;
}

TEST_F(MessageSourceRefusal, StopInsideTheHandlerAborts) {
    const ChildResult result = RunChildProgram("StopInsideTheHandler");
    EXPECT_EQ(SIGABRT, result.signal) << result.errors;
    EXPECT_EQ(1U, result.CountLines(6, refusal)) << result.errors;
    EXPECT_TRUE(HasAssertion(result, "../../../src/ipc/GSourceHandler", "0")) << result.errors;
    EXPECT_TRUE(result.output.empty()) << result.output;
}

TEST_F(MessageSourceRefusal, StopInsideTheHandlerReturnsOnAReleaseAndReleasesNothing) {
    const ChildResult result = RunChildProgram("StopInsideTheHandler", releaseFlavour);
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_EQ(0, result.signal) << result.errors;
    EXPECT_EQ(1U, result.CountLines(6, refusal)) << result.errors;
    EXPECT_TRUE(HasAssertion(result, "../../../src/ipc/GSourceHandler", "0")) << result.errors;
}

MAVIX_CHILD(DestroyInsideTheHandler) {
    Scene scene;
    const auto captured = std::make_shared<int>(5);
    int after = 0;
    scene.Start([&scene, &after, captured] {
        scene.handler.reset();
        // The function that runs and what it captured are still there.
        after = *captured;
    });
    // What that callback used is leaked on purpose, so the leak check is left out.
    _exit(after == 5 && scene.handled == 1 ? 0 : 1);
}

TEST_F(MessageSourceRefusal, DestructionInsideTheHandlerAborts) {
    const ChildResult result = RunChildProgram("DestroyInsideTheHandler");
    EXPECT_EQ(SIGABRT, result.signal) << result.errors;
    EXPECT_EQ(1U, result.CountLines(6, refusal)) << result.errors;
}

TEST_F(MessageSourceRefusal, DestructionInsideTheHandlerKeepsWhatRunsOnARelease) {
    const ChildResult result = RunChildProgram("DestroyInsideTheHandler", releaseFlavour);
    EXPECT_EQ(0, result.exitCode) << result.errors;
    EXPECT_EQ(0, result.signal) << result.errors;
    EXPECT_EQ(1U, result.CountLines(6, refusal)) << result.errors;
}

MAVIX_CHILD(ThrowFromTheDestructor) {
    Scene scene;
    scene.allocator.onDelete = [] { throw std::runtime_error("not freed"); };
    GAsyncQueue* const queue = scene.handler->Start(scene.context.get(), [](TIIpcMessage&) {});
    g_async_queue_push(queue, Numbered(1).release());
    try {
        scene.handler.reset();
    } catch (const std::runtime_error&) {
        return 1;
    }
    return 2;
}

TEST_F(MessageSourceRefusal, AnExceptionInTheDestructorStopsTheProcessOnAReleaseToo) {
    for (const Flavour flavour : {plainFlavour, releaseFlavour}) {
        const ChildResult result = RunChildProgram("ThrowFromTheDestructor", flavour);
        EXPECT_EQ(SIGABRT, result.signal) << result.errors;
        EXPECT_EQ(std::string::npos, result.errors.find("Assertion failed")) << result.errors;
    }
}
