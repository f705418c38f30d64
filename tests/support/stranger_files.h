// SPDX-License-Identifier: MIT
// Files of root's and files of a stranger's, for tests of what a stranger can reach through the library.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <string>

#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/stranger.h"

namespace vxtest::strangers {

namespace fs = std::filesystem;

inline const std::string dir = "/tmp/strangers";
inline const std::string theirs = dir + "/theirs";  // the stranger's own directory
inline const std::string ours = dir + "/ours";      // where only root may look

inline mode_t modeOf(const std::string &path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

inline void makeDir(const std::string &path, mode_t mode, uid_t owner = 0) {
    makeDirs(path);
    ASSERT_EQ(::chown(path.c_str(), owner, owner), 0);
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
}

class Strangers : public testing::Test {
protected:
    void SetUp() override {
        if (!hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
        ::umask(022);
        fs::remove_all(dir);
        fs::remove_all("/tmp/status");
        makeDir(theirs, 0755, stranger);
        makeDir(ours, 0700);
        for (int i = 0; i < 20; ++i) writeFile(ours + "/file" + std::to_string(i), "secret");
    }
    void TearDown() override {
        fs::remove_all("/tmp/status");
        fs::remove_all(dir);
    }

    static size_t oursLeft() { return static_cast<size_t>(std::distance(fs::directory_iterator(ours), {})); }

    NoLeaks noLeaks_;
};

}  // namespace vxtest::strangers
