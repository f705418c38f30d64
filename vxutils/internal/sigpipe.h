// SPDX-License-Identifier: MIT
// SIGPIPE is ignored while a socket client sends or receives.
#pragma once

#include <csignal>

namespace vx {

// Ignores SIGPIPE for its lifetime and then sets the default action, whatever stood there before: daemons rely on a
// broken pipe ending them again once the library call is over.
class SigpipeScope {
public:
    SigpipeScope() noexcept { std::signal(SIGPIPE, SIG_IGN); }
    ~SigpipeScope() { std::signal(SIGPIPE, SIG_DFL); }
    SigpipeScope(const SigpipeScope &) = delete;
    SigpipeScope &operator=(const SigpipeScope &) = delete;
};

}  // namespace vx
