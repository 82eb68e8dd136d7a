#include "TsanGlib.h"

#pragma GCC visibility push(default)

extern "C" {

// Queues. The last reference frees what is still queued.

void g_async_queue_push(GAsyncQueue* queue, gpointer element) {
    NEXT(g_async_queue_push);
    if (queue != nullptr && element != nullptr) {
        __tsan_release(element);
        __tsan_release(queue);
    }
    next(queue, element);
}

gpointer g_async_queue_pop(GAsyncQueue* queue) {
    NEXT(g_async_queue_pop);
    gpointer element = next(queue);
    __tsan_acquire(element);
    return element;
}

gpointer g_async_queue_try_pop(GAsyncQueue* queue) {
    NEXT(g_async_queue_try_pop);
    gpointer element = next(queue);
    if (element != nullptr) {
        __tsan_acquire(element);
    }
    return element;
}

gpointer g_async_queue_timeout_pop(GAsyncQueue* queue, guint64 timeout) {
    NEXT(g_async_queue_timeout_pop);
    gpointer element = next(queue, timeout);
    if (element != nullptr) {
        __tsan_acquire(element);
    }
    return element;
}

void g_async_queue_unref(GAsyncQueue* queue) {
    NEXT(g_async_queue_unref);
    __tsan_release(queue);
    __tsan_acquire(queue);
    next(queue);
}

// A variant ends after whoever dropped a reference of it; its counter is out of reach.

void g_variant_unref(GVariant* variant) {
    NEXT(g_variant_unref);
    __tsan_release(variant);
    __tsan_acquire(variant);
    next(variant);
}

// An object ends after everyone who dropped a reference of it: who drops the last one is known only when the
// counter is stepped here. Objects with flags, which have toggle references, step theirs themselves.

void g_object_unref(gpointer object) {
    NEXT(g_object_unref);
    auto* counted = static_cast<GObject*>(object);
    __tsan_release(object);
    if (g_datalist_get_flags(&counted->qdata) == 0) {
        guint count = __atomic_load_n(&counted->ref_count, __ATOMIC_SEQ_CST);
        while (count > 1) {
            if (__atomic_compare_exchange_n(&counted->ref_count, &count, count - 1, false, __ATOMIC_SEQ_CST,
                                            __ATOMIC_SEQ_CST)) {
                return;
            }
        }
    }
    __tsan_acquire(object);
    next(object);
}

} // extern "C"

#pragma GCC visibility pop
