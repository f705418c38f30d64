// SPDX-License-Identifier: MIT
// How a person or a test steers a peer: commands on its standard input, one a line.
#pragma once

#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>

class ControlInput {
public:
    // Reads once and hands each line that is complete to `obey`, without its line end. False at the end of the input.
    template <typename Obey>
    bool read(Obey obey) {
        std::array<char, 4096> piece;
        const ssize_t got = ::read(STDIN_FILENO, piece.data(), piece.size());
        if (got == -1 && errno == EINTR) return true;
        if (got <= 0) return false;
        begun_.append(piece.data(), static_cast<size_t>(got));
        for (size_t end = begun_.find('\n'); end != std::string::npos; end = begun_.find('\n')) {
            const std::string line = begun_.substr(0, end);
            begun_.erase(0, end + 1);
            obey(line);
        }
        return true;
    }

private:
    std::string begun_;
};
