/* A tour of the library: one program opens a session with the service, calls it, receives its events, is
 * refused, sees it restart, and closes the session. Run it with the stand-in service:
 *
 *     mavix-sandbox --private-run --sim-option=--respawn -- tour
 *
 * Exit status 0 when every step held. */

#include "control.h"

#include <mavix-api/IPCCache_C.h>
#include <mavix-api/IPCConnection_C.h>
#include <mavix-api/SessionControl_C.h>

#include <errno.h>
#include <fcntl.h>
#include <glib.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

/* Any interface answers with what it was sent, except the stand-in's own, whose function codes are
 * behaviours. */
static const char* const interface_name = "com.norvale.IAVControl";
static const char* const behaviour_interface = "com.norvale.ISimTest";
enum { FUNCTION_ANY = 1, FUNCTION_REFUSE = 2 };

enum { HANDLE_HIGH = 1, HANDLE_LOW = 42, EVENT_KINDS = 3, EVENT_LIMIT_SECONDS = 10 };

typedef struct {
    EIPCMessageType type;
    const char* name;
    int id;
    const char* payload;
    MavixEventCallback callback;
    bool arrived;
} Event;

static void on_signal(int id, const char* data, int length);
static void on_program(int id, const char* data, int length);
static void on_text_data(int id, const char* data, int length);

static Event events[EVENT_KINDS] = {
    {IPC_MESSAGE_SIGNAL, "Signal", 11, "antenna connected", on_signal, false},
    {IPC_MESSAGE_PROGRAM, "Program", 12, "channel 7, evening news", on_program, false},
    {IPC_MESSAGE_TEXTDATA, "TextData", 13, "page 100", on_text_data, false},
};

static void say(const char* format, ...) G_GNUC_PRINTF(1, 2);

static void say(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
    fflush(stdout);
}

static void require(bool holds, const char* what) {
    if (holds)
        return;
    say("\nThe tour ends here: %s.\n", what);
    exit(EXIT_FAILURE);
}

/* Calls the service and checks that it answers with what it was sent. */
static void call_and_check(const char* text) {
    void* reply = NULL;
    unsigned int length = 0;
    const bool answered =
        IPCConnection__Call(interface_name, FUNCTION_ANY, text, (int)strlen(text), &reply, &length);
    require(answered, "the service did not answer");
    require(length == strlen(text) && memcmp(reply, text, length) == 0,
            "the answer is not what the service was sent");
    say("   We sent \"%s\", it answered \"%.*s\".\n", text, (int)length, (const char*)reply);
    IPCConnection__CallDisposeOutputBuffer(reply);
}

static void create(void) {
    say("1. We create the client. It connects to the bus in the background.\n");
    require(IPCConnection__Create(), "the client could not be created");
}

/* Prints what the service says about its sessions; ours has to be in that state. */
static void show_sessions(const char* state) {
    char* text = NULL;
    char* expected = g_strdup_printf("process %d: session %s\n", (int)getpid(), state);
    require(SessionControl__GetSessionsDebugInfo(&text) == 0, "the service says nothing about its sessions");
    say("   The service says about its sessions:\n   %s", text);
    require(strstr(text, expected) != NULL, "the service sees our session otherwise");
    free(text);
    g_free(expected);
}

static void open_session(void) {
    say("2. We open a session twice, as two components would. The service sees one.\n");
    require(SessionControl__Open() == 0 && SessionControl__Open() == 0, "the session could not be opened");
    show_sessions("open");
}

static void close_session(void) {
    say("9. We close the session twice. The service sees the last close.\n");
    require(SessionControl__Close() == 0, "the first close failed");
    show_sessions("open");
    require(SessionControl__Close() == 0, "the session could not be closed");
    show_sessions("closed");
}

static void call(void) {
    say("3. We call the service and wait for its answer. It is process %d.\n", control_service_pid());
    call_and_check("Is anybody there?");
}

static void call_without_waiting(void) {
    const char* const text = "Please tune to channel 7";
    say("4. We call it again, but do not wait.\n");
    require(IPCConnection__CallAsync(interface_name, FUNCTION_ANY, text, (int)strlen(text)),
            "the call was not accepted for sending");
    require(control_wait_for_async_call(text), "the call did not reach the service");
    say("   The service confirms that it received \"%s\".\n", text);
}

static void check_event(Event* event, int id, const char* data, int length) {
    say("   %s event, id %d: \"%.*s\"\n", event->name, id, length, data);
    require(!event->arrived, "an event arrived twice");
    require(id == event->id, "an event has a wrong id");
    require((size_t)length == strlen(event->payload) && memcmp(data, event->payload, (size_t)length) == 0,
            "an event has a wrong payload");
    event->arrived = true;
}

static void on_signal(int id, const char* data, int length) {
    check_event(&events[0], id, data, length);
}

static void on_program(int id, const char* data, int length) {
    check_event(&events[1], id, data, length);
}

