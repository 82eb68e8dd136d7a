#ifndef MAVIX_TEST_GLIB_LOG_H
#define MAVIX_TEST_GLIB_LOG_H

#include <glib.h>

#include <mutex>
#include <string>
#include <vector>

namespace MavixTest {

// Collects the warnings and criticals of GLib, GObject and GIO while it lives. Those that nobody has taken
// when it ends fail the test. One at a time, owned by the test; they may come from any thread.
class TCGlibLog final {
public:
    TCGlibLog();
    ~TCGlibLog();
    TCGlibLog(const TCGlibLog&) = delete;
    TCGlibLog& operator=(const TCGlibLog&) = delete;

    // What was collected since the last time.
    std::vector<std::string> Take();

private:
    static void m_Add(const gchar* domain, GLogLevelFlags level, const gchar* text, gpointer log);

    std::mutex m_mutex;
    std::vector<std::string> m_lines;
    GLogFunc m_previous;
};

} // namespace MavixTest

#endif
