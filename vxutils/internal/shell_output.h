// SPDX-License-Identifier: MIT
// What a shell command prints.
#pragma once

#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>

#include "vxutils/internal/handles.h"
#include "vxutils/internal/line_buffer.h"

namespace vx {

// A command that runs, and its standard output line by line. Not by fgets(): when a signal interrupts that, it loses
// what it has read of the line and reports the end of the stream.
class ShellOutput {
public:
    explicit ShellOutput(const char *command) : stream_(::popen(command, "re")) {}

    [[nodiscard]] bool running() const { return stream_ != nullptr; }

    // Returns the next line up to its first NUL byte, at most `most` bytes of it; nothing at the end of the output.
    std::optional<std::string_view> nextLine(size_t most) {
        const auto line = lines_.next(::fileno(stream_.get()), most);
        if (line.empty()) return std::nullopt;
        return std::string_view(line.data(), ::strnlen(line.data(), line.size()));
    }

    // Waits for the end of the command: pclose()'s result, but -1 when some of the output could not be read.
    int close() {
        const int status = ::pclose(stream_.release());
        return lines_.failed() ? -1 : status;
    }

private:
    PipePtr stream_;
    LineBuffer lines_;
};

}  // namespace vx
