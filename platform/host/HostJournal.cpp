#include "HostJournal.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <endian.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace MavixPlatformHost {

namespace {

constexpr std::uint64_t NoSocket = 0;

// The socket's inode number in the upper half, its descriptor in the lower. A process that becomes a daemon
// may close all descriptors and get ours back for a file of its own; the inode number tells.
std::atomic<std::uint64_t> s_socket{NoSocket};

std::uint64_t Identify(int descriptor) {
    struct stat status;
    if (::fstat(descriptor, &status) != 0 || !S_ISSOCK(status.st_mode)) {
        return NoSocket;
    }
    return static_cast<std::uint64_t>(status.st_ino) << 32 | static_cast<std::uint32_t>(descriptor);
}

int DescriptorOf(std::uint64_t socket) {
    return static_cast<int>(socket & UINT32_MAX);
}

int OpenSocket() {
    const int descriptor = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0 || descriptor > STDERR_FILENO) {
        return descriptor;
    }
    // A program that runs without standard streams would print into the journal's socket.
    const int moved = ::fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ::close(descriptor);
    return moved;
}

// The process's one socket for the journal, or a negative number.
int JournalSocket() {
    std::uint64_t known = s_socket.load(std::memory_order_acquire);
    if (known != NoSocket && Identify(DescriptorOf(known)) == known) {
        return DescriptorOf(known);
    }
    const int descriptor = OpenSocket();
    if (descriptor < 0) {
        return -1;
    }
    if (s_socket.compare_exchange_strong(known, Identify(descriptor), std::memory_order_acq_rel)) {
        return descriptor;
    }
    ::close(descriptor);
    return DescriptorOf(known);
}

} // namespace

void TCJournalEntry::m_AddPart(const void* data, std::size_t length) {
    m_parts[m_partCount++] = {const_cast<void*>(data), length};
}

void TCJournalEntry::Add(const char* name, const char* value, std::size_t length) {
    if (m_fieldCount == MaxFields) {
        return;
    }
    std::uint64_t& storedLength = m_lengths[m_fieldCount++];
    m_AddPart(name, std::strlen(name));
    if (std::memchr(value, '\n', length) != nullptr) {
        storedLength = htole64(length);
        m_AddPart("\n", 1);
        m_AddPart(&storedLength, sizeof(storedLength));
    } else {
        m_AddPart("=", 1);
    }
    m_AddPart(value, length);
    m_AddPart("\n", 1);
}

void TCJournalEntry::Add(const char* name, const char* value) {
    Add(name, value, std::strlen(value));
}

EJournalResult SendToJournal(const TCJournalEntry& entry, const sockaddr_un& journal) {
    const int descriptor = JournalSocket();
    if (descriptor < 0) {
        return EJournalResult::Failed;
    }
    sockaddr_un address = journal;
    msghdr message{};
    message.msg_name = &address;
    message.msg_namelen = sizeof(address);
    message.msg_iov = const_cast<iovec*>(entry.Parts());
    message.msg_iovlen = entry.PartCount();
    if (::sendmsg(descriptor, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
        return EJournalResult::Sent;
    }
    return errno == EAGAIN || errno == ENOBUFS ? EJournalResult::Full : EJournalResult::Failed;
}

} // namespace MavixPlatformHost
