#ifndef MAVIX_TEST_TRANSPORT_TABLE_H
#define MAVIX_TEST_TRANSPORT_TABLE_H

#include "LogPriorities.h"

namespace MavixTest {

// Everything in which the transports differ: the type, the name, what holds over GDBus, what over libdbus.
// Where a line of the log is null, nothing is said and the operation may succeed. Tests that run over both
// look here; a difference that has no line here is a defect.
// clang-format off
#define MAVIX_TRANSPORT_DIFFERENCES(LINE)                                                                                     \
    /* messages */                                                                                                            \
    LINE(const char*, messageSource,           "GdbusMessage",                      "DbusMessage")                            \
    LINE(const char*, typeErrorMark,           "!",                                 "")                                       \
    LINE(const char*, noMoreArguments,         "No more params",                    "No more params!")                        \
    LINE(const char*, noArguments,             "No body!",                          "dbus_message_iter_init failed")          \
    LINE(const char*, writeWhileReading,       "Attempt to write while reading",    "Invalid state 1 vs 2")                   \
    LINE(const char*, readWhileWriting,        "Attempt to read while writing",     "Invalid state 2 vs 1")                   \
    LINE(const char*, cursorOfEmptyObject,     "No message",                        nullptr)                                  \
    LINE(const char*, pushEndWithoutPush,      "Pushing not started!",              nullptr)                                  \
    LINE(const char*, getterOfEmptyObject,     "Invalid message",                   nullptr)                                  \
    LINE(const char*, typeOfEmptyObject,       "No message",                        nullptr)                                  \
    LINE(const char*, noReplyOfEmptyObject,    "No message",                        nullptr)                                  \
    LINE(const char*, refusedInitialize,       "No message initialized",            nullptr)                                  \
    LINE(const char*, replyToNothing,          "No message to reply",               nullptr)                                  \
    LINE(const char*, refusedReply,            "new reply failed",                  nullptr)                                  \
    LINE(char,        typeOfPushUint,          'u',                                 'i')                                      \
    LINE(bool,        nullTypeMatchesAll,      true,                                false)                                    \
    LINE(bool,        nullNameMatchesAll,      true,                                false) /* of signals and calls */         \
    LINE(bool,        missingFieldThrows,      true,                                false) /* false: it matches any */        \
    LINE(bool,        pushingReplacesBody,     true,                                false) /* false: it is extended */       \
    LINE(bool,        needsPushEnd,            true,                                false) /* to carry the arguments */       \
    LINE(bool,        receivedCanBeExtended,   false,                               true)                                     \
    LINE(bool,        sentFailsAtPushEnd,      true,                                false) /* false: at the first push */     \
    LINE(bool,        answersAnything,         false,                               true)  /* false: calls only */            \
    LINE(bool,        errorNeedsText,          true,                                false)                                    \
    LINE(bool,        wideArraysAreWhole,      true,                                false) /* false: a byte per element */    \
    LINE(bool,        structuresAreBytes,      true,                                false) /* of fixed size, in arrays */     \
    LINE(bool,        argumentsAreUnlimited,   true,                                false) /* false: to 255 type codes */     \
    /* connecting */                                                                                                          \
    LINE(const char*, source,                  "GdbusConnection",                   "DbusConnection")                         \
    LINE(const char*, withoutConnect,          "[API_LITE] called without prior Connect", "No connection thread!")            \
    LINE(const char*, connectedLine,           "[API_LITE][END] Connect",           "[API_LITE][END] TransportTest, m_Connect") \
    LINE(int,         connectedPriority,       debugLine,                           infoLine)                                 \
    LINE(const char*, initializerLine,         "Owner initialization failed!",      "[API_LITE][END] TransportTest, initializer failed") \
    LINE(bool,        waitsForBusReadyEvent,   true,                                false)                                    \
    LINE(bool,        triesAgain,              false,                               true)  /* up to a maximum */              \
    LINE(int,         fatalAttempts,           1,                                   60)    /* these failures assert */        \
    LINE(bool,        dispatchesWithoutOwner,  false,                               true)                                     \
    /* sending */                                                                                                             \
    LINE(bool,        saysWhatIsCalled,        false,                               true)  /* "[API_LITE] called" */          \
    LINE(bool,        sendsTwice,              false,                               true)  /* the same message */             \
    LINE(bool,        timeoutIsAReply,         false,                               true)  /* an error reply */               \
    LINE(bool,        lossIsAReply,            false,                               true)  /* to calls that wait */           \
    LINE(bool,        failedCallEmpties,       false,                               true)                                     \
    LINE(bool,        dispatchThreadMayWait,   true,                                false)                                    \
    LINE(bool,        needsIteration,          false,                               true)  /* of the default context */       \
    /* requests to the bus */                                                                                                 \
    LINE(const char*, requestNameOnTheWire,    "su 4 no-reply",                     "su 2")                                   \
    LINE(const char*, addMatchOnTheWire,       "s no-reply",                        "s no-reply")                             \
    LINE(const char*, removeMatchOnTheWire,    "s no-reply",                        "s")                                      \
    LINE(bool,        releasesUnownedNames,    false,                               true)                                     \
    LINE(bool,        removesUnknownRules,     true,                                false)                                    \
    LINE(bool,        missingUniqueNameThrows, false,                               true)                                     \
    /* dispatching */                                                                                                         \
    LINE(const char*, unhandledLine,           "Unhandled method",                  "Not handled!")                           \
    LINE(int,         unhandledPriority,       errorLine,                           debugLine)                                \
    LINE(bool,        saysUnhandledOfAll,      false,                               true)  /* false: of calls only */         \
    LINE(const char*, unknownMethodText,       "",                                  "Method \"Ask\" with signature \"\" on interface \"com.norvale.Sim.Peer\" doesn't exist\n") \
    LINE(bool,        repliesReachTheOwner,    false,                               true)  /* that nobody waits for */        \
    LINE(bool,        pingsReachTheOwner,      true,                                false)                                    \
    LINE(bool,        theLossReachesTheOwner,  false,                               true)  /* signal "Disconnected" */
// clang-format on

struct TransportRow {
#define MAVIX_FIELD(type, name, gdbus, libdbus) type name;
    MAVIX_TRANSPORT_DIFFERENCES(MAVIX_FIELD)
#undef MAVIX_FIELD
};

#define MAVIX_GDBUS(type, name, gdbus, libdbus) gdbus,
#define MAVIX_LIBDBUS(type, name, gdbus, libdbus) libdbus,
constexpr TransportRow gdbusRow = {MAVIX_TRANSPORT_DIFFERENCES(MAVIX_GDBUS)};
constexpr TransportRow libdbusRow = {MAVIX_TRANSPORT_DIFFERENCES(MAVIX_LIBDBUS)};
#undef MAVIX_GDBUS
#undef MAVIX_LIBDBUS

} // namespace MavixTest

#endif
