#ifndef MAVIX_IPC_AUX_DATA_H
#define MAVIX_IPC_AUX_DATA_H

#include "Export.h"

#include <cstdint>
#include <map>
#include <set>
#include <vector>

namespace MavixApiLite {

// Tags of the values that travel beside a payload. Each is a single bit.
enum : std::int32_t {
    IPC_AUX_TIMESTAMP_RECEIVED = 2, // in a reply: when the service took up the call
    IPC_AUX_TIMESTAMP_SENT = 4      // in a call: when the client sent it; in a reply: when the service did
};

// A set of tagged values, today millisecond timestamps of the monotonic clock, and its encoded form: a run of
// records of tag (4 bytes), value length (4 bytes) and value, in machine byte order. Not shared between
// threads.
class MAVIX_API_EXPORT IpcAuxData {
public:
    virtual ~IpcAuxData();

    // Sets a timestamp; a tag that this variant does not accept is logged and ignored.
    void SetTimestamp(int tag, unsigned long long value);
    // False, with `value` as it was, when the tag is absent or its value is not 8 bytes long.
    bool GetTimestamp(int tag, unsigned long long& value) const;
    // The bits of all tags present.
    std::uint32_t Mask() const;
    // Whether `flags` has a bit of a tag that this variant accepts.
    bool AuxiliaryFlagsPresent(int flags) const;
    // Encodes into `out`, replacing its contents. False, with `out` empty, when there is nothing to encode or
    // a value is empty.
    bool Store(std::vector<char>& out) const;
    // Replaces the set by what `data` holds. True when a record was accepted. One bad record empties the set;
    // null data leaves it as it was.
    bool Load(unsigned int length, const char* data);

protected:
    virtual std::set<std::int32_t> t_SupportedFlags() const = 0;

private:
    friend struct TestAccess;

    bool m_IsSupported(std::int32_t tag) const;

    std::map<std::int32_t, std::vector<char>> m_values;
};

// What the service's replies carry: both timestamps.
class MAVIX_API_EXPORT IpcNativeAuxData : public IpcAuxData {
public:
    ~IpcNativeAuxData() override;

protected:
    std::set<std::int32_t> t_SupportedFlags() const override;
};

// What the client's calls carry: the time of sending.
class MAVIX_API_EXPORT IpcProxyAuxData : public IpcAuxData {
public:
    ~IpcProxyAuxData() override;

protected:
    std::set<std::int32_t> t_SupportedFlags() const override;
};

} // namespace MavixApiLite

#endif
