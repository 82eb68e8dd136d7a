#include <mavix-api/SessionControl_C.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int fail(const char* what) {
    fprintf(stderr, "failed: %s\n", what);
    return 1;
}

/* Whether the service's text about its sessions has this in it. */
static int service_says(const char* part) {
    char* text = NULL;
    int found = 0;
    if (SessionControl__GetSessionsDebugInfo(&text) == 0)
        found = strstr(text, part) != NULL;
    free(text);
    return found;
}

int main(void) {
    SessionControlDebugInfo info = {24, "session-program", 3};
    SessionControlDebugInfo stack = {24, NULL, 4};
    SessionControlDebugInfo wrong = {23, "session-program", 3};
    int is_terminated = 7;

    if (SessionControl__Close() != -2)
        return fail("a close without an open");
    if (SessionControl__Open() != 0 || SessionControl__Open() != 0 || !service_says(": session open\n"))
        return fail("opening");
    if (SessionControl__OpenDebugTrace(1, &info) != 0 || SessionControl__OpenDebugTrace(2, &stack) != 0)
        return fail("opening traces");
    if (!service_says("  trace 1, parameter 3\n    session-program\n"))
        return fail("the first trace");
    if (!service_says("  trace 2, parameter 4\n    ") || !service_says("[0x"))
        return fail("the stack trace");
    if (SessionControl__OpenDebugTrace(3, &wrong) != -2 || SessionControl__OpenDebugTrace(3, NULL) != -2)
        return fail("wrong records");
    if (SessionControl__CloseDebugTrace(1) != 0 || SessionControl__CloseDebugTrace(2) != 0)
        return fail("closing traces");
    if (service_says("trace 1") || service_says("trace 2"))
        return fail("the end of the traces");
    if (SessionControl__GetSessionsDebugInfo(NULL) != -2 || SessionControl__IsMavixTerminated(NULL) != -2)
        return fail("results without a place");
    if (SessionControl__IsMavixTerminated(&is_terminated) != 0 || is_terminated != 0)
        return fail("the terminated flag");
    if (SessionControl__Close() != 0 || !service_says(": session open\n"))
        return fail("the first close");
    if (SessionControl__Close() != 0 || !service_says(": session closed\n"))
        return fail("the last close");
    puts("called from C");
    return 0;
}
