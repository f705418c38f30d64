// SPDX-License-Identifier: MIT
// Reading and writing file contents. Directories are in directory.cpp, copies in copy.cpp.
#include <vxutils/file.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/address.h>
#include <vxutils/strutil.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>
#include <utility>

#include "vxutils/internal/errno_keeper.h"
#include "vxutils/internal/fd.h"
#include "vxutils/internal/guarded_open.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/line_buffer.h"
#include "vxutils/internal/log.h"
#include "vxutils/internal/retry.h"

using vx::Fd;
using vx::MallocPtr;
using vx::MallocText;

extern const int READFILE_OPEN_FAILED = -1;
extern const int READFILE_OUT_OF_MEMORY = -10;

namespace {

constexpr char temporarySuffix[] = "_XXXXXX";
constexpr std::string_view directPrefixes[] = {"/dev", "/proc", "/sys"};  // a rename cannot replace these
constexpr mode_t directMode = 0666;

constexpr size_t longestLine = 1023;
constexpr size_t chunkSize = 4096;
constexpr uintmax_t mostHidden = uintmax_t{1024} * 1024;   // bytes after a NUL byte, which yield no text
constexpr size_t mostForLines = size_t{32} * 1024 * 1024;  // bytes of a file and of the records for its lines
constexpr size_t lineOverhead = sizeof(file_line) + 4 * sizeof(void *);  // two blocks of the allocator

char readfileText[1024];
char tmpfileName[1024];

struct Content {
    const void *data;
    size_t size;
    bool newline;
};

// Quirk Q25.
bool mustWriteDirectly(const char *path) {
    if (path[0] != '/') return false;
    return std::any_of(std::begin(directPrefixes), std::end(directPrefixes), [path](std::string_view prefix) {
        return path[1] == prefix[1] && std::strncmp(path, prefix.data(), prefix.size()) == 0;
    });
}

MallocText temporaryName(const char *path) {
    const size_t length = std::strlen(path);
    MallocText name(static_cast<char *>(std::malloc(length + sizeof temporarySuffix)));
    if (name) std::memcpy(mempcpy(name.get(), path, length), temporarySuffix, sizeof temporarySuffix);
    return name;
}

// Makes a single write, because kernel attributes take each write as a command. A short write counts as failed.
bool writeWhole(const Fd &fd, const void *data, size_t size) {
    const ssize_t written = ::write(fd.get(), data, size);
    return written >= 0 && static_cast<size_t>(written) == size;
}

bool writeWholeAndNewline(const Fd &fd, const Content &content) {
    const MallocText line(content.size < SIZE_MAX ? static_cast<char *>(std::malloc(content.size + 1)) : nullptr);
    if (!line) {
        errno = ENOMEM;
        return false;
    }
    if (content.size > 0) std::memcpy(line.get(), content.data, content.size);
    line.get()[content.size] = '\n';
    return writeWhole(fd, line.get(), content.size + 1);
}

int writeDirectly(const char *path, const Content &content) {
    vx::Target target = vx::openTarget(AT_FDCWD, path, directMode);
    if (!target.valid() || !vx::emptyTarget(target)) {
        vx::log(DL_ERROR, "Unable to open file (%s) for writing - errno=%i(%s)", path, errno, std::strerror(errno));
        return -1;
    }
    const vx::BrokenPipeGuard guard(target);
    const bool written = content.newline ? writeWholeAndNewline(target.file, content)
                                         : writeWhole(target.file, content.data, content.size);
    target.file.reset();
    if (!written) {
        vx::log(DL_ERROR, "Unable to write to file (%s) - errno=%i(%s)", path, errno, std::strerror(errno));
        return -1;
    }
    vx::log(DL_INFO, "Non atomic fallback used for writing to file (%s)", path);
    return 0;
}

int cannotOpenTemporary(const char *temporary) {
    vx::log(DL_ERROR, "Unable to open tempfile (%s) for writing - errno=%i(%s)", temporary, errno,
            std::strerror(errno));
    return -1;
}

int replaceThrough(Fd temporaryFd, const char *temporary, const char *path, const Content &content) {
    const bool written =
        writeWhole(temporaryFd, content.data, content.size) && (!content.newline || writeWhole(temporaryFd, "\n", 1));
    temporaryFd.reset();
    if (!written) {  // Quirk Q24: the temporary file stays.
        vx::log(DL_ERROR, "Unable to write to tempfile (%s) - errno=%i(%s)", temporary, errno, std::strerror(errno));
        return -1;
    }
    if (::rename(temporary, path) == -1) {
        vx::log(DL_ERROR, "Unable to rename tempfile (%s) to %s - errno=%i(%s)", temporary, path, errno,
                std::strerror(errno));
        const vx::ErrnoKeeper keeper;
        ::unlink(temporary);
        return -1;
    }
    return 0;
}

// The contract asks for the rights of the real user, which access() checks; open() checks the effective one. For a real
// root access() never refuses what open() grants, so daemons that run as root are spared a second walk of the path.
bool isReadable(const char *name) { return ::getuid() == 0 || ::access(name, R_OK) == 0; }

// Collects a text as repeated fgets() and strlen() on one buffer would: a piece ends after its newline or at the end of
// the buffer, and what follows a NUL byte in a piece is lost, its newline included.
class LineCollector {
public:
    LineCollector(char *buf, size_t size) : buf_(buf), room_(size - 1) {}

