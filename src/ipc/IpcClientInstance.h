#ifndef MAVIX_IPC_CLIENT_INSTANCE_H
#define MAVIX_IPC_CLIENT_INSTANCE_H

#include "IpcClientInterface.h"

#include <memory>

namespace MavixApiLite {

// The registry of the process-wide client.
class MAVIX_API_EXPORT TCIpcClientInstance {
public:
    // The client, created on first use; any thread. Empty, with one error line, once the process has begun to
    // exit and in a child that was forked after the client was created. What creating it throws passes
    // through, std::system_error when too few file descriptors are left, and the next caller tries again.
    static std::shared_ptr<TIIpcClient> GetInstance();

    // Whether GetInstance is empty for one of these two reasons.
    static bool IsGone();

    // Whether this process is a child that was forked after the client was created. Takes no lock.
    static bool IsForkedChild();
};

} // namespace MavixApiLite

#endif
