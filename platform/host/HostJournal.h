#ifndef MAVIX_HOST_JOURNAL_H
#define MAVIX_HOST_JOURNAL_H

#include <cstddef>
#include <cstdint>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>

namespace MavixPlatformHost {

// One entry in the journal's native form: fields as "NAME=value\n", or with a length where the value itself
// has line breaks. Lives on the stack of the logging thread; names and values must outlive it.
class TCJournalEntry final {
public:
    // Fields beyond MaxFields are left out.
    void Add(const char* name, const char* value, std::size_t length);
    void Add(const char* name, const char* value);

    const iovec* Parts() const { return m_parts; }
    std::size_t PartCount() const { return m_partCount; }

private:
    static constexpr std::size_t MaxFields = 8;
    static constexpr std::size_t PartsPerField = 5;

    void m_AddPart(const void* data, std::size_t length);

    iovec m_parts[MaxFields * PartsPerField];
    std::size_t m_partCount = 0;
    std::uint64_t m_lengths[MaxFields];
    std::size_t m_fieldCount = 0;
};

enum class EJournalResult { Sent, Full, Failed };

// Sends one entry without ever waiting. Any thread. sd_journal_sendv is not used: its socket is a blocking
// one and out of our reach, so that a journal that is stopped or overrun would stop every logging thread.
EJournalResult SendToJournal(const TCJournalEntry& entry, const sockaddr_un& journal);

} // namespace MavixPlatformHost

#endif
