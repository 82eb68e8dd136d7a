#include "BufferBytes.h"
#include "FlavourFixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ostream>
#include <string>

using namespace MavixTest;
using MavixApiLite::TCMessageBuffer;

namespace {

constexpr const char* file = "../../../src/ipc/MessageBuffer";

// One use of a buffer of 5 bytes, "abcde", against its contract.
struct Violation {
    const char* name;
    void (*use)(TCMessageBuffer& buffer);
    const char* expression; // of the assertion; null when there is none
    const char* onRelease;  // what the child prints there; null when it is stopped all the same
};

void PrintValue(long long value) {
    std::printf("value %lld, ", value);
}

template <class Value, class Read>
void PrintRead(const Read& read) {
    Value value = 77;
    read(&value);
    PrintValue(value);
}

const char* const offsetTooLarge = "offset <= (int) m_bufferData.size()";

const Violation violations[] = {
    {"ReadShort", [](TCMessageBuffer& b) { PrintRead<short>([&](short* v) { b.ReadShort(v, 4); }); },
     "m_bufferData.size() >= offset + 2", "value 77, abcde"},
    {"ReadInt", [](TCMessageBuffer& b) { PrintRead<int>([&](int* v) { b.ReadInt(v, 2); }); },
     "m_bufferData.size() >= offset + 4", "value 77, abcde"},
    {"ReadLongLong",
     [](TCMessageBuffer& b) { PrintRead<long long>([&](long long* v) { b.ReadLongLong(v, 0); }); },
     "m_bufferData.size() >= offset + 8", "value 77, abcde"},
    {"ReadConcatenated",
     [](TCMessageBuffer& b) { PrintRead<int>([&](int* v) { b.ReadConcatenated(3, v, 3); }); },
     "m_bufferData.size() >= offset + sizeOfData", "value 77, abcde"},
    {"ReadConcatenatedOfNothingPastTheEnd",
     [](TCMessageBuffer& b) { PrintRead<int>([&](int* v) { b.ReadConcatenated(0, v, 6); }); },
     "m_bufferData.size() >= offset + sizeOfData", "value 77, abcde"},
    // The copy takes the length in 32 bits: here 1.
    {"ReadConcatenatedOfMoreThan32Bits",
     [](TCMessageBuffer& b) { PrintRead<char>([&](char* v) { b.ReadConcatenated(0x100000001, v, 0); }); },
     "m_bufferData.size() >= offset + sizeOfData", "value 97, abcde"},
    {"ReadConcatenatedThatWrapsIn32Bits",
     [](TCMessageBuffer& b) { PrintRead<int>([&](int* v) { b.ReadConcatenated(4, v, 0xFFFFFFFF); }); },
     "m_bufferData.size() >= offset + sizeOfData", "value 77, abcde"},
    {"WriteIntPastTheEnd", [](TCMessageBuffer& b) { b.WriteInt(1, 6); }, offsetTooLarge, nullptr},
    {"WriteIntFarPastTheEnd", [](TCMessageBuffer& b) { b.WriteInt(1, 1000000); }, offsetTooLarge, nullptr},
    {"WriteLongLongPastTheEnd", [](TCMessageBuffer& b) { b.WriteLongLong(1, 6); }, offsetTooLarge, nullptr},
    {"WriteConcatenatedPastTheEnd",
     [](TCMessageBuffer& b) {
         char bytes[] = "xy";
         b.WriteConcatenated(2, bytes, 6);
     },
     offsetTooLarge, nullptr},
    {"WriteConcatenatedOfNothingPastTheEnd",
     [](TCMessageBuffer& b) { PrintValue(b.WriteConcatenated(0, nullptr, 6)); }, offsetTooLarge,
     "value 1, abcde"},
    {"WriteIntBeforeTheStart", [](TCMessageBuffer& b) { b.WriteInt(1, -5); }, nullptr, nullptr},
    {"WriteLongLongBeforeTheStart", [](TCMessageBuffer& b) { b.WriteLongLong(1, -2); }, nullptr, nullptr},
    {"WriteConcatenatedBeforeTheStart",
     [](TCMessageBuffer& b) {
         char bytes[] = "xy";
         b.WriteConcatenated(2, bytes, -2147483647 - 1);
     },
     nullptr, nullptr},
    {"GetAsVoidFromTheEnd", [](TCMessageBuffer& b) { b.GetAsVoidFromOffset(5); }, nullptr, nullptr},
    {"GetAsVoidFromFarPastTheEnd", [](TCMessageBuffer& b) { b.GetAsVoidFromOffset(0xFFFFFFFF); }, nullptr,
     nullptr},
    {"SetSenderToNull",
     [](TCMessageBuffer& b) {
         b.SetSender("before");
         b.SetSender(nullptr);
         std::printf("sender %s, ", b.Sender().c_str());
     },
     "pSender", "sender before, abcde"},
    {"SetSenderAppNameToNull",
     [](TCMessageBuffer& b) {
         b.SetSenderAppName("before");
         b.SetSenderAppName(nullptr);
         std::printf("sender %s, ", b.SenderAppName().c_str());
     },
     "pSender", "sender before, abcde"},
};

void PrintTo(const Violation& violation, std::ostream* out) {
    *out << violation.name;
}

class MessageBufferViolation : public FlavourFixture, public testing::WithParamInterface<Violation> {
protected:
    // The one line of the assertion, or none.
    static void ExpectAssertion(const ChildResult& result) {
        const char* expression = GetParam().expression;
        if (expression == nullptr) {
            EXPECT_EQ("", result.errors);
            return;
        }
        EXPECT_EQ(1u, CountAssertions(result, file, expression)) << result.errors;
        EXPECT_EQ(1, std::count(result.errors.begin(), result.errors.end(), '\n')) << result.errors;
    }
};

} // namespace

MAVIX_CHILD(Violate) {
    const auto* violation = std::find_if(std::begin(violations), std::end(violations),
                                         [&](const Violation& row) { return row.name == arguments[0]; });
    if (violation == std::end(violations)) {
        return 1;
    }
    TCMessageBuffer buffer;
    buffer.PushConcatenated(5, "abcde");
    violation->use(buffer);
    std::printf("%s\n", BytesOf(buffer).c_str());
    return 0;
}

TEST_P(MessageBufferViolation, StopsTheProcess) {
    const ChildResult result = RunChildProgram("Violate", plainFlavour, {GetParam().name});
    EXPECT_EQ(SIGABRT, result.signal) << result.errors;
    EXPECT_EQ("", result.output);
    ExpectAssertion(result);
}

TEST_P(MessageBufferViolation, IsReportedAndSurvivedOnAReleaseUnlessItWouldWriteOutside) {
    const ChildResult result = RunChildProgram("Violate", releaseFlavour, {GetParam().name});
    ExpectAssertion(result);
    if (GetParam().onRelease != nullptr) {
        EXPECT_EQ(0, result.exitCode) << result.errors;
        EXPECT_EQ(std::string(GetParam().onRelease) + "\n", result.output);
    } else {
        EXPECT_EQ(SIGABRT, result.signal) << result.errors;
        EXPECT_EQ("", result.output);
    }
}

INSTANTIATE_TEST_SUITE_P(Uses, MessageBufferViolation, testing::ValuesIn(violations),
                         [](const auto& row) { return std::string(row.param.name); });
