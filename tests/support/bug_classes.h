// SPDX-License-Identifier: MIT
// What the two programs that test classes of bugs share.
#pragma once

#include <sys/stat.h>
#include <vxutils/file.h>
#include <vxutils/list.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "support/files.h"
#include "support/resources.h"

namespace vxtest {

inline constexpr size_t pageSize = 4096;

// A text whose terminator is the last byte before an unreadable page.
class TextAtEnd {
public:
    explicit TextAtEnd(std::string_view text) : buffer_(text.size() + 1) {
        std::copy(text.begin(), text.end(), buffer_.data());
        buffer_.data()[text.size()] = '\0';
    }
    char *get() { return buffer_.data(); }

private:
    GuardedBuffer buffer_;
};

// A text that begins right after an unreadable page.
class TextAtStart {
public:
    explicit TextAtStart(std::string_view text) : buffer_(pageSize) {
        std::copy(text.begin(), text.end(), buffer_.data());
        buffer_.data()[text.size()] = '\0';
    }
    char *get() { return buffer_.data(); }

private:
    GuardedBuffer buffer_;
};

inline void freeLines(list_link &lines) {
    while (list_empty(&lines) == 0) {
        auto *const line = reinterpret_cast<file_line *>(lines.next);
        list_del(&line->list);
        free(line->data);
        free(line);
    }
}

inline void writeProgram(const std::string &path, const std::string &script) {
    writeFile(path, "#!/bin/sh\n" + script);
    ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
}

}  // namespace vxtest
