#ifndef MAVIX_BENCH_PEER_H
#define MAVIX_BENCH_PEER_H

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace MavixBench {

// One way to call the service: this library's, or the same work done directly on a bus library. Every peer
// sends the same bytes to the same function, whose answer is the payload. The bus is the system bus. A failed
// call is thrown as std::runtime_error. Calls from several threads: where Create says so.
class TIPeer {
public:
    virtual ~TIPeer();

    // Sends the payload, waits for the answer, copies its bytes into memory of the caller's own, which the
    // bus library's is not, and looks at their number.
    virtual void Call(const std::vector<char>& payload) = 0;
    // Sends the payload and asks for no answer.
    virtual void CallAsync(const std::vector<char>& payload);
};

// "ours", "ours-libdbus" (over the other transport), "gdbus", "libdbus" or "sdbus"; of these, several threads
// may call ours and gdbus.
std::unique_ptr<TIPeer> CreatePeer(const std::string& name);

std::unique_ptr<TIPeer> CreateOurs();
std::unique_ptr<TIPeer> CreateOursOverLibdbus();
std::unique_ptr<TIPeer> CreateGdbus();
// Like ours, asks whether the service has an owner before it calls it, and watches for a change of the owner.
std::unique_ptr<TIPeer> CreateGdbusThatWatches();
std::unique_ptr<TIPeer> CreateLibdbus();
std::unique_ptr<TIPeer> CreateSdbus();

// What all of them send.
constexpr const char* calledBus = "com.norvale.MavixAPI";
constexpr const char* calledObject = "/com/norvale/Object";
constexpr const char* calledInterface = "com.norvale.ISimTest";
constexpr const char* calledMember = "MethodCall";
constexpr short echoCode = 0;

[[noreturn]] void Fail(const std::string& what);
void ExpectSize(std::size_t expected, std::size_t actual);
void TakeAnswer(std::size_t expected, const void* data, std::size_t size);

} // namespace MavixBench

#endif
