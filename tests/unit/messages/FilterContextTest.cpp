#include "MessageFilterContext.h"
#include "SourceFixture.h"

using namespace MavixTest;

namespace {

// Whether the last reference of a context has gone.
struct ContextWitness {
    explicit ContextWitness(GMainContext* context) {
        const SourceHandle source(g_idle_source_new());
        g_source_set_callback(
            source.get(), [](gpointer) -> gboolean { return TRUE; }, this,
            [](gpointer self) { static_cast<ContextWitness*>(self)->gone = true; });
        g_source_attach(source.get(), context);
    }
    bool gone = false;
};

} // namespace

TEST(FilterContext, DestroyIgnoresNull) {
    MessageFilterContext::Destroy(nullptr);
}

TEST(FilterContext, DestroyDropsBothReferencesAndTheRecord) {
    const TCGlibLog complaints;
    GMainContext* const context = g_main_context_new();
    const ContextWitness witness(context);
    GAsyncQueue* const queue = g_async_queue_new_full(g_object_unref);
    g_async_queue_push(queue, Numbered(1).release());
    MessageFilterContext::Destroy(new MessageFilterContext{context, queue});
    EXPECT_TRUE(witness.gone);
    EXPECT_EQ(0, messagesAlive) << "the queue went with its elements";
}

TEST(FilterContext, DestroyDropsOnlyItsOwnReferences) {
    const MainContextHandle context(g_main_context_new());
    const ContextWitness witness(context.get());
    const MavixApiLite::AsyncQueueHandle queue(g_async_queue_new_full(g_object_unref));
    g_async_queue_push(queue.get(), Numbered(1).release());
    MessageFilterContext::Destroy(
        new MessageFilterContext{MavixApiLite::RefMainContext(context.get()).release(),
                                 MavixApiLite::RefAsyncQueue(queue.get()).release()});
    EXPECT_FALSE(witness.gone);
    EXPECT_EQ(1, messagesAlive);
}

TEST(FilterContext, DestroyTakesARecordWithoutContextOrQueue) {
    const TCGlibLog complaints;
    MessageFilterContext::Destroy(new MessageFilterContext{nullptr, nullptr});
    MessageFilterContext::Destroy(new MessageFilterContext{g_main_context_new(), nullptr});
    MessageFilterContext::Destroy(new MessageFilterContext{nullptr, g_async_queue_new()});
}
