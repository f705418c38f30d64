// SPDX-License-Identifier: MIT
// Covers /proc, in which the kernel lets no one make a directory, with one in which "sysinfo" can be made and removed.
//
// It lists what the kernel's own /proc lists at the same moment, each entry with the kernel's type, since programs take
// for processes only what is listed as a directory. Each entry leads, as a link, to the same one of the kernel's /proc,
// which is moved aside, and "sysinfo" to a directory outside. A process of its own serves the links over /dev/fuse
// until the box ends.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <linux/fuse.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <system_error>
#include <vector>

#include "gateway/fuse_server.h"

class ProcCover {
public:
    static constexpr const char *aside = "/.proc";
    static constexpr const char *added = "sysinfo";
    static constexpr const char *addedTarget = "/.sysinfo";

    explicit ProcCover(int fuse) : fuse_(fuse), buffer_(FUSE_MIN_READ_BUFFER) {}

    // Answers the kernel's requests until the directory is unmounted.
    void serve() {
        for (;;) {
            const ssize_t got = ::read(fuse_, buffer_.data(), buffer_.size());
            if (got == -1 && errno == ENODEV) return;
            if (got > 0) answer();
        }
    }

private:
    struct Entry {
        uint64_t number;
        unsigned char type;
        std::string name;
    };
    // What mkdir() is told to have made: a directory has to be, though from the next look on it is a link.
    static constexpr uint64_t madeNode = 2;
    static constexpr uint64_t firstLink = 3;

    static std::string targetOf(const std::string &name) {
        return name == added ? addedTarget : std::string(aside) + "/" + name;
    }

    static bool exists(const std::string &path) {
        struct stat status {};
        return ::lstat(path.c_str(), &status) == 0;
    }

    // Node of a name; 0 when there is none. Nodes of processes that have ended are kept: a box has few.
    uint64_t nodeOf(const std::string &name) {
        if (!exists(targetOf(name))) return 0;
        const auto [at, isNew] = nodes_.emplace(name, firstLink + names_.size());
        if (isNew) names_.push_back(name);
        return at->second;
    }

    static fuse_attr attributes(uint64_t node) {
        fuse_attr attr{};
        attr.ino = node;
        attr.nlink = node < firstLink ? 2 : 1;
        attr.mode = node < firstLink ? S_IFDIR | 0755 : S_IFLNK | 0777;
        return attr;
    }

    static std::vector<Entry> entries() {
        std::vector<Entry> found;
        DIR *const opened = ::opendir(aside);
        while (const dirent *entry = opened != nullptr ? ::readdir(opened) : nullptr) {
            found.push_back({entry->d_ino, entry->d_type, entry->d_name});
        }
        if (opened != nullptr) ::closedir(opened);
        if (exists(addedTarget)) found.push_back({madeNode, DT_DIR, added});
        return found;
    }

    void reply(uint64_t unique, int error, const void *data = nullptr, size_t size = 0) const {
        fuse::reply(fuse_, unique, error, data, size);
    }

    void replyEntry(const fuse_in_header &header, uint64_t node) const {
        if (node == 0) return reply(header.unique, ENOENT);
        fuse_entry_out out{};  // nothing is cached: processes come and go
        out.nodeid = node;
        out.attr = attributes(node);
        reply(header.unique, 0, &out, sizeof out);
    }

    void makeDirectory(const fuse_in_header &header, const char *name) const {
        if (std::strcmp(name, added) != 0) return reply(header.unique, EPERM);
        if (::mkdir(addedTarget, 0755) == -1) return reply(header.unique, errno);
        replyEntry(header, madeNode);
    }

    void remove(const fuse_in_header &header, const char *name) const {
        if (std::strcmp(name, added) != 0) return reply(header.unique, EPERM);
        std::error_code failure;
        std::filesystem::remove_all(addedTarget, failure);
        reply(header.unique, failure.value());
    }

