// SPDX-License-Identifier: MIT
// Watches directories by inotify.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/fd.h"

namespace tool {

class DirectoryWatch {
public:
    struct Change {
        std::string directory;  // as it was given to add(); empty when changes were lost
        std::string name;       // entry that changed; empty when the directory itself did
        bool isDirectory;
        bool isNew;           // just made: a regular file's contents are still to come
        bool onlyAttributes;  // mode, owner or times: the contents are the same
    };

    DirectoryWatch();
    // Watches a directory, or a file; one that is not there, or is watched already, is fine.
    bool add(const std::string &path);
    void remove(const std::string &path);
    int fd() const { return fd_.get(); }
    // What has changed since the last call.
    std::vector<Change> changes();

private:
    Fd fd_;
    std::map<int, std::string> paths_;
};

}  // namespace tool
