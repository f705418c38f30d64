// SPDX-License-Identifier: MIT
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace vxtest {

// For its lifetime this process can open `more` further descriptors and no more.
class DescriptorLimit {
public:
    explicit DescriptorLimit(size_t more) {
        ::getrlimit(RLIMIT_NOFILE, &saved_);
        std::vector<int> room;
        int highest = -1;
        // The lowest free numbers are handed out first: the limit is the number after the last one allowed.
        for (size_t i = 0; i <= more; ++i) {
            room.push_back(::open("/", O_PATH | O_CLOEXEC));  // not every box may open /dev/null
            highest = std::max(highest, room.back());
        }
        for (const int fd : room) ::close(fd);
        rlimit limit = saved_;
        limit.rlim_cur = static_cast<rlim_t>(highest);
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &saved_); }
    DescriptorLimit(const DescriptorLimit &) = delete;
    DescriptorLimit &operator=(const DescriptorLimit &) = delete;

private:
    rlimit saved_{};
};

}  // namespace vxtest
