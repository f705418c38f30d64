// SPDX-License-Identifier: MIT
// Texts that live long enough for one message.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <string_view>

namespace vx {

// Four buffers used in turn, so that one message can show four texts.  Shared by all threads and not locked: with
// several at work a message may show another thread's text, but always a terminated one, because the last byte of a
// buffer is never written.
class TextRing {
public:
    const char *keep(std::string_view text) noexcept {
        Buffer &buffer = buffers_[next_.fetch_add(1, std::memory_order_relaxed) % buffers_.size()];
        const size_t length = std::min(text.size(), buffer.size() - 1);
        for (size_t i = 0; i < length; ++i) store(buffer[i], text[i]);
        if (length < buffer.size() - 1) store(buffer[length], '\0');
        return buffer.data();
    }

private:
    using Buffer = std::array<char, 64>;
    static void store(char &at, char value) noexcept {
        std::atomic_ref<char>(at).store(value, std::memory_order_relaxed);
    }

    std::array<Buffer, 4> buffers_{};
    std::atomic<unsigned int> next_{0};
};

}  // namespace vx
