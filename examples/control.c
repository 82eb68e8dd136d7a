#include "control.h"

#include <gio/gio.h>
#include <string.h>
#include <unistd.h>

static const int limit_ms = 10000;
static const gulong pause_us = 5000;

static GDBusConnection* bus(void) {
    static GDBusConnection* connection;
    if (connection == NULL)
        connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, NULL, NULL);
    return connection;
}

/* The reply, to be released; null on failure. Takes over floating arguments. */
static GVariant* call(const char* method, GVariant* arguments) {
    return g_dbus_connection_call_sync(bus(), "com.norvale.Sim.Daemon", "/com/norvale/Sim", "com.norvale.Sim",
                                       method, arguments, NULL, G_DBUS_CALL_FLAGS_NO_AUTO_START, limit_ms,
                                       NULL, NULL);
}

static bool call_without_result(const char* method, GVariant* arguments) {
    GVariant* reply = call(method, arguments);
    if (reply == NULL)
        return false;
    g_variant_unref(reply);
    return true;
}

/* A text, to be released; null on failure. */
static char* call_for_text(const char* method) {
    GVariant* reply = call(method, NULL);
    char* text = NULL;
    if (reply == NULL)
        return NULL;
    g_variant_get(reply, "(s)", &text);
    g_variant_unref(reply);
    return text;
}

bool control_emit(const char* type, int id, unsigned int handle_high, unsigned int handle_low,
                  const char* payload) {
    GVariant* bytes = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, payload, strlen(payload), 1);
    return call_without_result("Emit",
                               g_variant_new("(siuu@ays)", type, id, handle_high, handle_low, bytes, ""));
}

/* Whether one of the record's lines, each a JSON object, tells of the call. */
static bool has_async_call(const char* records, const char* payload) {
    GString* hex = g_string_new("\"payload\":\"");
    char* pid = g_strdup_printf("\"pid\":%d,", (int)getpid());
    char** lines = g_strsplit(records, "\n", -1);
    bool found = false;
    for (; *payload != '\0'; ++payload)
        g_string_append_printf(hex, "%02x", (unsigned int)(unsigned char)*payload);
    g_string_append(hex, "\"");
    for (char** line = lines; *line != NULL && !found; ++line)
        found = strstr(*line, hex->str) != NULL && strstr(*line, pid) != NULL &&
                strstr(*line, "\"ok\":true") != NULL && strstr(*line, "\"noReply\":true") != NULL;
    g_strfreev(lines);
    g_free(pid);
    g_string_free(hex, TRUE);
    return found;
}

bool control_wait_for_async_call(const char* payload) {
    const gint64 end = g_get_monotonic_time() + limit_ms * G_TIME_SPAN_MILLISECOND;
    while (g_get_monotonic_time() < end) {
        char* records = call_for_text("Records");
        const bool found = records != NULL && has_async_call(records, payload);
        g_free(records);
        if (found)
            return true;
        g_usleep(pause_us);
    }
    return false;
}

int control_service_pid(void) {
    GVariant* reply = g_dbus_connection_call_sync(
        bus(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetConnectionUnixProcessID", g_variant_new("(s)", "com.norvale.MavixAPI"), G_VARIANT_TYPE("(u)"),
        G_DBUS_CALL_FLAGS_NONE, limit_ms, NULL, NULL);
    guint32 pid = 0;
    if (reply != NULL) {
        g_variant_get(reply, "(u)", &pid);
        g_variant_unref(reply);
    }
    return (int)pid;
}

int control_restart_service(void) {
    const gint64 end = g_get_monotonic_time() + limit_ms * G_TIME_SPAN_MILLISECOND;
    const int before = control_service_pid();
    if (before == 0 || !call_without_result("Exit", g_variant_new("(i)", 0)))
        return 0;
    while (g_get_monotonic_time() < end) {
        const int now = control_service_pid();
        if (now != 0 && now != before)
            return now;
        g_usleep(pause_us);
    }
    return 0;
}
