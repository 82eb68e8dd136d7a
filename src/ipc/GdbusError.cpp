#include "GdbusError.h"

#include "Log.h"

#include <utility>

namespace MavixApiLite {

TCGdbusError::TCGdbusError(std::string operationName)
    : m_error(nullptr), m_operationName(std::move(operationName)) {}

TCGdbusError::~TCGdbusError() {
    CheckErrorAndReset();
}

bool TCGdbusError::CheckErrorAndReset() {
    if (m_error == nullptr) {
        return false;
    }
    const ErrorHandle error(std::exchange(m_error, nullptr));
    MAVIX_LOGE("[API_LITE] %s failed!", m_operationName.c_str());
    MAVIX_LOGE("[API_LITE] '%s'", error->message);
    return true;
}

} // namespace MavixApiLite