    void readLink(const fuse_in_header &header) const {
        const uint64_t index = header.nodeid - firstLink;
        if (index >= names_.size()) return reply(header.unique, EINVAL);
        const std::string target = targetOf(names_[index]);
        reply(header.unique, 0, target.data(), target.size());
    }

    // The list is taken when the directory is opened, so that what comes and goes while it is read moves no other entry.
    void openDirectory(const fuse_in_header &header) {
        fuse_open_out out{};
        out.fh = ++lastHandle_;
        lists_[out.fh] = entries();
        reply(header.unique, 0, &out, sizeof out);
    }

    void readDirectory(const fuse_in_header &header, const fuse_read_in &in) {
        const std::vector<Entry> &list = lists_[in.fh];
        std::vector<char> out;
        for (size_t i = static_cast<size_t>(in.offset); i < list.size(); ++i) {
            if (!fuse::append(out, in.size, i, list[i].number, list[i].type, list[i].name)) break;
        }
        reply(header.unique, 0, out.data(), out.size());
    }

    template <typename T>
    T body() const {
        T in{};
        std::memcpy(&in, buffer_.data() + sizeof(fuse_in_header), sizeof in);
        return in;
    }

    void answer() {
        fuse_in_header header{};
        std::memcpy(&header, buffer_.data(), sizeof header);
        switch (header.opcode) {
            case FUSE_INIT:
                return fuse::replyInit(fuse_, header.unique);
            case FUSE_LOOKUP:
                return replyEntry(header, nodeOf(buffer_.data() + sizeof header));
            case FUSE_MKDIR:
                return makeDirectory(header, buffer_.data() + sizeof header + sizeof(fuse_mkdir_in));
            case FUSE_UNLINK:
            case FUSE_RMDIR:
                return remove(header, buffer_.data() + sizeof header);
            case FUSE_GETATTR: {
                fuse_attr_out out{};
                out.attr = attributes(header.nodeid);
                return reply(header.unique, 0, &out, sizeof out);
            }
            case FUSE_READLINK:
                return readLink(header);
            case FUSE_OPENDIR:
                return openDirectory(header);
            case FUSE_READDIR:
                return readDirectory(header, body<fuse_read_in>());
            case FUSE_RELEASEDIR:
                lists_.erase(body<fuse_release_in>().fh);
                return reply(header.unique, 0);
            case FUSE_STATFS: {
                const fuse_statfs_out out{};
                return reply(header.unique, 0, &out, sizeof out);
            }
            case FUSE_FORGET:
            case FUSE_BATCH_FORGET:
            case FUSE_INTERRUPT:
                return;
            default:
                return reply(header.unique, ENOSYS);
        }
    }

    int fuse_;
    std::vector<char> buffer_;
    std::map<std::string, uint64_t> nodes_;
    std::vector<std::string> names_;
    std::map<uint64_t, std::vector<Entry>> lists_;  // of each open directory
    uint64_t lastHandle_ = 0;
};

// Covers /proc and leaves the process that serves it. False, with errno, when a step fails.
inline bool coverProc() {
    if (::mkdir(ProcCover::aside, 0555) == -1) return errno == EEXIST;  // covered already
    if (::mount("/proc", ProcCover::aside, nullptr, MS_BIND | MS_REC, nullptr) == -1) return false;
    const int connection = fuse::mount("proc", "/proc");
    if (connection == -1) return false;
    const pid_t server = ::fork();
    if (server == -1) return false;
    if (server == 0) {
        // Of what is open only the connection is kept: callers wait for the end of this program's output.
        ::setsid();
        const int kept = ::dup2(connection, STDERR_FILENO + 1);
        for (int fd = ::open("/dev/null", O_RDWR | O_CLOEXEC), i = 0; i <= STDERR_FILENO; ++i) ::dup2(fd, i);
        ::close_range(static_cast<unsigned int>(kept) + 1, ~0U, 0);
        ProcCover(kept).serve();
        ::_exit(0);
    }
    ::close(connection);
    return ::mkdir(ProcCover::addedTarget, 0755) == 0;
}
