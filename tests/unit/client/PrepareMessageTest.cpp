#include "ClientFixture.h"

#include "ChildProgram.h"

#include <cerrno>
#include <numeric>
#include <sys/wait.h>
#include <unistd.h>

// How a request is laid out.

using namespace MavixTest;
using namespace MavixApiLite;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::size_t largestPayload = 16777216;

class PrepareMessage : public ClientTest {
protected:
    bool Prepare(short code, TCMessageBuffer& input, const IpcAuxData& aux, unsigned short flags) {
        EXPECT_TRUE(m_message.Initialize(TIIpcMessage::MethodCall, "com.norvale.MavixAPI",
                                         "/com/norvale/Object", "com.norvale.ITest", "MethodCall"));
        return TestAccess::PrepareMessage(Client(), m_message, code, input, aux, flags);
    }
    Request Prepared(short code, const Bytes& payload, const IpcAuxData& aux, unsigned short flags) {
        TCMessageBuffer input;
        input.PushConcatenated(payload.size(), payload.data());
        EXPECT_TRUE(Prepare(code, input, aux, flags));
        EXPECT_TRUE(m_message.PushEnd());
        return TakeApart(m_message);
    }

    TCGdbusMessage m_message;
};

struct HeaderRow {
    unsigned short flags;
    bool sentTimestamp; // tag 4
    short code;
    std::uint32_t header;
    const char* signature;
};

// Negative codes fill the upper half, whatever the flags.
constexpr HeaderRow headerRows[] = {
    {0, false, 0, 0x00000000, "iii"},        {1, false, 0, 0x00010000, "iii"},
    {2, false, 0, 0x00020000, "iiis"},       {3, false, 0, 0x00030000, "iiis"},
    {0, true, 0, 0x00040000, "iiiiay"},      {1, true, 0, 0x00050000, "iiiiay"},
    {2, true, 0, 0x00060000, "iiisiay"},     {3, true, 0, 0x00070000, "iiisiay"},
    {0, false, 66, 0x00000042, "iii"},       {2, false, 66, 0x00020042, "iiis"},
    {2, true, 66, 0x00060042, "iiisiay"},    {0, false, 32767, 0x00007FFF, "iii"},
    {3, true, 32767, 0x00077FFF, "iiisiay"}, {0, false, -1, 0xFFFFFFFF, "iii"},
    {1, false, -1, 0xFFFFFFFF, "iii"},       {2, false, -1, 0xFFFFFFFF, "iiis"},
    {3, true, -1, 0xFFFFFFFF, "iiisiay"},    {0, false, -2, 0xFFFFFFFE, "iii"},
    {0, false, -32768, 0xFFFF8000, "iii"},   {2, true, -32768, 0xFFFF8000, "iiisiay"},
    {0x8000, false, 1, 0x80000001, "iii"},   {0xFFFF, false, 1, 0xFFFF0001, "iiis"},
};

TEST_F(PrepareMessage, HeaderWordHoldsFlagsOrMaskAndTheSignExtendedCode) {
    for (const HeaderRow& row : headerRows) {
        SCOPED_TRACE(testing::Message() << "flags " << row.flags << ", timestamp " << row.sentTimestamp
                                        << ", code " << row.code);
        IpcProxyAuxData aux;
        if (row.sentTimestamp) {
            aux.SetTimestamp(IPC_AUX_TIMESTAMP_SENT, 1);
        }
        const Request request = Prepared(row.code, {}, aux, row.flags);
        EXPECT_EQ(row.header, request.header);
        EXPECT_EQ(row.signature, request.signature);
        EXPECT_EQ((row.flags & 1) != 0, request.noReply);
        EXPECT_EQ((row.flags & 2) != 0, request.programName.has_value());
    }
}

TEST_F(PrepareMessage, AFlagOfTheMaskCountsLikeAFlagOfTheCall) {
    IpcNativeAuxData aux;
    aux.SetTimestamp(IPC_AUX_TIMESTAMP_RECEIVED, 5);
    const Request request = Prepared(3, {}, aux, 0);
    EXPECT_EQ(0x00020003U, request.header);
    EXPECT_EQ(program_invocation_short_name, request.programName);
    EXPECT_FALSE(request.noReply);
}

