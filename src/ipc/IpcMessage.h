#ifndef MAVIX_IPC_MESSAGE_H
#define MAVIX_IPC_MESSAGE_H

#include "Export.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace MavixApiLite {

// One D-Bus message of any transport, with a cursor that either reads its arguments one by one or appends
// arguments one by one. Owns exactly one reference of the raw message. Used by one thread at a time.
//
// Outgoing: Initialize or a reply initialiser, the Push* calls in argument order, then Send or SendWithReply
// of the connection, which finish the message. Incoming: IsOfType and the getters, the Pop* calls in argument
// order, then PopEnd. A failed Pop* leaves its output as it was; a wrong type still counts as the step onto
// that argument. Failures are logged where they are detected.
class MAVIX_API_EXPORT TIIpcMessage {
public:
    enum IpcMessageType : std::int32_t { Signal = 0, MethodCall = 1, MethodReturn = 2, Error = 3 };

    virtual ~TIIpcMessage();

    // Builds a new signal (destination may be null) or method call; other types and names that D-Bus does not
    // allow are refused. A failure leaves the object empty.
    virtual bool Initialize(IpcMessageType type, const char* destination, const char* path,
                            const char* interface, const char* member) = 0;
    // Build a reply to `request`, a received method call, which may be this object. A failure leaves this
    // object as it was.
    virtual bool InitializeErrorReply(TIIpcMessage& request, const char* errorName,
                                      const char* errorMessage) = 0;
    virtual bool InitializeReply(TIIpcMessage& request) = 0;

    // Whether the message is of the type and, where these are given, has the interface and member. What a
    // null type and a missing field mean differs from transport to transport.
    virtual bool IsOfType(IpcMessageType* type, const char* interface, const char* member) = 0;

    // Header fields, borrowed from the raw message; null when absent.
    virtual const char* GetDestination() = 0;
    virtual const char* GetPath() = 0;
    virtual const char* GetInterface() = 0;
    virtual const char* GetMember() = 0;
    virtual const char* GetSender() = 0;
    virtual const char* GetError() = 0;

    // Marks the message as one that wants no reply.
    virtual bool SetNoReply() = 0;

    virtual bool PopBool(bool& value) = 0;
    virtual bool PopByte(std::uint8_t& value) = 0;
    virtual bool PopInt(std::int32_t& value) = 0;
    virtual bool PopUint(std::uint32_t& value) = 0;
    virtual bool PopString(std::string& value) = 0;
    virtual bool PopBytes(std::vector<std::uint8_t>& value) = 0;
    // Steps over one argument of any type.
    virtual bool PopSkip() = 0;
    // Ends reading; the next Pop* starts at the first argument again.
    virtual bool PopEnd() = 0;

    // Append one argument. False when the object is empty or is being read, and for a text that is not UTF-8.
    virtual bool PushBool(bool value) = 0;
    virtual bool PushByte(std::uint8_t value) = 0;
    virtual bool PushInt(std::int32_t value) = 0;
    virtual bool PushUint(std::uint32_t value) = 0;
    virtual bool PushString(const std::string& value) = 0;
    virtual bool PushBytes(const std::vector<std::uint8_t>& value) = 0;
    // Ends appending.
    virtual bool PushEnd() = 0;

    // The raw message of the transport, null when there is none; with addReference the caller gets a
    // reference of its own.
    virtual void* GetRawMessage(bool addReference) = 0;
    // Drops the old raw message and adopts one reference of `raw`, which may be null.
    virtual void SetRawMessage(void* raw) = 0;

    // Appends `size` bytes, not null unless `size` is 0, as one byte array. Copies them once; by default
    // through PushBytes.
    virtual bool PushByteRange(const void* data, std::size_t size);
    // Reads the next argument like PopBytes without copying it: the bytes stay valid while the message holds
    // its content and `storage` lives, which the default, that goes through PopBytes, reads into.
    virtual bool PopByteRange(const std::uint8_t*& data, std::size_t& size,
                              std::vector<std::uint8_t>& storage);
    // Appends all bytes as one byte array. A transport that can takes them over; by default they are copied.
    virtual bool PushOwnedBytes(std::vector<char> bytes);
};

// Makes the messages of one transport. May be called from any thread; outlives what it made.
class MAVIX_API_EXPORT TIIpcMessageAllocator {
public:
    virtual ~TIIpcMessageAllocator();

    // A fresh message object; adopts one reference of `raw` when that is not null.
    virtual std::unique_ptr<TIIpcMessage> NewMessage(void* raw) = 0;
    // Drops one reference of a raw message; null is ignored.
    virtual void DeleteRawMessage(void* raw) = 0;
    // The plain function that does so.
    virtual void (*GetRawMessageDeleter())(void*) = 0;
};

} // namespace MavixApiLite

#endif
