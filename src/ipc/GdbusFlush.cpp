#include "GdbusFlush.h"

#include "Handles.h"

namespace MavixApiLite {

namespace {

constexpr guint flushLimitMs = 1000;

// Leaked when the flush never answers: its callback may then still come.
struct TCFlushState {
    bool done = false;
    bool timedOut = false;
};

void OnFlushed(GObject* connection, GAsyncResult* result, gpointer data) {
    g_dbus_connection_flush_finish(G_DBUS_CONNECTION(connection), result, nullptr);
    static_cast<TCFlushState*>(data)->done = true;
}

gboolean OnTimeLimit(gpointer data) {
    static_cast<TCFlushState*>(data)->timedOut = true;
    return G_SOURCE_REMOVE;
}

// Iterates until the flush has answered or the time limit has passed.
void Await(GMainContext* context, TCFlushState& state) {
    state.timedOut = false;
    const SourceHandle timer(g_timeout_source_new(flushLimitMs));
    g_source_set_static_name(timer.get(), "mavix-flush-limit");
    g_source_set_callback(timer.get(), OnTimeLimit, &state, nullptr);
    g_source_attach(timer.get(), context);
    while (!state.done && !state.timedOut) {
        g_main_context_iteration(context, TRUE);
    }
    g_source_destroy(timer.get());
}

void CutOff(GDBusConnection* connection) {
    GIOStream* stream = g_dbus_connection_get_stream(connection);
    if (G_IS_SOCKET_CONNECTION(stream)) {
        g_socket_shutdown(g_socket_connection_get_socket(G_SOCKET_CONNECTION(stream)), TRUE, TRUE, nullptr);
    }
}

void Flush(GDBusConnection* connection, bool cutOff) {
    if (g_dbus_connection_is_closed(connection) != FALSE) {
        return;
    }
    const MainContextHandle context(g_main_context_new());
    auto state = std::make_unique<TCFlushState>();
    g_main_context_push_thread_default(context.get());
    g_dbus_connection_flush(connection, nullptr, OnFlushed, state.get());
    Await(context.get(), *state);
    if (!state->done && cutOff) {
        CutOff(connection);
        Await(context.get(), *state);
    }
    g_main_context_pop_thread_default(context.get());
    if (!state->done) {
        static_cast<void>(state.release());
    }
}

} // namespace

void FlushBeforeClose(GDBusConnection* connection) {
    Flush(connection, true);
}

void FlushBeforeExit(GDBusConnection* connection) {
    Flush(connection, false);
}

} // namespace MavixApiLite
