#include "ClientBus.h"

#include "AllocationCounter.h"
#include "ChildProgram.h"
#include "IpcClientInstance.h"
#include "TestScale.h"

#include <new>

// What a call allocates, and what happens when there is no memory.

using namespace MavixTest;
using MavixApiLite::TCIpcClientInstance;

namespace {

constexpr std::size_t mebibyte = 1048576;
constexpr const char* interfaceName = "com.norvale.ITest";

// ThreadSanitizer's view of GLib allocates inside of it, where no failure may come.
#ifdef __SANITIZE_THREAD__
constexpr bool mayFail = false;
#else
constexpr bool mayFail = true;
#endif
constexpr const char* mayNotFailReason = "the program's own part inside GLib allocates in this build";

class CallAllocation : public ClientBusTest {
protected:
    const Bytes m_payload = Bytes(mebibyte, 7);
    void* m_output = nullptr;
    unsigned int m_length = 0;

    bool Echo() {
        return IPCConnection__Call(interfaceName, 1, m_payload.data(), static_cast<int>(m_payload.size()),
                                   &m_output, &m_length);
    }
};

// The input buffer, which becomes the message's body, and the returned array.
TEST_F(CallAllocation, OfACallOfOneMebibyteIsTwoBlocks) {
    for (unsigned int round = 0; round < Scaled(100); ++round) {
        AllocationCounter::Start(mebibyte);
        ASSERT_TRUE(Echo());
        AllocationCounter::Stop();
        ASSERT_EQ(mebibyte, m_length);
        ASSERT_EQ(2U, AllocationCounter::Count());
        ASSERT_EQ(1U, AllocationCounter::Alive());
        IPCConnection__CallDisposeOutputBuffer(m_output);
        ASSERT_EQ(0U, AllocationCounter::Alive());
    }
}

TEST_F(CallAllocation, OfAnAsynchronousCallIsOneBlockAndItIsNotKept) {
    AllocationCounter::Start(mebibyte);
    ASSERT_TRUE(
        IPCConnection__CallAsync(interfaceName, 1, m_payload.data(), static_cast<int>(m_payload.size())));
    // The next call's answer says that the message has been written.
    ASSERT_TRUE(Settle());
    AllocationCounter::Stop();
    EXPECT_EQ(1U, AllocationCounter::Count());
    EXPECT_EQ(0U, AllocationCounter::Alive());
}

TEST_F(CallAllocation, OfARefusedCallIsTheInputAlone) {
    const Bytes payload(16777217);
    AllocationCounter::Start(mebibyte);
    ASSERT_FALSE(IPCConnection__Call(interfaceName, 1, payload.data(), static_cast<int>(payload.size()),
                                     &m_output, &m_length));
    AllocationCounter::Stop();
    EXPECT_EQ(1U, AllocationCounter::Count());
    EXPECT_EQ(0U, AllocationCounter::Alive());
}

// Every allocation of a call fails once: it ends in the failure result, and the next call works.
TEST_F(CallAllocation, OfACallMayFailAnywhere) {
    if (!mayFail) {
        GTEST_SKIP() << mayNotFailReason;
    }
    std::size_t failures = 0;
    for (std::size_t at = 0;; ++at) {
        SCOPED_TRACE(at);
        AllocationCounter::FailAfter(at);
        const bool success = Echo();
        if (!AllocationCounter::HasFailed()) {
            EXPECT_TRUE(success);
            break;
        }
        ++failures;
        EXPECT_EQ(success, m_output != nullptr);
        EXPECT_EQ(success ? mebibyte : 0U, m_length);
        IPCConnection__CallDisposeOutputBuffer(m_output);
    }
    EXPECT_GE(failures, 2U);
    IPCConnection__CallDisposeOutputBuffer(m_output);
}

// Every allocation of the client's creation fails once; the exception passes out and the next caller tries
// again. Through the flat functions it is a failure.
MAVIX_CHILD(CreateWithoutMemory) {
    const ServiceBus bus;
    std::size_t thrown = 0;
    std::size_t refused = 0;
    for (std::size_t at = 0;; ++at) {
        AllocationCounter::FailAfter(at / 2);
        if (at % 2 == 0) {
            try {
                const bool created = TCIpcClientInstance::GetInstance() != nullptr;
                if (!AllocationCounter::HasFailed()) {
                    std::printf("created %d\n", created ? 1 : 0);
                    break;
                }
            } catch (const std::bad_alloc&) {
                AllocationCounter::HasFailed();
                ++thrown;
            }
        } else if (!IPCConnection__Create()) {
            AllocationCounter::HasFailed();
            ++refused;
        }
    }
    return thrown >= 5 && refused >= 5 && Settle() ? 0 : 1;
}

TEST(CreationWithoutMemory, FailsAndIsTriedAgain) {
    if (!mayFail) {
        GTEST_SKIP() << mayNotFailReason;
    }
    const ChildResult result = RunChildProgram("CreateWithoutMemory");
    EXPECT_EQ(0, result.exitCode) << result.signal << result.errors;
    EXPECT_EQ("created 1\n", result.output);
    EXPECT_GE(result.CountLines(6, "[API_LITE] exception: std::bad_alloc"), 5U);
}

} // namespace
