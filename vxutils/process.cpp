// SPDX-License-Identifier: MIT
#include <vxutils/process.h>

#include <fcntl.h>
#include <unistd.h>
#include <vxutils/strutil.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vxutils/internal/fd.h"
#include "vxutils/internal/retry.h"

namespace {

constexpr const char *processPath = "/proc/%d";
constexpr const char *statPath = "/proc/%d/stat";
constexpr const char *namePath = "/proc/%d/comm";
constexpr const char *commandLinePath = "/proc/%d/cmdline";

constexpr size_t pathSize = 63;
constexpr size_t lineSize = 255;         // of a line that is read, terminator included
constexpr size_t commandLineSize = 256;  // terminator included
constexpr int mostAncestors = 3;
constexpr int firstOrdinaryPid = 2;  // below it are init and "no such process"

using Path = char[pathSize];

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // one of the four above
const char *formatPath(Path &path, const char *format, int pid) {
    snprintf(path, sizeof path, format, pid);
    return path;
}
#pragma GCC diagnostic pop

// Clears a buffer and reads up to size - 1 bytes of a file of /proc, which one read() returns, into it. Returns false,
// and leaves the buffer unchanged, when the file cannot be opened. A process that ends meanwhile gives an empty text.
bool readProcFile(const char *path, char *text, size_t size) {
    const vx::Fd file(vx::retryEintr([&] { return ::open(path, O_RDONLY | O_CLOEXEC); }));
    if (!file.valid()) return false;
    memset(text, 0, size);
    (void)vx::retryEintr([&] { return ::read(file.get(), text, size - 1); });
    return true;
}

// Does the same for the first line only, without its newline.
bool readFirstLine(const char *path, char (&line)[lineSize]) {
    if (!readProcFile(path, line, sizeof line)) return false;
    line[strcspn(line, "\n")] = '\0';
    return true;
}

}  // namespace

int pid_alive(int pid) {
    Path path;
    return ::access(formatPath(path, processPath, pid), R_OK) == 0;
}

// Quirk Q51.
int get_parent_pid(int pid) {
    constexpr int parentField = 4;
    Path path;
    char line[lineSize];
    if (!readFirstLine(formatPath(path, statPath, pid), line)) return -1;
    char *rest = nullptr;
    const char *field = strtok_r(line, " ", &rest);
    for (int i = 1; i < parentField && field != nullptr; ++i) field = strtok_r(nullptr, " ", &rest);
    if (field == nullptr) return -1;
    const long long parent = strtoll(field, nullptr, 10);
    return parent >= INT_MIN && parent <= INT_MAX ? static_cast<int>(parent) : 0;  // 0 as for no number
}

int get_caller(char *dst, size_t n) {
    if (dst == nullptr || n <= 1) return -1;
    memset(dst, 0, n);
    int pid = ::getppid();
    for (int step = 0; step < mostAncestors; ++step) {
        Path path;
        char line[lineSize];
        if (!readFirstLine(formatPath(path, namePath, pid), line)) return -1;
        const char *name = stripwhite(line);
        if (*name != '\0' && strcmp(name, "sh") != 0) {
            strlcpy(dst, name, n);
            return 0;
        }
        const int parent = get_parent_pid(pid);
        if (parent < firstOrdinaryPid) {
            snprintf(dst, n, "pid%d", pid);
            return 0;
        }
        pid = parent;
    }
    return -1;
}

// Quirk Q52.
const char *procname(int pid) {
    static char commandLine[commandLineSize];
    Path path;
    if (!readProcFile(formatPath(path, commandLinePath, pid), commandLine, sizeof commandLine)) return "";
    const bool shell = commandLine[0] == 's' && commandLine[1] == 'h';
    return shell ? commandLine + 2 : commandLine;
}
