// SPDX-License-Identifier: MIT
// Texts from outside the library, made safe to be shown in a log or on a terminal.
#pragma once

#include <cstddef>

#include "vxutils/internal/handles.h"

namespace vx {

// A text with its control bytes escaped as \xNN, so that it cannot begin a new line or steer a terminal: bytes below
// 0x20, 0x7F, and those from 0x80 to 0x9F that do not belong to a UTF-8 character. All other texts are unchanged, with
// one exception, which makes the escaping reversible: the backslash of what reads as an escape already becomes \x5C.
class VisibleText {
public:
    explicit VisibleText(const char *text) noexcept;
    VisibleText(const char *text, size_t length) noexcept;
    VisibleText(const VisibleText &) = delete;
    VisibleText &operator=(const VisibleText &) = delete;

    // Valid as long as this object and the text. Where memory is short the end of an escaped text is missing.
    const char *c_str() const { return shown_; }
    size_t length() const { return length_; }

private:
    const char *shown_;
    size_t length_;
    MallocText large_;
    char small_[512];
};

}  // namespace vx