    [[nodiscard]] bool full() const { return used_ >= room_; }

    void add(std::string_view bytes) {
        while (!bytes.empty() && !full()) {
            std::string_view part = bytes.substr(0, room_ - used_ - pieceSize_);
            const size_t newline = part.find('\n');
            const bool ended = newline != std::string_view::npos;
            if (ended) part = part.substr(0, newline + 1);
            keep(part);
            if (ended || used_ + pieceSize_ == room_) endPiece();
            bytes.remove_prefix(part.size());
        }
    }

    // Terminates the text. A newline at the end is dropped if the text is one line.
    void finish() {
        endPiece();
        if (pieces_ == 1 && buf_[used_ - 1] == '\n') --used_;
        buf_[used_] = '\0';
    }

private:
    void keep(std::string_view part) {
        pieceSize_ += part.size();
        if (cut_) return;
        const size_t nul = part.find('\0');
        cut_ = nul != std::string_view::npos;
        const std::string_view text = part.substr(0, nul);
        std::memcpy(buf_ + used_ + kept_, text.data(), text.size());
        kept_ += text.size();
    }

    void endPiece() {
        if (kept_ > 0) ++pieces_;
        used_ += kept_;
        pieceSize_ = kept_ = 0;
        cut_ = false;
    }

    char *buf_;
    size_t room_;           // characters that fit, without the terminator
    size_t used_ = 0;       // characters of the pieces that have ended
    size_t pieces_ = 0;     // number of these pieces, empty ones not counted
    size_t pieceSize_ = 0;  // bytes of the current piece
    size_t kept_ = 0;       // bytes of it before its first NUL byte
    bool cut_ = false;      // the current piece has had a NUL byte
};

// Reads with read(): on the board a one-value file takes 1120 instructions and no allocation; with fopen() and fgets(),
// which allocate a record and a buffer, it takes 1960.
char *readText(const char *name, char *buf, size_t size) {
    errno = 0;
    struct stat status {};
    const Fd fd = vx::openValue(AT_FDCWD, name, status);
    if (!fd.valid()) return buf;
    LineCollector text(buf, size);
    char chunk[chunkSize];
    // A huge sparse file consists of NUL bytes, which never fill the buffer: without a limit the loop would run for
    // hours.
    const uintmax_t most = mostHidden + size;
    for (uintmax_t done = 0; !text.full() && done < most;) {
        const ssize_t got = vx::retryEintr([&] { return ::read(fd.get(), chunk, sizeof chunk); });
        if (got <= 0) break;
        text.add({chunk, static_cast<size_t>(got)});
        done += static_cast<uintmax_t>(got);
        if (done == static_cast<uintmax_t>(status.st_size)) break;  // saves the read() that returns 0
    }
    text.finish();
    return stripwhite(buf);
}

// Copies a line up to its first CR, LF or NUL byte. Returns null when memory is short.
char *copyOfLine(std::span<const char> line) {
    const size_t length = line.back() == '\n' ? line.size() - 1 : line.size();
    const void *end = std::memchr(line.data(), '\r', length);
    return strndup(line.data(),
                   end != nullptr ? static_cast<size_t>(static_cast<const char *>(end) - line.data()) : length);
}

int outOfMemory() {
    vx::log(LOG_ERR, "Zalloc failed, errno: %s", std::strerror(errno));
    return READFILE_OUT_OF_MEMORY;
}

}  // namespace

