// SPDX-License-Identifier: MIT
#pragma once

#include <sys/resource.h>

namespace vxtest {

// For its lifetime files of this process may be as large as the system lets them. The caller of the tests may have set a
// limit that can be lifted, as scripts/mutate does.
class LargeFiles {
public:
    LargeFiles() {
        ::getrlimit(RLIMIT_FSIZE, &saved_);
        rlimit most = saved_;
        most.rlim_cur = saved_.rlim_max;
        ::setrlimit(RLIMIT_FSIZE, &most);
    }
    ~LargeFiles() { ::setrlimit(RLIMIT_FSIZE, &saved_); }
    LargeFiles(const LargeFiles &) = delete;
    LargeFiles &operator=(const LargeFiles &) = delete;

private:
    rlimit saved_{};
};

}  // namespace vxtest
