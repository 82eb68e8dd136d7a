#include <mavix-api/IpcClientInstance.h>
#include <mavix-api/IpcClientInterface.h>
#include <mavix-api/MessageBuffer.h>

#include <cstdio>
#include <memory>

int main() {
    using MavixApiLite::TCMessageBuffer;
    const std::shared_ptr<MavixApiLite::TIIpcClient> client =
        MavixApiLite::TCIpcClientInstance::GetInstance();
    TCMessageBuffer input;
    TCMessageBuffer output;
    input.PushInt(42);
    input.PushShort(7);
    int number = 0;
    short second = 0;
    if (!client || !client->Call("com.norvale.IAVControl", 1, input, output)) {
        std::fputs("failed: the call\n", stderr);
        return 1;
    }
    output.ReadInt(&number, 0);
    output.ReadShort(&second, sizeof number);
    if (output.PayloadSize() != sizeof number + sizeof second || number != 42 || second != 7) {
        std::fputs("failed: the answer\n", stderr);
        return 1;
    }
    std::puts("called from C++");
    return 0;
}
