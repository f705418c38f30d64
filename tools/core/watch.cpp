// SPDX-License-Identifier: MIT
#include "core/watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "core/failure.h"

namespace tool {

namespace {

constexpr uint32_t watched =
    IN_CLOSE_WRITE | IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ATTRIB;

}  // namespace

DirectoryWatch::DirectoryWatch() : fd_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (!fd_.valid()) throw systemFailure("inotify");
}

bool DirectoryWatch::add(const std::string &path) {
    const int watch = ::inotify_add_watch(fd_.get(), path.c_str(), watched);
    if (watch >= 0) {
        paths_[watch] = path;
        return true;
    }
    if (errno == ENOSPC) throw Failure(path, "more directories than may be watched (fs.inotify.max_user_watches)");
    if (errno != ENOENT && errno != ENOTDIR) throw systemFailure(path);
    return false;
}

void DirectoryWatch::remove(const std::string &path) {
    for (const auto &[watch, known] : paths_) {
        if (known != path) continue;
        ::inotify_rm_watch(fd_.get(), watch);
        paths_.erase(watch);
        return;
    }
}

std::vector<DirectoryWatch::Change> DirectoryWatch::changes() {
    std::vector<Change> found;
    alignas(inotify_event) std::array<char, 65536> buffer;
    for (;;) {
        const ssize_t got = ::read(fd_.get(), buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return found;
        for (size_t at = 0; at < static_cast<size_t>(got);) {
            inotify_event event;
            std::memcpy(&event, buffer.data() + at, sizeof event);
            const char *name = event.len > 0 ? buffer.data() + at + sizeof event : "";
            at += sizeof event + event.len;
            const auto path = paths_.find(event.wd);
            if (path == paths_.end()) {
                if ((event.mask & IN_Q_OVERFLOW) != 0) found.push_back({});
                continue;
            }
            found.push_back({path->second, name, (event.mask & IN_ISDIR) != 0, (event.mask & IN_CREATE) != 0,
                             (event.mask & IN_ATTRIB) != 0});
            if ((event.mask & IN_IGNORED) != 0) paths_.erase(path);
        }
    }
}

}  // namespace tool
