// SPDX-License-Identifier: MIT
#ifndef VXGATEWAY_STANDARD_STREAMS_H
#define VXGATEWAY_STANDARD_STREAMS_H

#include <fcntl.h>
#include <unistd.h>

// Opens /dev/null for each of the descriptors 0 to 2 that is closed. Otherwise the next file, pipe or socket takes its
// number, and messages are written into it.
inline void openStandardStreams() {
    int fd = -1;
    do fd = ::open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd != -1) ::close(fd);
}

#endif
