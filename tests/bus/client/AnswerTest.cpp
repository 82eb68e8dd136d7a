#include "ClientBus.h"

#include "sim/Behaviours.h"

// Every kind of answer, through the flat functions.

using namespace MavixTest;
using MavixSim::AuxVariant;
using MavixSim::Behaviour;
using MavixSim::WrongTypesVariant;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

using Answer = ClientBusTest;

Bytes Variant(int variant) {
    return {static_cast<std::uint8_t>(variant)};
}

TEST_F(Answer, ThePayloadComesBackInAnArrayOfTheCallers) {
    const Bytes payload{0, 1, 2, 0, 255};
    const CallResult result = Call(Behaviour::Echo, payload);
    EXPECT_TRUE(result.success);
    EXPECT_EQ(payload, result.output);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Answer, WithoutPayloadIsNullAndZero) {
    const CallResult result = Call(Behaviour::Echo);
    EXPECT_TRUE(result.success);
    EXPECT_FALSE(result.output);
}

TEST_F(Answer, OfMoreThanTheClientMayItselfSendArrives) {
    constexpr std::size_t size = 25165824;
    const CallResult result = Call(Behaviour::BigReply, IntBytes(size));
    ASSERT_TRUE(result.success);
    ASSERT_EQ(size, result.output->size());
    for (std::size_t at = 0; at < size; ++at) {
        ASSERT_EQ(static_cast<std::uint8_t>(at), (*result.output)[at]) << at;
    }
}

TEST_F(Answer, AnErrorLeavesItsLinesAndNoOutput) {
    const CallResult result = Call(Behaviour::Error, TextBytes("com.norvale.Error.Own\nOwn text."));
    EXPECT_FALSE(result.success);
    EXPECT_FALSE(result.output);
    EXPECT_THAT(Errors(), ElementsAre("IpcClient|[IPC][com.norvale.MavixAPI:com.norvale.ISimTest:2]",
                                      "IpcClient|[IPC][Error name: com.norvale.Error.Own]",
                                      "IpcClient|[IPC]'Own text.'"));
}

TEST_F(Answer, AnErrorOfASpecialisedBusNamesThatBus) {
    m_bus.daemon.SetReply("com.norvale.IAVControl", 66, Behaviour::Error);
    EXPECT_FALSE(Call("com.norvale.IAVControl", 66).success);
    EXPECT_THAT(Errors(),
                ElementsAre("IpcClient|[IPC][com.norvale.MavixAPI.HyperFast:com.norvale.IAVControl:66]",
                            "IpcClient|[IPC][Error name: com.norvale.Error.Refused]",
                            "IpcClient|[IPC]'Refused on request.'"));
}

TEST_F(Answer, AnErrorWithoutTextHasNoTextLine) {
    for (const Behaviour behaviour : {Behaviour::ErrorNoText, Behaviour::ErrorIntText}) {
        m_platform.Reset();
        EXPECT_FALSE(Call(behaviour).success);
        EXPECT_EQ(1U, m_platform.Count(6, "[IPC][Error name: com.norvale.Error.Refused]"));
        EXPECT_EQ(0U, m_platform.CountStarting(6, "[IPC]'"));
    }
}

constexpr const char* broken0 = "IpcClient|[API_LITE] Reply message is broken. Reply value: 0";
constexpr const char* broken6 = "IpcClient|[API_LITE] Reply message is broken. Reply value: 6";
constexpr const char* noByte = "IpcClient|[API_LITE] Expected DBUS_TYPE_BYTE.";
constexpr const char* noParameter = "IpcClient|Expected parameter";
constexpr const char* noArray = "IpcClient|[API_LITE] Expected bytes array";

// A line of the message's own.
std::string OfMessage(const std::string& text) {
    return std::string(ClientRow().messageSource) + "|" + text;
}

std::string TypeError(const char* text) {
    return OfMessage(std::string(text) + ClientRow().typeErrorMark);
}