// Quirk Q31.
int read_file_lines(const char *path, struct list_link *lines) {
    if (path == nullptr || lines == nullptr) return READFILE_OPEN_FAILED;
    struct stat status {};
    const Fd fd = vx::openValue(AT_FDCWD, path, status);
    if (!fd.valid()) return READFILE_OPEN_FAILED;
    int count = 0;
    size_t taken = 0;
    vx::LineBuffer buffer;
    for (;;) {
        const std::span<const char> line = buffer.next(fd.get(), longestLine);
        if (line.empty()) return count;
        taken += line.size() + lineOverhead;
        if (taken > mostForLines) {
            errno = EFBIG;
            return outOfMemory();
        }
        auto *node = static_cast<file_line *>(zalloc(sizeof(file_line)));
        if (node == nullptr) return outOfMemory();
        node->data = copyOfLine(line);
        list_add_tail(&node->list, lines);
        ++count;
    }
}

// Quirk Q32.
int dropfile(const char *name) {
    if (name == nullptr || ::access(name, R_OK) == -1) return -1;
    ::unlink(name);
    return 0;
}

// Quirk Q26.
int write_file_atomic(const char *path, const void *buf, size_t len, int append_newline, unsigned char allow_fallback) {
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const MallocText temporary = temporaryName(path);
    if (!temporary) {
        vx::log(DL_ERROR, "Unable to allocate temporary filename (out of memory?)");
        return -1;
    }
    const Content content{buf, len, append_newline != 0};
    if (mustWriteDirectly(path)) {
        return allow_fallback != 0 ? writeDirectly(path, content) : cannotOpenTemporary(temporary.get());
    }
    Fd fd(::mkostemp(temporary.get(), O_CLOEXEC));
    if (!fd.valid()) {
        return (allow_fallback & 1) != 0 ? writeDirectly(path, content) : cannotOpenTemporary(temporary.get());
    }
    return replaceThrough(std::move(fd), temporary.get(), path, content);
}

int writefile(const char *name, const char *text) {
    if (name == nullptr || text == nullptr) return -1;
    if (*text != '\0') return write_file_atomic(name, text, std::strlen(text), 1, 1);
    if (::unlink(name) == 0 || errno == ENOENT) return 0;
    vx::log(DL_ERROR, "Unable to unlink status file - errno=%i(%s)", errno, std::strerror(errno));
    return -1;
}

char *readfile_r(const char *name, char *buf, size_t size) {
    if (size == 0 || buf == nullptr) return buf;
    buf[0] = '\0';
    if (name == nullptr || !isReadable(name)) return buf;
    return readText(name, buf, size);
}

char *readfile(const char *name) {
    std::memset(readfileText, 0, sizeof readfileText);
    return readfile_r(name, readfileText, sizeof readfileText);
}

int readaddress(const char *name, struct sockaddr *addr) {
    if (name == nullptr || addr == nullptr) return -1;
    std::memset(addr, 0, sizeof *addr);
    const char *text = readfile(name);
    if (*text == '\0') return -1;
    return str2addr(text, addr);
}

// Quirk Q30.
char *create_tmpfile(const char *pattern) {
    if (pattern == nullptr || *pattern == '\0') return nullptr;
    std::memset(tmpfileName, 0, sizeof tmpfileName);
    strlcpy(tmpfileName, pattern, sizeof tmpfileName);
    const Fd fd(::mkostemp(tmpfileName, O_CLOEXEC));
    if (!fd.valid()) {
        const vx::ErrnoKeeper keeper;
        ::unlink(tmpfileName);
        return nullptr;
    }
    return tmpfileName;
}
