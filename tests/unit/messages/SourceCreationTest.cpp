#include "SourceFixture.h"

using namespace MavixTest;
using Texts = std::vector<std::string>;

// A queue or a source that cannot be made. The linker puts these functions between the library and GLib.

namespace {

bool queuesFail = false;
bool sourcesFail = false;

class MessageSourceCreation : public MessageSourceFixture {
protected:
    ~MessageSourceCreation() override {
        queuesFail = false;
        sourcesFail = false;
    }

    GAsyncQueue* m_StartInVain() {
        GAsyncQueue* const queue = m_handler->Start(m_context.get(), [](TIIpcMessage&) { ADD_FAILURE(); });
        EXPECT_EQ(Texts{"GLib: g_source_attach: assertion 'source != NULL' failed"}, m_complaints.Take());
        EXPECT_EQ(nullptr, m_Source());
        return queue;
    }

    void m_ExpectThatItStartsLater() {
        m_Start();
        m_Push(1);
        m_IterateAll();
        EXPECT_EQ(std::vector<std::int32_t>{1}, m_delivered);
    }
};

} // namespace

extern "C" {

GAsyncQueue* RealNewQueue(GDestroyNotify free) asm("__real_g_async_queue_new_full");
GAsyncQueue* FakeNewQueue(GDestroyNotify free) asm("__wrap_g_async_queue_new_full");
GSource* RealNewSource(GSourceFuncs* functions, guint size) asm("__real_g_source_new");
GSource* FakeNewSource(GSourceFuncs* functions, guint size) asm("__wrap_g_source_new");

// GIO names these, too, so the linker wants to show them.
__attribute__((visibility("default"))) GAsyncQueue* FakeNewQueue(GDestroyNotify free) {
    return queuesFail ? nullptr : RealNewQueue(free);
}

__attribute__((visibility("default"))) GSource* FakeNewSource(GSourceFuncs* functions, guint size) {
    return sourcesFail ? nullptr : RealNewSource(functions, size);
}

} // extern "C"

TEST_F(MessageSourceCreation, WithoutAQueueIsLoggedAndStartGivesNull) {
    queuesFail = true;
    EXPECT_EQ(nullptr, m_StartInVain());
    m_ExpectLines(6, "m_CreateSource", "g_async_queue_new_full failed");
    queuesFail = false;
    m_ExpectThatItStartsLater();
}

TEST_F(MessageSourceCreation, WithoutASourceIsLoggedAndStartGivesNull) {
    sourcesFail = true;
    EXPECT_EQ(nullptr, m_StartInVain());
    m_ExpectLines(6, "m_CreateSource", "g_source_new failed!");
    sourcesFail = false;
    m_ExpectThatItStartsLater();
}

TEST_F(MessageSourceCreation, ThatFailedLeavesNothingToStop) {
    queuesFail = true;
    m_StartInVain();
    m_platform.Reset();
    m_handler->Stop();
    m_ExpectLines(4, "Stop", "Already stopped");
}
