#include "Sandbox.h"

#include <cstdio>
#include <exception>

int main(int argc, char** argv) {
    int exitCode = 0;
    const auto options = MavixTools::ParseSandboxOptions(argc, argv, exitCode);
    if (!options)
        return exitCode;
    try {
        return MavixTools::TCSandbox(*options).Run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "mavix-sandbox: %s\n", error.what());
        return MavixTools::sandboxFailed;
    }
}