static void on_text_data(int id, const char* data, int length) {
    check_event(&events[2], id, data, length);
}

static bool all_arrived(void) {
    for (int i = 0; i < EVENT_KINDS; ++i)
        if (!events[i].arrived)
            return false;
    return true;
}

static gboolean time_is_up(gpointer flag) {
    *(bool*)flag = true;
    return G_SOURCE_REMOVE;
}

static void receive_events(void) {
    bool too_late = false;
    say("5. We ask for events of three types and set a callback for each.\n");
    for (int i = 0; i < EVENT_KINDS; ++i) {
        IPCConnection__SetCallbackFunction(events[i].type, events[i].callback);
        require(IPCConnection__AddMatchRule(events[i].type, events[i].id, HANDLE_HIGH, HANDLE_LOW),
                "a match rule was not accepted for sending");
    }
    /* The bus handles what one connection sends in its order: after an answer, it has the rules. */
    call_and_check("Now tell us the news");
    for (int i = 0; i < EVENT_KINDS; ++i)
        require(control_emit(events[i].name, events[i].id, HANDLE_HIGH, HANDLE_LOW, events[i].payload),
                "the service did not emit an event");

    say("   The service emits them. They arrive while we run the default main context:\n");
    const guint timer = g_timeout_add_seconds(EVENT_LIMIT_SECONDS, time_is_up, &too_late);
    while (!all_arrived() && !too_late)
        g_main_context_iteration(NULL, TRUE);
    require(!too_late, "not every event arrived");
    g_source_remove(timer);
    for (int i = 0; i < EVENT_KINDS; ++i) {
        IPCConnection__RemoveMatchRule(events[i].type, events[i].id, HANDLE_HIGH, HANDLE_LOW);
        IPCConnection__UnsetCallbackFunction(events[i].type);
    }
}

static void be_refused(void) {
    void* reply = NULL;
    unsigned int length = 0;
    say("6. We ask for something that the service refuses.\n");
    require(!IPCConnection__Call(behaviour_interface, FUNCTION_REFUSE, NULL, 0, &reply, &length),
            "the service did not refuse");
    require(reply == NULL && length == 0, "a refused call handed something out");
    say("   It answers with an error: the call fails and hands nothing out.\n");
}

static void outlive_the_service(void) {
    say("7. The service restarts under our feet.\n");
    const int pid = control_restart_service();
    require(pid != 0, "the service did not come back");
    say("   It is process %d now. We call it as if nothing had happened.\n", pid);
    call_and_check("Are you well again?");
}

/* Why this process may not use a cache; null when it may. Whoever uses one gives its lock file mode and
 * owner. */
static const char* what_forbids(const char* lock_file) {
    const int file = open(lock_file, O_RDONLY | O_CREAT | O_CLOEXEC, 0666);
    const bool may = file >= 0 && fchmod(file, 0777) == 0 &&
                     fchown(file, MAVIX_CACHE_OWNER_UID, MAVIX_CACHE_OWNER_GID) == 0;
    const char* const reason = may ? NULL : strerror(errno);
    if (file >= 0)
        close(file);
    return reason;
}

static void read_and_reset(void* writer, void* reader, const char* value) {
    char* read = NULL;
    size_t size = 0;
    require(IPCCache_GetData(reader, "volume", 1, &read, &size), "the cache has no value");
    require(size == strlen(value) && memcmp(read, value, size) == 0, "the cache has another value");
    say("   A reader finds \"%.*s\".\n", (int)size, read);
    TCFreeMemory(read);
    require(IPCCache_ResetData(writer, "volume", 1), "the value could not be reset");
    require(!IPCCache_GetData(reader, "volume", 1, &read, &size), "a value is still there after its reset");
    say("   We reset it, and the reader finds nothing.\n");
}

static void share_a_value(void) {
    const char* const value = "42 percent";
    char* name = g_strdup_printf("mavix-tour-%d", (int)getpid());
    char* lock_file = g_strdup_printf("/run/%s_cache_lock", name);
    void* writer = IPCCache_CreateWriter(name);
    void* reader = IPCCache_CreateReader(name);
    say("8. We write a value into a cache, which any process may read without asking the service.\n");
    IPCCache_SetData(writer, "volume", 1, value, strlen(value));
    const char* const reason = what_forbids(lock_file);
    if (reason == NULL)
        read_and_reset(writer, reader, value);
    else
        say("   We may not: the cache's lock file %s cannot be made ours: %s.\n", lock_file, reason);
    IPCCache_Destroy(reader);
    IPCCache_Destroy(writer);
    /* A cache outlives its processes. This one is not to. */
    shm_unlink(name);
    unlink(lock_file);
    g_free(lock_file);
    g_free(name);
}

int main(void) {
    create();
    open_session();
    call();
    call_without_waiting();
    receive_events();
    be_refused();
    outlive_the_service();
    share_a_value();
    close_session();
    say("That was the tour: every step held.\n");
    return EXIT_SUCCESS;
}
