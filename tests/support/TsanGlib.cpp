#include <gio/gio.h>

#include <atomic>
#include <dlfcn.h>
#include <map>
#include <mutex>
#include <sanitizer/tsan_interface.h>

// GLib's hand-overs, told to ThreadSanitizer, which does not see the futexes that GLib locks with. Compiled
// into test programs of a thread sanitizer build only, itself not instrumented.
//
// Rules: a function stands here only when GLib itself orders what happened before it on one thread and after
// it on another. It releases on the giving side and acquires on the taking side, on the narrowest address
// that both know: the element of a queue, not the queue; the source, not its context. It never ignores an
// access, so that data that is not handed over is still reported.

namespace {

void* NextSymbol(const char* name) {
    return dlsym(RTLD_NEXT, name);
}

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

#define NEXT(function) static const auto next = reinterpret_cast<decltype(&function)>(NextSymbol(#function))

void TryRecursive(GRecMutex* mutex) {
    NEXT(g_rec_mutex_trylock);
    if (next(mutex) != FALSE) {
        g_rec_mutex_unlock(mutex);
    }
}

void TryReader(GRWLock* lock) {
    NEXT(g_rw_lock_reader_trylock);
    if (next(lock) != FALSE) {
        g_rw_lock_reader_unlock(lock);
    }
}

// GLib allocates what these locks stand on at their first use, by whichever thread comes first.
template <class Lock>
void EnsureMade(Lock* lock, void (*firstUse)(Lock*)) {
    static std::atomic_flag busy = ATOMIC_FLAG_INIT;
    if (__atomic_load_n(&lock->p, __ATOMIC_SEQ_CST) == nullptr) {
        while (busy.test_and_set()) {
        }
        if (__atomic_load_n(&lock->p, __ATOMIC_SEQ_CST) == nullptr) {
            firstUse(lock);
            __tsan_release(&lock->i);
        }
        busy.clear();
    }
    __tsan_acquire(&lock->i);
}

// Those that GLib uses inside itself, for the types of variants and the domains of errors, are made here,
// before there are threads.
__attribute__((constructor)) void MakeInnerLocks() {
    g_variant_unref(g_variant_ref_sink(g_variant_new("(i)", 0)));
    g_error_free(g_error_new_literal(G_FILE_ERROR, 0, ""));
}

} // namespace

#pragma GCC visibility push(default)

extern "C" {

// Locks of GIO and GObject; GLib's own are bound inside it.

void g_mutex_lock(GMutex* mutex) {
    NEXT(g_mutex_lock);
    next(mutex);
    __tsan_acquire(mutex);
}

gboolean g_mutex_trylock(GMutex* mutex) {
    NEXT(g_mutex_trylock);
    const gboolean locked = next(mutex);
    if (locked != FALSE) {
        __tsan_acquire(mutex);
    }
    return locked;
}

void g_mutex_unlock(GMutex* mutex) {
    NEXT(g_mutex_unlock);
    __tsan_release(mutex);
    next(mutex);
}

// These stand on a lock of pthreads, which the sanitizer sees; what it does not see is who made that lock.

void g_rec_mutex_lock(GRecMutex* mutex) {
    NEXT(g_rec_mutex_lock);
    EnsureMade(mutex, TryRecursive);
    next(mutex);
}

gboolean g_rec_mutex_trylock(GRecMutex* mutex) {
    NEXT(g_rec_mutex_trylock);
    EnsureMade(mutex, TryRecursive);
    return next(mutex);
}

void g_rw_lock_reader_lock(GRWLock* lock) {
    NEXT(g_rw_lock_reader_lock);
    EnsureMade(lock, TryReader);
    next(lock);
}

gboolean g_rw_lock_reader_trylock(GRWLock* lock) {
    NEXT(g_rw_lock_reader_trylock);
    EnsureMade(lock, TryReader);
    return next(lock);
}

void g_rw_lock_writer_lock(GRWLock* lock) {
    NEXT(g_rw_lock_writer_lock);
    EnsureMade(lock, TryReader);
    next(lock);
}

gboolean g_rw_lock_writer_trylock(GRWLock* lock) {
    NEXT(g_rw_lock_writer_trylock);
    EnsureMade(lock, TryReader);
    return next(lock);
}

void g_cond_wait(GCond* condition, GMutex* mutex) {
    NEXT(g_cond_wait);
    __tsan_release(mutex);
    next(condition, mutex);
    __tsan_acquire(mutex);
}

gboolean g_cond_wait_until(GCond* condition, GMutex* mutex, gint64 end) {
    NEXT(g_cond_wait_until);
    __tsan_release(mutex);
    const gboolean signalled = next(condition, mutex, end);
    __tsan_acquire(mutex);
    return signalled;
}

// Thread-safe once.

gboolean(g_once_init_enter)(volatile void* location) {
    NEXT(g_once_init_enter);
    const gboolean first = next(location);
    __tsan_acquire(const_cast<void*>(location));
    return first;
}

void(g_once_init_leave)(volatile void* location, gsize result) {
    NEXT(g_once_init_leave);
    __tsan_release(const_cast<void*>(location));
    next(location, result);
}

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
