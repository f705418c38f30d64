// SPDX-License-Identifier: MIT
// Lines of a file as fgets() cuts them, without a call and a copy for each.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <span>

#include "vxutils/internal/retry.h"

namespace vx {

class LineBuffer {
public:
    // Returns the next line with its line feed, or as many bytes of it as `most`; empty at the end of the file and
    // after a read error. Valid, and to be changed at will, until the next call; the byte after it may be changed and
    // restored.
    std::span<char> next(int fd, size_t most) {
        for (size_t seen = 0;;) {
            const size_t there = std::min(end_ - begin_, most);
            const char *start = bytes_.data() + begin_;
            const void *newline = std::memchr(start + seen, '\n', there - seen);
            size_t length = there;
            if (newline != nullptr) {
                length = static_cast<size_t>(static_cast<const char *>(newline) - start) + 1;
            } else if (there < most) {
                seen = there;
                const ssize_t got = fill(fd);
                if (got > 0) continue;
                if (got < 0) return {};
            }
            begin_ += length;
            return {bytes_.data() + begin_ - length, length};
        }
    }

    // Whether a read error ended the lines.
    bool failed() const { return failed_; }

    // What has been read from the file and not yet been returned.
    std::span<const char> unread() const { return {bytes_.data() + begin_, end_ - begin_}; }

    // Goes on with these bytes, at most what unread() gave, and the file after them.
    void restart(std::span<const char> bytes) {
        std::copy(bytes.begin(), bytes.end(), bytes_.begin());
        begin_ = 0;
        end_ = bytes.size();
    }

private:
    ssize_t fill(int fd) {
        std::memmove(bytes_.data(), bytes_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
        const ssize_t got = retryEintr([&] { return ::read(fd, bytes_.data() + end_, room - end_); });
        if (got > 0) end_ += static_cast<size_t>(got);
        if (got < 0) failed_ = true;
        return got;
    }

    static constexpr size_t room = 16384;  // lines are shorter by far
    size_t begin_ = 0;
    size_t end_ = 0;
    bool failed_ = false;
    std::array<char, room + 1> bytes_;
};

}  // namespace vx
