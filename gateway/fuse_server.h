// SPDX-License-Identifier: MIT
// What file systems that a program of the gateway serves over /dev/fuse have in common.
#pragma once

#include <fcntl.h>
#include <linux/fuse.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace fuse {

// Mounts a file system that answers through the descriptor; -1 with errno when a step fails.
inline int mount(const char *name, const char *at) {
    const int connection = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (connection == -1) return -1;
    const std::string options =
        "fd=" + std::to_string(connection) + ",rootmode=40755,user_id=0,group_id=0,allow_other,default_permissions";
    return ::mount(name, at, "fuse", MS_NOSUID | MS_NODEV, options.c_str()) == -1 ? -1 : connection;
}

inline void reply(int connection, uint64_t request, int error, const void *data = nullptr, size_t size = 0) {
    std::vector<char> message(sizeof(fuse_out_header) + size);
    const fuse_out_header header{static_cast<uint32_t>(message.size()), -error, request};
    std::memcpy(message.data(), &header, sizeof header);
    if (size > 0) std::memcpy(message.data() + sizeof header, data, size);
    (void)!::write(connection, message.data(), message.size());
}

// Answers the first request.
inline void replyInit(int connection, uint64_t request) {
    fuse_init_out out{};
    out.major = FUSE_KERNEL_VERSION;
    out.minor = 31;
    out.max_write = 4096;
    reply(connection, request, 0, &out, sizeof out);
}

// Appends an entry to the list that answers the reading of a directory; false when `room` bytes do not hold it. `position`
// is where the entry stands in the directory, from 0.
inline bool append(std::vector<char> &list, size_t room, size_t position, uint64_t node, unsigned int type,
                   const std::string &name) {
    const size_t at = list.size();
    const size_t length = FUSE_DIRENT_ALIGN(FUSE_NAME_OFFSET + name.size());
    if (at + length > room) return false;
    const fuse_dirent entry{node, position + 1, static_cast<uint32_t>(name.size()), type};
    list.resize(at + length);
    std::memcpy(list.data() + at, &entry, FUSE_NAME_OFFSET);
    std::memcpy(list.data() + at + FUSE_NAME_OFFSET, name.data(), name.size());
    return true;
}

}  // namespace fuse
