// SPDX-License-Identifier: MIT
// Descriptors, processes and memory before and after.
#pragma once

#include <gtest/gtest.h>
#include <syslog.h>

#include <string>
#include <vector>

namespace vxtest {

// Open descriptors of this process as "number -> target", the one used for looking left out.
std::vector<std::string> openDescriptors();

// Children of this process that have ended and were not waited for.
int zombieChildren();

// Expects at its end the descriptors of its beginning, and no zombie more. The C library's own connection to the system
// log does not count: it is opened when something is logged first.
class NoLeaks {
public:
    NoLeaks() : descriptors_(ownDescriptors()), zombies_(zombieChildren()) {}
    ~NoLeaks() {
        EXPECT_EQ(ownDescriptors(), descriptors_);
        EXPECT_EQ(zombieChildren(), zombies_);
    }
    NoLeaks(const NoLeaks &) = delete;
    NoLeaks &operator=(const NoLeaks &) = delete;

private:
    static std::vector<std::string> ownDescriptors() {
        ::closelog();
        return openDescriptors();
    }

    std::vector<std::string> descriptors_;
    int zombies_;
};

// A text of hundreds of megabytes that takes two of memory: the same piece, mapped again and again. For calls that are
// to run out of memory when they copy it (within a limit of the address space).
class HugeText {
public:
    HugeText();
    ~HugeText();
    HugeText(const HugeText &) = delete;
    HugeText &operator=(const HugeText &) = delete;

    const char *c_str() const { return text_; }

private:
    char *text_;
};

// A block of `size` bytes that ends right at an unreadable page (and begins after one when size is a page multiple).
class GuardedBuffer {
public:
    explicit GuardedBuffer(size_t size);
    ~GuardedBuffer();
    GuardedBuffer(const GuardedBuffer &) = delete;
    GuardedBuffer &operator=(const GuardedBuffer &) = delete;

    char *data() { return data_; }
    size_t size() const { return size_; }

private:
    char *map_;
    size_t mapped_;
    char *data_;
    size_t size_;
};

}  // namespace vxtest
