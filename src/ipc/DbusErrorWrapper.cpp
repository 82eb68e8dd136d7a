#include "DbusErrorWrapper.h"

#include "Log.h"

#include <utility>

namespace MavixApiLite {

DbusErrorWrapper::DbusErrorWrapper(std::string operationName)
    : m_error{}, m_operationName(std::move(operationName)) {
    dbus_error_init(&m_error);
}

DbusErrorWrapper::~DbusErrorWrapper() {
    CheckErrorAndReset();
}

bool DbusErrorWrapper::CheckErrorAndReset() {
    if (dbus_error_is_set(&m_error) == FALSE) {
        return false;
    }
    MAVIX_LOGE("[API_LITE] %s failed! %s", m_operationName.c_str(), m_error.message);
    dbus_error_free(&m_error);
    return true;
}

} // namespace MavixApiLite