TEST_F(PrepareMessage, CarriesSizeProcessNamePayloadAndAuxiliaryBlockInOrder) {
    IpcProxyAuxData aux;
    aux.SetTimestamp(IPC_AUX_TIMESTAMP_SENT, 0x0123456789ABCDEF);
    const Request request = Prepared(7, {1, 0, 255}, aux, 2);
    EXPECT_EQ("iiisayiay", request.signature);
    EXPECT_EQ(3, request.size);
    EXPECT_EQ(getpid(), request.pid);
    EXPECT_EQ(program_invocation_short_name, request.programName);
    EXPECT_EQ((Bytes{1, 0, 255}), request.payload);
    EXPECT_EQ(16, request.auxLength);
    EXPECT_EQ(TimestampRecord(4, 0x0123456789ABCDEF), request.aux);
}

TEST_F(PrepareMessage, AnEmptyPayloadSendsNoByteArray) {
    const Request request = Prepared(0, {}, IpcProxyAuxData(), 0);
    EXPECT_EQ("iii", request.signature);
    EXPECT_EQ(0, request.size);
}

TEST_F(PrepareMessage, OneByteIsSentAsAByteArray) {
    const Request request = Prepared(0, {42}, IpcProxyAuxData(), 0);
    EXPECT_EQ("iiiay", request.signature);
    EXPECT_EQ(1, request.size);
    EXPECT_EQ(Bytes{42}, request.payload);
}

TEST_F(PrepareMessage, TheLargestPayloadIs16777216Bytes) {
    Bytes payload(largestPayload);
    std::iota(payload.begin(), payload.end(), std::uint8_t{0});
    const Request request = Prepared(0, payload, IpcProxyAuxData(), 0);
    EXPECT_EQ(16777216, request.size);
    EXPECT_TRUE(payload == request.payload);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(PrepareMessage, OneByteMoreIsRefusedAndNothingIsPushed) {
    TCMessageBuffer input;
    input.Resize(largestPayload + 1);
    EXPECT_FALSE(Prepare(0, input, IpcProxyAuxData(), 3));
    EXPECT_FALSE(m_message.PushEnd());
    EXPECT_THAT(Errors(), ElementsAre("IpcClient|[API_LITE] Message exceeds allowed limit for message size "
                                      "(size: 16777217, limit: 16777216)",
                                      "GdbusMessage|Pushing not started!"));
}

// Arguments: the names of the program at its first call of one bus and at that of another.
MAVIX_CHILD(GreetUnderTwoNames) {
    FakedClient faked;
    for (std::size_t at = 0; at < 2; ++at) {
        std::string name = arguments.at(at);
        char* const before = std::exchange(program_invocation_short_name, name.data());
        faked.CallAsync(at == 0 ? "com.norvale.ITest" : "com.norvale.ISessionControl");
        program_invocation_short_name = before;
        std::printf("%s\n", faked.Requests().back().programName.value_or("no name").c_str());
    }
    return 0;
}

TEST(ProgramName, IsReadOnceAndKept) {
    const ChildResult result = RunChildProgram("GreetUnderTwoNames", plainFlavour, {"first", "second"});
    EXPECT_EQ("first\nfirst\n", result.output) << result.errors;
}

TEST(ProgramName, IsMadeValidForTheBus) {
    const ChildResult result = RunChildProgram("GreetUnderTwoNames", plainFlavour, {"caf\xe9 1", "second"});
    EXPECT_EQ("caf\xef\xbf\xbd 1\ncaf\xef\xbf\xbd 1\n", result.output) << result.errors;
}

MAVIX_CHILD(CallBeforeAndAfterAFork) {
    FakedClient faked;
    const pid_t first = getpid();
    if (!faked.CallAsync() || faked.Requests().back().pid != first) {
        return 1;
    }
    const pid_t forked = fork();
    if (forked == 0) {
        _exit(faked.CallAsync() && faked.Requests().back().pid == first ? 0 : 2);
    }
    int status = 0;
    return waitpid(forked, &status, 0) == forked && WIFEXITED(status) ? WEXITSTATUS(status) : 3;
}

TEST(ProcessId, IsReadOnceAndKept) {
    const ChildResult result = RunChildProgram("CallBeforeAndAfterAFork");
    EXPECT_EQ(0, result.exitCode) << result.errors;
}

} // namespace
