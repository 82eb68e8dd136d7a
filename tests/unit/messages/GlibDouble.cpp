#include "GlibDouble.h"

#include <atomic>
#include <cerrno>
#include <dlfcn.h>
#include <mutex>
#include <pthread.h>
#include <utility>

namespace {

std::mutex intervalsMutex;
std::vector<guint> intervals;
std::atomic<bool> contextsFail{false};
std::atomic<bool> loopsFail{false};
std::atomic<bool> threadsFail{false};

template <class Function>
Function* Next(Function* /*function*/, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

namespace MavixTest::GlibDouble {

void Reset() {
    const std::lock_guard<std::mutex> lock(intervalsMutex);
    intervals.clear();
}

std::vector<guint> TimeoutIntervals() {
    const std::lock_guard<std::mutex> lock(intervalsMutex);
    return intervals;
}

void SetContextsFail(bool fail) {
    contextsFail = fail;
}

void SetLoopsFail(bool fail) {
    loopsFail = fail;
}

void SetThreadsFail(bool fail) {
    threadsFail = fail;
}

} // namespace MavixTest::GlibDouble

extern "C" {

GSource* g_timeout_source_new(guint interval) {
    {
        const std::lock_guard<std::mutex> lock(intervalsMutex);
        intervals.push_back(interval);
    }
    return Next(g_timeout_source_new, "g_timeout_source_new")(interval);
}

GMainContext* g_main_context_new(void) {
    return contextsFail ? nullptr : Next(g_main_context_new, "g_main_context_new")();
}

GMainLoop* g_main_loop_new(GMainContext* context, gboolean running) {
    return loopsFail ? nullptr : Next(g_main_loop_new, "g_main_loop_new")(context, running);
}

__attribute__((visibility("default"))) int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                                          void* (*body)(void*), void* data) {
    return threadsFail ? EAGAIN : Next(pthread_create, "pthread_create")(thread, attributes, body, data);
}

} // extern "C"
