#ifndef MAVIX_GDBUS_ERROR_H
#define MAVIX_GDBUS_ERROR_H

#include "Handles.h"

#include <string>

namespace MavixApiLite {

// Holds the error of one GIO operation. An error that nobody looked at is logged on destruction.
class TCGdbusError final {
public:
    explicit TCGdbusError(std::string operationName);
    ~TCGdbusError();
    TCGdbusError(const TCGdbusError&) = delete;
    TCGdbusError& operator=(const TCGdbusError&) = delete;

    // To be passed where GIO takes a GError**.
    GError** GetRawError() { return &m_error; }
    // Whether there was an error; if so it is logged and forgotten.
    bool CheckErrorAndReset();

private:
    friend struct TestAccess;

    GError* m_error;
    std::string m_operationName;
};

} // namespace MavixApiLite

#endif
