#ifndef MAVIX_CONTROL_LIBRARY_LOG_H
#define MAVIX_CONTROL_LIBRARY_LOG_H

#include <string>

namespace MavixControl {

// Keeps the warnings and errors that the library logs on this thread, the only place where it says why an
// operation failed. One at a time on a thread. Every line goes on to the platform's log.
class TCErrorLines final {
public:
    TCErrorLines();
    TCErrorLines(const TCErrorLines&) = delete;
    TCErrorLines& operator=(const TCErrorLines&) = delete;
    ~TCErrorLines();

    bool HasLines() const;
    // What a peer or the bus gave as its error, if it did; empty otherwise.
    std::string ErrorName() const;
    // The error's text, or what went wrong first; never empty.
    std::string Reason() const;
    // Name and text, fit for a terminal.
    std::string Describe() const;
};

// Tells, in one line and by the exit code, why the library stops the process.
void ReportAborts();

} // namespace MavixControl

#endif
