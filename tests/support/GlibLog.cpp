#include "GlibLog.h"

#include <gtest/gtest.h>

#include <utility>

namespace MavixTest {

TCGlibLog::TCGlibLog() : m_previous(g_log_set_default_handler(m_Add, this)) {}

TCGlibLog::~TCGlibLog() {
    g_log_set_default_handler(m_previous, nullptr);
    for (const std::string& line : Take()) {
        ADD_FAILURE() << "GLib complained: " << line;
    }
}

std::vector<std::string> TCGlibLog::Take() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return std::exchange(m_lines, {});
}

void TCGlibLog::m_Add(const gchar* domain, GLogLevelFlags level, const gchar* text, gpointer log) {
    if ((level & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING)) == 0) {
        return;
    }
    auto* self = static_cast<TCGlibLog*>(log);
    const std::lock_guard<std::mutex> lock(self->m_mutex);
    self->m_lines.push_back(std::string(domain != nullptr ? domain : "") + ": " + text);
}

} // namespace MavixTest
