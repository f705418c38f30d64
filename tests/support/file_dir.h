// SPDX-License-Identifier: MIT
// The directory in which the tests of files work, emptied before each of them.
#pragma once

#include <glob.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/file.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/resources.h"

namespace vxtest::filedir {

inline const std::string dir = "/tmp/file";

inline std::string path(const std::string &name) { return dir + "/" + name; }

inline mode_t modeOf(const std::string &name) {
    struct stat status {};
    return ::lstat(name.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

inline std::vector<std::string> found(const std::string &pattern) {
    glob_t result{};
    std::vector<std::string> names;
    if (::glob(pattern.c_str(), 0, nullptr, &result) == 0) {
        names.assign(result.gl_pathv, result.gl_pathv + result.gl_pathc);
    }
    ::globfree(&result);
    return names;
}

// What is left of temporary files beside a target.
inline std::vector<std::string> temporaries(const std::string &target) { return found(target + "_??????"); }

class Files : public testing::Test {
protected:
    void SetUp() override {
        makeDirs(dir);
        for (const std::string &name : found(dir + "/*")) ::unlink(name.c_str());
    }

    NoLeaks noLeaks_;
};

// Reads a file with this content by readfile_r(), into a block of exactly `size` bytes.
inline std::string read(const std::string &content, size_t size = 1024) {
    writeFile(path("value"), content);
    GuardedBuffer buffer(size);
    std::memset(buffer.data(), '?', size);
    return readfile_r(path("value").c_str(), buffer.data(), size);
}

class ReadFileLines : public Files {
protected:
    ~ReadFileLines() override {
        while (list_empty(&lines_) == 0) {
            auto *line = reinterpret_cast<file_line *>(lines_.next);
            list_del(&line->list);
            std::free(line->data);
            std::free(line);
        }
    }

    std::vector<std::string> texts() const {
        std::vector<std::string> all;
        for (const list_link *at = lines_.next; at != &lines_; at = at->next) {
            all.emplace_back(reinterpret_cast<const file_line *>(at)->data);
        }
        return all;
    }

    int readLines(const std::string &content) {
        writeFile(path("lines"), content);
        return read_file_lines(path("lines").c_str(), &lines_);
    }

    list_link lines_ = {&lines_, &lines_};
};

}  // namespace vxtest::filedir
