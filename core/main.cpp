// Entry point of shd, started by init without arguments.
#include <unistd.h>

#include <cstdio>

#include "core/startup.h"
#include "platform/sole_daemon.h"
#include "platform/standard_descriptors.h"

namespace {

constexpr int kExitSecondDaemon = 1;
constexpr int kExitUsage = 2;

}  // namespace

int main(int argc, char** /*argv*/) {
    FillStandardDescriptors();  // else 0 may become the UART's, where it means closed
    if (argc > 1) {
        std::fputs("usage: shd (no arguments; it runs until it is killed)\n", stderr);
        return kExitUsage;
    }
    if (!ClaimHub()) return kExitSecondDaemon;
    // The servers' trace lines appear as they are written, also in a file or a pipe.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const int result = RunDaemon();
    std::fflush(stdout);
    _exit(result);  // no destructor runs under the servers' threads
}
