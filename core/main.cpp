// Entry point of shd, started by init without arguments.
#include <cstdio>

#include "core/startup.h"

int main() {
    // The servers' trace lines appear as they are written, also in a file or a pipe.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return RunDaemon();
}
