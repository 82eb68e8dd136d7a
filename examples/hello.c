#include <mavix-api/IPCConnection_C.h>

#include <stdio.h>

int main(void) {
    void* reply = NULL;
    unsigned int length = 0;
    if (!IPCConnection__Call("com.norvale.IAVControl", 1, "hello", 5, &reply, &length)) {
        fputs("the service did not answer\n", stderr);
        return 1;
    }
    printf("the service answered: %.*s\n", (int)length, (const char*)reply);
    IPCConnection__CallDisposeOutputBuffer(reply);
    return 0;
}
