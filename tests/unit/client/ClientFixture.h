#ifndef MAVIX_TEST_CLIENT_FIXTURE_H
#define MAVIX_TEST_CLIENT_FIXTURE_H

#include "ClientAccess.h"
#include "HookedConnection.h"
#include "IpcConfigurationMavix.h"
#include "MessageBuffer.h"
#include "RecordingPlatform.h"
#include "WireMessage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace MavixTest {

std::unique_ptr<MavixApiLite::IpcConfiguration> MavixConfiguration();

// A client over a connection without a bus. Events go to a context of its own, which the test iterates. Also
// used by child programs, which have no test around them.
class FakedClient {
public:
    explicit FakedClient(
        std::unique_ptr<MavixApiLite::IpcConfiguration> configuration = MavixConfiguration());

    MavixApiLite::TCIpcClient& Client() { return *m_client; }
    MavixApiLite::TIIpcConnectionOwner& Owner() { return *m_client; }
    // Valid as long as the client.
    HookedConnection& Connection() { return m_connection; }
    GMainContext* Context() const { return m_context.get(); }

    bool Initialize() { return m_client->InitializeIpcConnection(&m_connection); }
    void DestroyClient() { m_client.reset(); }

    // Lets the fake service answer every synchronous call so. What was sent is kept.
    void AnswerWith(const std::function<WireMessage()>& reply);
    void AnswerWith(const std::string& body) {
        AnswerWith([body] { return Reply(body); });
    }
    // The requests that were sent, synchronous or not.
    const std::vector<Request>& Requests() const { return m_requests; }

    // Calls with the bytes as input. `output` keeps what it had in front.
    bool Call(const std::string& interfaceName, short code, const Bytes& input, Bytes& output);
    bool Call(const std::string& interfaceName = "com.norvale.ITest", short code = 0,
              const Bytes& input = {}) {
        Bytes unused;
        return Call(interfaceName, code, input, unused);
    }
    bool CallAsync(const std::string& interfaceName = "com.norvale.ITest", short code = 0,
                   const Bytes& input = {});

    // Handles an event as the default context would.
    void Handle(WireMessage event);
    // Filters a message as the dispatch thread would.
    bool Filter(WireMessage message);
    // Iterates the context until nothing is left.
    void DeliverEvents();

private:
    MavixApiLite::MainContextHandle m_context;
    HookedConnection& m_connection;
    void m_Keep(Request request);

    std::mutex m_requestsMutex;
    std::vector<Request> m_requests; // read when all callers are done
    std::unique_ptr<MavixApiLite::TCIpcClient> m_client;
};

class ClientTest : public testing::Test, protected FakedClient {
protected:
    explicit ClientTest(std::unique_ptr<MavixApiLite::IpcConfiguration> configuration = MavixConfiguration());

    TCRecordingPlatform& m_platform = TCRecordingPlatform::Get();
};

// Lines of the library's own log from this priority on, as "<priority>|<source>|<text>".
std::vector<std::string> LogFrom(int priority);
// All errors, as "<source>|<text>".
std::vector<std::string> Errors();

} // namespace MavixTest

#endif
