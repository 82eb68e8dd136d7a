#ifndef MAVIX_BENCH_CACHE_PEER_H
#define MAVIX_BENCH_CACHE_PEER_H

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace MavixBench {

// One way to share a value of a fixed size between processes. Failures are thrown as std::runtime_error.
// Used by one thread.
class TICachePeer {
public:
    virtual ~TICachePeer();

    // Copies the value; false when there is none.
    virtual bool Read(std::vector<char>& value) = 0;
    virtual void Write(const std::vector<char>& value) = 0;
};

// "ours"; "floor": the lock calls and the copy that no cache of this kind can do without; "lmdb". A writer
// may also read.
std::unique_ptr<TICachePeer> OpenCache(const std::string& peer, std::size_t size, bool isWriter);

// Removes what the caches of this process leave behind.
class TCCacheFiles final {
public:
    TCCacheFiles();
    ~TCCacheFiles();
    TCCacheFiles(const TCCacheFiles&) = delete;
    TCCacheFiles& operator=(const TCCacheFiles&) = delete;
};

} // namespace MavixBench

#endif
