#include "DbusBusWrapper.h"
#include "IPCCache.h"
#include "IpcAuxData.h"
#include "IpcMessage.h"
#include "IpcTypes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <type_traits>

using MavixApiLite::DbusBusWrapper;
using MavixApiLite::TIIpcMessage;

namespace {

template <class Enumeration>
constexpr bool
    is32Bits = sizeof(Enumeration) == 4 && std::is_same_v<std::underlying_type_t<Enumeration>, std::int32_t>;

} // namespace

TEST(Enumerations, Have32Bits) {
    EXPECT_TRUE(is32Bits<EIPCMessageType>);
    EXPECT_TRUE(is32Bits<TIIpcMessage::IpcMessageType>);
    EXPECT_TRUE(is32Bits<DbusBusWrapper::EBusMessage>);
    EXPECT_TRUE(is32Bits<IPCCache::AccessType>);
}

TEST(Enumerations, AccessTypesHaveTheirNumbers) {
    EXPECT_EQ(0, static_cast<int>(IPCCache::AccessType::Read));
    EXPECT_EQ(1, static_cast<int>(IPCCache::AccessType::Write));
}

TEST(Enumerations, EventTypesHaveTheirNumbers) {
    const struct {
        int number;
        EIPCMessageType type;
        const char* name;
    } rows[] = {
        {0, IPC_MESSAGE_SIGNAL, "IPC_MESSAGE_SIGNAL"},
        {1, IPC_MESSAGE_PIPELINE_EVENT, "IPC_MESSAGE_PIPELINE_EVENT"},
        {2, IPC_MESSAGE_DATA, "IPC_MESSAGE_DATA"},
        {3, IPC_MESSAGE_PROGRAM, "IPC_MESSAGE_PROGRAM"},
        {4, IPC_MESSAGE_SECTION, "IPC_MESSAGE_SECTION"},
        {5, IPC_MESSAGE_TEXTDATA, "IPC_MESSAGE_TEXTDATA"},
        {6, IPC_MESSAGE_DSM, "IPC_MESSAGE_DSM"},
        {7, IPC_MESSAGE_COPY_PROTECTION, "IPC_MESSAGE_COPY_PROTECTION"},
        {8, IPC_MESSAGE_PESDATA, "IPC_MESSAGE_PESDATA"},
        {9, IPC_MESSAGE_EXPESDATA, "IPC_MESSAGE_EXPESDATA"},
        {10, IPC_MESSAGE_HT, "IPC_MESSAGE_HT"},
        {11, IPC_MESSAGE_ATSC3_SIGNALLING, "IPC_MESSAGE_ATSC3_SIGNALLING"},
        {12, IPC_MESSAGE_ATSC3_MPD, "IPC_MESSAGE_ATSC3_MPD"},
        {13, IPC_MESSAGE_ATSC3_LINKAGE, "IPC_MESSAGE_ATSC3_LINKAGE"},
        {14, IPC_MESSAGE_MAX, "IPC_MESSAGE_MAX"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.number, static_cast<int>(row.type)) << row.name;
    }
}

TEST(Enumerations, MessageTypesHaveTheirNumbers) {
    EXPECT_EQ(0, static_cast<int>(TIIpcMessage::Signal));
    EXPECT_EQ(1, static_cast<int>(TIIpcMessage::MethodCall));
    EXPECT_EQ(2, static_cast<int>(TIIpcMessage::MethodReturn));
    EXPECT_EQ(3, static_cast<int>(TIIpcMessage::Error));
}

TEST(Enumerations, BusMessageCodesHaveTheirNumbers) {
    EXPECT_EQ(0, static_cast<int>(DbusBusWrapper::NotABusMessage));
    EXPECT_EQ(1, static_cast<int>(DbusBusWrapper::OwnerChanged));
    EXPECT_EQ(2, static_cast<int>(DbusBusWrapper::IntrospectionRequest));
}

TEST(Enumerations, AuxiliaryTagsHaveTheirNumbersAnd32Bits) {
    EXPECT_EQ(2, static_cast<int>(MavixApiLite::IPC_AUX_TIMESTAMP_RECEIVED));
    EXPECT_EQ(4, static_cast<int>(MavixApiLite::IPC_AUX_TIMESTAMP_SENT));
    EXPECT_TRUE(is32Bits<decltype(MavixApiLite::IPC_AUX_TIMESTAMP_SENT)>);
}

TEST(Enumerations, EventCallbacksArePlainFunctions) {
    EXPECT_TRUE((std::is_same_v<MavixEventCallback, void (*)(int, const char*, int)>));
}
