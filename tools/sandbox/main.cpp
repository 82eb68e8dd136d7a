#include "Keeper.h"
#include "PrivateRun.h"
#include "Sandbox.h"

#include <cstdio>
#include <exception>

namespace {

int Run(const MavixTools::SandboxOptions& options, MavixTools::Kept& kept) {
    if (options.privateRun) {
        const std::string reason = MavixTools::EnterPrivateRun();
        if (!reason.empty())
            std::fprintf(stderr, "mavix-sandbox: the cache is unavailable: %s\n", reason.c_str());
    }
    return MavixTools::TCSandbox(options, kept).Run();
}

} // namespace

int main(int argc, char** argv) {
    int exitCode = 0;
    const auto options = MavixTools::ParseSandboxOptions(argc, argv, exitCode);
    if (!options)
        return exitCode;
    try {
        return MavixTools::RunInKeeper([&](MavixTools::Kept& kept) { return Run(*options, kept); });
    } catch (const std::exception& error) {
        std::fprintf(stderr, "mavix-sandbox: %s\n", error.what());
        return MavixTools::sandboxFailed;
    }
}
