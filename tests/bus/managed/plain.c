#include "plain.h"

#include <string.h>

#define REQUIRE(condition)                                                                                   \
    do {                                                                                                     \
        if (!(condition))                                                                                    \
            return __LINE__;                                                                                 \
    } while (0)

int plain_event_id;
int plain_event_value;

static int read_back(MavixMessageBuffer* result) {
    int number = 0;
    long long large = 0;
    char text[3];
    REQUIRE(TCMessageBuffer_PayloadSize(result) == 15);
    REQUIRE(TCMessageBuffer_ReadInt(result, &number, 0) && number == -5);
    REQUIRE(TCMessageBuffer_ReadLongLong(result, &large, 4) && large == 1LL << 40);
    REQUIRE(TCMessageBuffer_ReadConcatenated(result, 3, text, 12) && memcmp(text, "abc", 3) == 0);
    REQUIRE(!TCMessageBuffer_ReadInt(result, &number, 12));
    return 0;
}

int plain_call(void) {
    void* handle = TCIPCConnection_Create("plain", NULL, true);
    MavixMessageBuffer* arguments = TCMessageBuffer_Create();
    MavixMessageBuffer* result = TCMessageBuffer_Create();
    REQUIRE(handle != NULL && arguments != NULL && result != NULL);
    REQUIRE(TCMessageBuffer_PushInt(arguments, -5));
    REQUIRE(TCMessageBuffer_PushLongLong(arguments, 1LL << 40));
    REQUIRE(TCMessageBuffer_PushConcatenated(arguments, 3, "abc"));
    REQUIRE(TCIPCConnection_WaitForCreateInterface(handle, "com.norvale.ITest"));
    REQUIRE(TCIPCConnection_Call(handle, "com.norvale.ITest", 1, arguments, result));
    const int failed = read_back(result);
    TCMessageBuffer_Destroy(result);
    TCMessageBuffer_Destroy(arguments);
    TCIPCConnection_Destroy(handle);
    return failed;
}

static void on_data(int id, MavixMessageBuffer* payload) {
    plain_event_id = id;
    TCMessageBuffer_ReadInt(payload, &plain_event_value, 0);
}

int plain_register(void* handle) {
    TCPIConnection_SetCallbackFunction(handle, IPC_MESSAGE_DATA, on_data);
    REQUIRE(TCIPCConnection_AddMatchRule(handle, IPC_MESSAGE_DATA, 7, 0, 0));
    return 0;
}
