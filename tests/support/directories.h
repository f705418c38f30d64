// SPDX-License-Identifier: MIT
// What the tests of directories share: a directory of their own, trees and deep chains in it.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/file.h>

#include <filesystem>
#include <string>

#include "support/files.h"
#include "support/resources.h"

namespace vxtest::directories {

namespace fs = std::filesystem;

inline const std::string dir = "/tmp/directory";

inline std::string path(const std::string &name) { return dir + "/" + name; }

inline mode_t modeOf(const std::string &name) {
    struct stat status {};
    return ::lstat(name.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

inline int createDirectory(std::string name) { return create_directory(name.data()); }

inline int copyFile(const std::string &src, const std::string &dst) { return copy_file(src.c_str(), dst.c_str()); }

inline int copyDirectory(const std::string &src, const std::string &dst) {
    return copy_directory(src.c_str(), dst.c_str());
}

class Directories : public testing::Test {
protected:
    void SetUp() override {
        ::umask(022);
        fs::remove_all(dir);
        makeDirs(dir);
    }

    NoLeaks noLeaks_;
};

// A chain of directories below `top` whose innermost path is as near to `length` bytes as names of `step` bytes go, not
// longer. Made step by step, because a whole path would be too long for the kernel.
inline std::string makeChain(const std::string &top, size_t length, size_t step) {
    std::string innermost = top;
    const std::string name(step, 'd');
    const int here = ::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    EXPECT_EQ(::chdir(top.c_str()), 0);
    while (innermost.size() + 1 + step <= length) {
        EXPECT_EQ(::mkdir(name.c_str(), 0755), 0);
        EXPECT_EQ(::chdir(name.c_str()), 0);
        innermost += "/" + name;
    }
    EXPECT_EQ(::fchdir(here), 0);
    ::close(here);
    return innermost;
}

class Trees : public Directories {
protected:
    // A tree with every kind of entry, and beside it a directory that only a link points to.
    void SetUp() override {
        Directories::SetUp();
        writeFile(path("tree/one"), "1");
        writeFile(path("tree/sub/deep/two"), "2");
        makeDirs(path("tree/empty"));
        ASSERT_EQ(::mkfifo(path("tree/sub/fifo").c_str(), 0600), 0);
        writeFile(path("outside/kept"), "kept");
        ASSERT_EQ(::symlink("../outside", path("tree/link").c_str()), 0);
        ASSERT_EQ(::symlink("nowhere", path("tree/dangling").c_str()), 0);
    }
};

}  // namespace vxtest::directories