TEST_F(Answer, OfEveryBrokenKindIsRefusedAndLeavesItsLines) {
    const std::string noMore = OfMessage(ClientRow().noMoreArguments);
    const std::string noArguments = OfMessage(ClientRow().noArguments);
    const std::string notAnArray = TypeError("Expected array");
    const std::string notAByte = TypeError("Expected byte");
    // Of two numbers.
    const Bytes wide = ClientRow().wideArraysAreWhole ? Bytes{4, 3, 2, 1, 8, 7, 6, 5} : Bytes{4, 3};
    const struct {
        const char* name;
        Behaviour behaviour;
        Bytes parameter;
        bool success;
        std::optional<Bytes> output;
        std::vector<std::string> errors;
    } rows[] = {
        {"broken byte", Behaviour::BrokenByte, Variant(0), false, {}, {broken0}},
        {"broken byte with block", Behaviour::BrokenByte, Variant(1), false, {}, {broken6}},
        {"no arguments", Behaviour::EmptyReturn, {}, false, {}, {noArguments, noByte}},
        {"siay", Behaviour::WrongTypes, Variant(0), false, {}, {notAByte, noByte}},
        {"iiay", Behaviour::WrongTypes, Variant(1), false, {}, {notAByte, noByte}},
        {"y", Behaviour::WrongTypes, Variant(2), false, {}, {noMore, noParameter}},
        {"yi", Behaviour::WrongTypes, Variant(3), false, {}, {noMore, noArray}},
        {"yis", Behaviour::WrongTypes, Variant(4), false, {}, {notAnArray, noArray}},
        {"yias", Behaviour::WrongTypes, Variant(5), false, {}, {notAnArray, noArray}},
        {"yiai", Behaviour::WrongTypes, Variant(6), true, wide, {}},
        {"yiv", Behaviour::WrongTypes, Variant(7), false, {}, {notAnArray, noArray}},
        {"yay", Behaviour::WrongTypes, Variant(8), false, {}, {noMore, noArray}},
        {"ysay", Behaviour::WrongTypes, Variant(9), true, Bytes{9}, {}},
        {"yiays", Behaviour::WrongTypes, Variant(10), true, Bytes{10}, {}},
        {"a length that lies", Behaviour::LengthLies, Bytes{1, 2}, true, Bytes{1, 2}, {}},
        // The payload is handed out although the call has failed.
        {"no block", Behaviour::AuxAbsent, Bytes{1, 2}, false, Bytes{1, 2}, {noMore, noParameter}},
        {"text for a block", Behaviour::Aux, Variant(7), false, Bytes{7}, {notAnArray, noArray}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        m_platform.Reset();
        const CallResult result = Call(row.behaviour, row.parameter);
        EXPECT_EQ(row.success, result.success);
        EXPECT_EQ(row.output, result.output);
        EXPECT_THAT(Errors(), ElementsAreArray(row.errors));
    }
}

TEST_F(Answer, WithABlockOfAnyContentSucceeds) {
    for (const AuxVariant variant :
         {AuxVariant::Both, AuxVariant::ReceivedOnly, AuxVariant::SentOnly, AuxVariant::EmptyValue,
          AuxVariant::Truncated, AuxVariant::UnknownTag, AuxVariant::ShortValue}) {
        SCOPED_TRACE(static_cast<int>(variant));
        const CallResult result = Call(Behaviour::Aux, Variant(static_cast<int>(variant)));
        EXPECT_TRUE(result.success);
        EXPECT_EQ(Variant(static_cast<int>(variant)), result.output);
    }
}

TEST_F(Answer, AnInterfaceNameThatDBusDoesNotAllowFails) {
    for (const char* name : {"", "foo bar", "nodots", "org.freedesktop.DBus.Local"}) {
        m_platform.Reset();
        EXPECT_FALSE(Call(name, 0).success);
        EXPECT_FALSE(CallAsync(name, 0));
        EXPECT_EQ(2U, m_platform.Count(6, "[API_LITE] Cannot create call message. Out of memory."));
        EXPECT_EQ(2U, m_platform.Count(6, "[API_LITE] m_PrepareCall failed."));
    }
    EXPECT_TRUE(Settle());
}

TEST_F(Answer, BadArgumentsFailAndTheClientWorksOn) {
    void* output = this;
    unsigned int length = 77;
    EXPECT_FALSE(IPCConnection__Call(nullptr, 0, "a", 1, &output, &length));
    EXPECT_FALSE(IPCConnection__Call("com.norvale.ITest", 0, "a", 1, &output, nullptr));
    EXPECT_FALSE(IPCConnection__Call("com.norvale.ITest", 0, "a", 1, nullptr, &length));
    EXPECT_EQ(this, output);
    EXPECT_EQ(77U, length);
    EXPECT_FALSE(IPCConnection__Call("com.norvale.ITest", 0, "a", -1, &output, &length));
    EXPECT_EQ(nullptr, output);
    EXPECT_EQ(0U, length);
    EXPECT_FALSE(IPCConnection__CallAsync(nullptr, 0, "a", 1));
    EXPECT_FALSE(IPCConnection__CallAsync("com.norvale.ITest", 0, "a", -1));
    EXPECT_THAT(m_bus.daemon.Records(), IsEmpty());
    // Without data its length does not count.
    EXPECT_TRUE(IPCConnection__Call("com.norvale.ITest", 0, nullptr, -1, &output, &length));
    EXPECT_EQ(nullptr, output);
    EXPECT_EQ(0, Records(1).at(0).at("size"));
}

TEST_F(Answer, EntryPointsThatDoNothingDoNothing) {
    IPCConnection__Destroy();
    EXPECT_TRUE(IPCConnection__Create());
    IPCConnection__CallDisposeOutputBuffer(nullptr);
    EXPECT_TRUE(IPCConnection__WaitForCreateInterface("com.norvale.INoSuchInterface"));
    EXPECT_FALSE(IPCConnection__WaitForCreateInterface(nullptr));
    EXPECT_THAT(m_bus.daemon.Records(), IsEmpty());
    EXPECT_TRUE(Settle());
}

TEST_F(Answer, TheInheritanceCanBeSwitchedOff) {
    const char* set = "resource_set_cpu_inheritance(0, mavix-daemon, 1999)";
    m_platform.Reset();
    EXPECT_TRUE(IPCConnection__UseBoostingInheritance(256));
    EXPECT_TRUE(Settle());
    EXPECT_EQ(0U, m_platform.CountCalls(set));
    EXPECT_TRUE(IPCConnection__UseBoostingInheritance(2));
    EXPECT_TRUE(Settle());
    EXPECT_EQ(1U, m_platform.CountCalls(set));
}

} // namespace
