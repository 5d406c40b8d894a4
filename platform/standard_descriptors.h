// Standard descriptors for a program that was started without them. Called first by the daemon and
// by the tools.
#pragma once

#include <fcntl.h>
#include <unistd.h>

// Opens /dev/null in place of each standard descriptor that is closed: a file or a socket that is
// opened later would else become one of them and receive what the program has to say.
inline void FillStandardDescriptors() {
    int fd = 0;
    do {
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) close(fd);
}
