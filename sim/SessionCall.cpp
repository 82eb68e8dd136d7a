#include "SessionCall.h"

#include "CallDecoder.h"

#include <cstring>

namespace MavixSim {

namespace {

// Reads values one behind the other, without alignment.
class TCPayload final {
public:
    explicit TCPayload(const Call& call) : m_data(call.payload), m_left(call.payloadSize) {}

    template <class Number>
    Number Take(const char* what) {
        Number value = 0;
        std::memcpy(&value, m_Take(sizeof value, what), sizeof value);
        return value;
    }

    std::string TakeText(std::int32_t length) {
        if (length < 0)
            throw Refusal("trace text: length " + std::to_string(length));
        const auto size = static_cast<std::size_t>(length);
        return {reinterpret_cast<const char*>(m_Take(size, "trace text")), size};
    }

    void ExpectEnd() const {
        if (m_left != 0)
            throw Refusal("payload: " + std::to_string(m_left) + " bytes too many");
    }

private:
    const std::uint8_t* m_Take(std::size_t size, const char* what) {
        if (m_left < size)
            throw Refusal(std::string(what) + ": expected " + std::to_string(size) + " bytes, found " +
                          std::to_string(m_left));
        const std::uint8_t* taken = m_data;
        m_data += size;
        m_left -= size;
        return taken;
    }

    const std::uint8_t* m_data;
    std::size_t m_left;
};

} // namespace

void CheckSessionCall(const Call& call) {
    bool wantsAnswer = true;
    switch (static_cast<SessionFunction>(call.Code())) {
    case SessionFunction::Open:
    case SessionFunction::Close:
    case SessionFunction::DebugInfo:
    case SessionFunction::IsTerminated:
        TCPayload(call).ExpectEnd();
        break;
    case SessionFunction::OpenTrace:
    case SessionFunction::CloseTrace:
        wantsAnswer = false;
        DecodeTraceRequest(call);
        break;
    default:
        throw Refusal("the session interface has no function " + std::to_string(call.Code()));
    }
    if (wantsAnswer == call.noReply)
        throw Refusal("session function " + std::to_string(call.Code()) +
                      (wantsAnswer ? " has to want an answer" : " must not want an answer"));
}

TraceRequest DecodeTraceRequest(const Call& call) {
    TCPayload payload(call);
    TraceRequest request;
    request.id = payload.Take<std::int64_t>("trace id");
    if (static_cast<SessionFunction>(call.Code()) == SessionFunction::OpenTrace) {
        request.text = payload.TakeText(payload.Take<std::int32_t>("trace text length"));
        request.parameter = payload.Take<std::int32_t>("trace parameter");
    }
    payload.ExpectEnd();
    return request;
}

} // namespace MavixSim
