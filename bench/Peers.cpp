#include "Peer.h"

namespace MavixBench {

std::unique_ptr<TIPeer> CreatePeer(const std::string& name) {
    if (name == "ours") {
        return CreateOurs();
    }
    if (name == "ours-libdbus") {
        return CreateOursOverLibdbus();
    }
    if (name == "gdbus") {
        return CreateGdbus();
    }
    if (name == "libdbus") {
        return CreateLibdbus();
    }
    if (name == "sdbus") {
        return CreateSdbus();
    }
    Fail("no such peer: " + name);
}

} // namespace MavixBench
