#ifndef MAVIX_TEST_MOCK_CLIENT_H
#define MAVIX_TEST_MOCK_CLIENT_H

#include "IpcClientInterface.h"
#include "MessageBuffer.h"

#include <gmock/gmock.h>

#include <string>

namespace MavixTest {

// A client that is told what to do.
class MockClient : public MavixApiLite::TIIpcClient {
public:
    MOCK_METHOD(bool, AddMatchRule, (EIPCMessageType, int, const MavixApiLite::MAVIXHandle&), (override));
    MOCK_METHOD(bool, RemoveMatchRule, (EIPCMessageType, int, const MavixApiLite::MAVIXHandle&), (override));
    MOCK_METHOD(bool, Call,
                (const std::string&, short, MavixApiLite::TCMessageBuffer&, MavixApiLite::TCMessageBuffer&),
                (override));
    MOCK_METHOD(bool, CallAsync, (const std::string&, short, MavixApiLite::TCMessageBuffer&), (override));
    MOCK_METHOD(bool, WaitForCreateInterface, (const char*), (override));
    MOCK_METHOD(void, SetCallbackFunction, (EIPCMessageType, void (*)(int, const char*, int)), (override));
    MOCK_METHOD(void, UnsetCallbackFunction, (EIPCMessageType), (override));
    MOCK_METHOD(bool, UseBoostingInheritance, (bool), (override));
};

inline std::string TextOf(const MavixApiLite::TCMessageBuffer& buffer) {
    const char* data = buffer.GetAsCStr(0);
    return data != nullptr ? std::string(data, buffer.PayloadSize()) : "";
}

} // namespace MavixTest

#endif
