#include <mavix-api/IPCConnection_C.h>
#include <mavix-api/IPCUtility_C.h>

#include <stdio.h>
#include <string.h>

static int fail(const char* what) {
    fprintf(stderr, "failed: %s\n", what);
    return 1;
}

int main(void) {
    const char payload[] = {1, 0, 2, 0, 3};
    const char unique_name[] = ":1.42";
    char name[64] = {0};
    unsigned int capacity = sizeof name;
    void* reply = NULL;
    unsigned int length = 0;

    IPCUtility_GenerateSubConnectionName(unique_name, sizeof unique_name - 1, name, &capacity);
    if (capacity >= sizeof name || strcmp(name, "com.norvale.Mavix.Signal.mavix1.mavix42") != 0)
        return fail("the name of the second connection");
    if (!IPCConnection__Create())
        return fail("creating the client");
    if (!IPCConnection__Call("com.norvale.IAVControl", 1, payload, sizeof payload, &reply, &length))
        return fail("the call");
    if (length != sizeof payload || memcmp(reply, payload, sizeof payload) != 0)
        return fail("the answer");
    IPCConnection__CallDisposeOutputBuffer(reply);
    puts("called from C");
    return 0;
}
