#include "ChildProgram.h"
#include "GMainLoopHandler.h"
#include "SourceFixture.h"

#include <thread>

using namespace MavixTest;

// What the thread sanitizer's knowledge of GLib is worth: it reports what is not handed over, and nothing
// else.

namespace {

constexpr int reported = 66;

// A message handler on a loop thread, and data that the handler and the producer both touch.
class Scene final {
public:
    Scene() {
        m_message.SetRawMessage(Numbered(1).release());
        GMainContext* const context = m_loop.Start("TestLoop", 30);
        m_handler.Start(context, [this](TIIpcMessage&) {
            m_shared = m_shared + 1;
            m_handled.store(true, std::memory_order_relaxed);
        });
    }
    void Touch() { m_shared = m_shared + 1; }
    void Push() { m_handler.PushMessage(m_message); }
    // Without taking anything over from the handler's thread.
    bool WaitUntilHandled() {
        return Await([this] { return m_handled.load(std::memory_order_relaxed); });
    }

private:
    int m_shared = 0;
    std::atomic<bool> m_handled{false};
    TCGdbusMessage m_message; // kept: dropping a reference would hand over, too
    CountingAllocator m_allocator;
    MavixApiLite::TCGMainLoopHandler m_loop{std::make_unique<MavixApiLite::TCWatchdogHandler>()};
    TCGSourceHandler m_handler{&m_allocator};
};

} // namespace

MAVIX_CHILD(TouchBeforeTheHandOver) {
    Scene scene;
    scene.Touch();
    scene.Push();
    return scene.WaitUntilHandled() ? 0 : 1;
}

MAVIX_CHILD(TouchAfterTheHandOver) {
    Scene scene;
    scene.Push();
    scene.Touch();
    return scene.WaitUntilHandled() ? 0 : 1;
}

MAVIX_CHILD(TouchAfterTheHandler) {
    Scene scene;
    scene.Push();
    if (!scene.WaitUntilHandled()) {
        return 1;
    }
    scene.Touch();
    return 0;
}

TEST(ThreadSanitizer, SeesThatAQueuedMessageHandsOver) {
    const ChildResult result = RunChildProgram("TouchBeforeTheHandOver");
    EXPECT_EQ(0, result.exitCode) << result.errors;
}

TEST(ThreadSanitizer, ReportsWhatIsTouchedAfterTheHandOver) {
    for (const char* child : {"TouchAfterTheHandOver", "TouchAfterTheHandler"}) {
        const ChildResult result = RunChildProgram(child);
        EXPECT_EQ(reported, result.exitCode) << child << result.errors;
        EXPECT_NE(std::string::npos, result.errors.find("WARNING: ThreadSanitizer: data race")) << child;
        EXPECT_NE(std::string::npos, result.errors.find("ThreadSanitizerTest.cpp")) << child << result.errors;
    }
}
