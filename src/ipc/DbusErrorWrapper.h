#ifndef MAVIX_DBUS_ERROR_WRAPPER_H
#define MAVIX_DBUS_ERROR_WRAPPER_H

#include <dbus/dbus.h>

#include <string>

namespace MavixApiLite {

// Holds the error of one libdbus operation. An error that nobody looked at is logged on destruction.
class DbusErrorWrapper final {
public:
    explicit DbusErrorWrapper(std::string operationName);
    ~DbusErrorWrapper();
    DbusErrorWrapper(const DbusErrorWrapper&) = delete;
    DbusErrorWrapper& operator=(const DbusErrorWrapper&) = delete;

    // To be passed where libdbus takes a DBusError*.
    DBusError* GetDbusHandle() { return &m_error; }
    // Whether there was an error; if so it is logged and forgotten.
    bool CheckErrorAndReset();

private:
    friend struct TestAccess;

    DBusError m_error;
    std::string m_operationName;
};

} // namespace MavixApiLite

#endif
