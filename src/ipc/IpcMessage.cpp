#include "IpcMessage.h"

namespace MavixApiLite {

TIIpcMessage::~TIIpcMessage() = default;

TIIpcMessageAllocator::~TIIpcMessageAllocator() = default;

bool TIIpcMessage::PushByteRange(const void* data, std::size_t size) {
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    return PushBytes(std::vector<std::uint8_t>(bytes, bytes + size));
}

bool TIIpcMessage::PushOwnedBytes(std::vector<char> bytes) {
    return PushByteRange(bytes.data(), bytes.size());
}

bool TIIpcMessage::PopByteRange(const std::uint8_t*& data, std::size_t& size,
                                std::vector<std::uint8_t>& storage) {
    if (!PopBytes(storage)) {
        return false;
    }
    data = storage.data();
    size = storage.size();
    return true;
}

} // namespace MavixApiLite
