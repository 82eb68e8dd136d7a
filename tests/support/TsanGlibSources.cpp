#include "TsanGlib.h"

#include <map>
#include <mutex>

namespace {

// What a source calls and with what. The source's address is the one that both threads know.
struct Callback {
    GSource* source;
    GSourceFunc function;
    gpointer data;
    GDestroyNotify notify;
};

gboolean RunCallback(gpointer record) {
    auto* callback = static_cast<Callback*>(record);
    GSource* const source = callback->source;
    __tsan_acquire(source);
    const gboolean again = callback->function(callback->data);
    __tsan_release(source);
    return again;
}

void DestroyCallback(gpointer record) {
    auto* callback = static_cast<Callback*>(record);
    __tsan_acquire(callback->source);
    if (callback->notify != nullptr) {
        callback->notify(callback->data);
    }
    delete callback;
}

// Sources of a type of its own: their table, replaced by one whose functions take over first.
struct SourceFunctions {
    GSourceFuncs replaced;
    const GSourceFuncs* original;
};

const GSourceFuncs& Original(const GSource* source) {
    return *reinterpret_cast<const SourceFunctions*>(source->source_funcs)->original;
}

gboolean Prepare(GSource* source, gint* timeout) {
    __tsan_acquire(source);
    const gboolean ready = Original(source).prepare(source, timeout);
    __tsan_release(source);
    return ready;
}

gboolean Check(GSource* source) {
    __tsan_acquire(source);
    const gboolean ready = Original(source).check(source);
    __tsan_release(source);
    return ready;
}

gboolean Dispatch(GSource* source, GSourceFunc function, gpointer data) {
    __tsan_acquire(source);
    const gboolean keep = Original(source).dispatch(source, function, data);
    __tsan_release(source);
    return keep;
}

void Finalize(GSource* source) {
    __tsan_acquire(source);
    Original(source).finalize(source);
}

GSourceFuncs* Replace(const GSourceFuncs* original) {
    static auto& known = *new std::map<const GSourceFuncs*, SourceFunctions>;
    static auto& mutex = *new std::mutex;
    const std::lock_guard<std::mutex> lock(mutex);
    const auto [at, isNew] = known.try_emplace(original, SourceFunctions{*original, original});
    if (isNew) {
        GSourceFuncs& replaced = at->second.replaced;
        replaced.prepare = original->prepare != nullptr ? Prepare : nullptr;
        replaced.check = original->check != nullptr ? Check : nullptr;
        replaced.dispatch = original->dispatch != nullptr ? Dispatch : nullptr;
        replaced.finalize = original->finalize != nullptr ? Finalize : nullptr;
    }
    return &at->second.replaced;
}

guint Attach(GSource* source, GMainContext* context, gint priority, GSourceFunc function, gpointer data,
             GDestroyNotify notify) {
    g_source_set_priority(source, priority);
    g_source_set_callback(source, function, data, notify);
    const guint id = g_source_attach(source, context);
    g_source_unref(source);
    return id;
}

// Whether a function handed to a context runs at once, because the caller iterates it or may; then it is the
// caller's until it is released, if it was acquired.
bool RunsAtOnce(GMainContext* context, bool& acquired) {
    if (g_main_context_is_owner(context) != FALSE) {
        return true;
    }
    GMainContext* own = g_main_context_get_thread_default();
    own = own != nullptr ? own : g_main_context_default();
    acquired = own == context && g_main_context_acquire(context) != FALSE;
    return acquired;
}

} // namespace

#pragma GCC visibility push(default)

extern "C" {

// Sources: what was done before they were attached, changed or dropped comes before their dispatch and their
// end, wherever these happen.

GSource* g_source_new(GSourceFuncs* functions, guint size) {
    NEXT(g_source_new);
    return next(Replace(functions), size);
}

// Other types of source call their callback with other arguments.
void g_source_set_callback(GSource* source, GSourceFunc function, gpointer data, GDestroyNotify notify) {
    NEXT(g_source_set_callback);
    __tsan_release(source);
    const bool plain = source->source_funcs == &g_timeout_funcs || source->source_funcs == &g_idle_funcs;
    if (plain && function != nullptr) {
        next(source, RunCallback, new Callback{source, function, data, notify}, DestroyCallback);
    } else {
        next(source, function, data, notify);
    }
}

guint g_source_attach(GSource* source, GMainContext* context) {
    NEXT(g_source_attach);
    if (source != nullptr) {
        __tsan_release(source);
    }
    return next(source, context);
}

void g_source_destroy(GSource* source) {
    NEXT(g_source_destroy);
    __tsan_release(source);
    next(source);
}

void g_source_unref(GSource* source) {
    NEXT(g_source_unref);
    __tsan_release(source);
    next(source);
}

guint g_idle_add_full(gint priority, GSourceFunc function, gpointer data, GDestroyNotify notify) {
    return Attach(g_idle_source_new(), nullptr, priority, function, data, notify);
}

guint g_idle_add(GSourceFunc function, gpointer data) {
    return g_idle_add_full(G_PRIORITY_DEFAULT_IDLE, function, data, nullptr);
}

guint g_timeout_add_full(gint priority, guint interval, GSourceFunc function, gpointer data,
                         GDestroyNotify notify) {
    return Attach(g_timeout_source_new(interval), nullptr, priority, function, data, notify);
}

guint g_timeout_add(guint interval, GSourceFunc function, gpointer data) {
    return g_timeout_add_full(G_PRIORITY_DEFAULT, interval, function, data, nullptr);
}

guint g_timeout_add_seconds_full(gint priority, guint interval, GSourceFunc function, gpointer data,
                                 GDestroyNotify notify) {
    return Attach(g_timeout_source_new_seconds(interval), nullptr, priority, function, data, notify);
}

guint g_timeout_add_seconds(guint interval, GSourceFunc function, gpointer data) {
    return g_timeout_add_seconds_full(G_PRIORITY_DEFAULT, interval, function, data, nullptr);
}

void g_main_context_invoke_full(GMainContext* context, gint priority, GSourceFunc function, gpointer data,
                                GDestroyNotify notify) {
    context = context != nullptr ? context : g_main_context_default();
    bool acquired = false;
    if (!RunsAtOnce(context, acquired)) {
        Attach(g_idle_source_new(), context, priority, function, data, notify);
        return;
    }
    while (function(data) != FALSE) {
    }
    if (acquired) {
        g_main_context_release(context);
    }
    if (notify != nullptr) {
        notify(data);
    }
}

void g_main_context_invoke(GMainContext* context, GSourceFunc function, gpointer data) {
    g_main_context_invoke_full(context, G_PRIORITY_DEFAULT, function, data, nullptr);
}

// A loop ends after whoever quit it.

void g_main_loop_quit(GMainLoop* loop) {
    NEXT(g_main_loop_quit);
    __tsan_release(loop);
    next(loop);
}

void g_main_loop_run(GMainLoop* loop) {
    NEXT(g_main_loop_run);
    next(loop);
    __tsan_acquire(loop);
}

} // extern "C"

#pragma GCC visibility pop
