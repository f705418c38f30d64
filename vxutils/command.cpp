// SPDX-License-Identifier: MIT
#include <vxutils/command.h>

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/reboot.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "vxutils/command_abandoned_segment.h"
#include "vxutils/command_prepared_log.h"
#include "vxutils/internal/errno_keeper.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/log.h"
#include "vxutils/internal/retry.h"
#include "vxutils/internal/shell_output.h"
#include "vxutils/internal/sleep.h"

using vx::MallocText;

namespace {

constexpr int waitMode = 0;
constexpr int detachedMode = 1;
constexpr int otherWaitMode = 2;

constexpr const char *shell = "/bin/sh";
constexpr const char *nullDevice = "/dev/null";

constexpr size_t mostWords = 16;  // after argument 0, including the terminating null
using Arguments = std::array<char *, mostWords + 1>;

constexpr int handoverProject = 52;
constexpr int handoverTries = 10;
constexpr int mostRemovals = 3;  // of abandoned tokens in one try
constexpr int64_t handoverPause_us = 100000;

constexpr size_t outputPieceLength = 1022;
// The result is an int and counts a last piece that was cut whole.
constexpr size_t mostOutput = INT_MAX - outputPieceLength;

constexpr size_t mostArguments = 255;
constexpr const char *blanks = " \t\n";
constexpr const char *quotes = "\"'";

constexpr size_t scriptLineSize = 511;
constexpr int64_t scriptPause_us = 100000;

// The differences between restart and power-off of the device.
struct PowerAction {
    const char *vetoMarker;
    const char *vetoed;
    const char *script;
    int kernelCommand;
};
constexpr PowerAction restart{"/nvstatus/skip-reboot", "skipping reboot", "/usr/local/sbin/system-reboot", RB_AUTOBOOT};
constexpr PowerAction powerOff{"/nvstatus/skip-poweroff", "skipping poweroff", "/usr/local/sbin/system-poweroff",
                               RB_POWER_OFF};

// The shared memory in which the child passes on the id of the detached program. It is made exclusively for a key and
// so serves as the token that allows one detached start at a time. The destructor removes it, if remove() has not done
// so.
class Handover {
public:
    Handover() = default;
    ~Handover() {
        const vx::ErrnoKeeper keeper;
        if (record_ != nullptr) ::shmdt(record_);
        remove();
    }
    Handover(const Handover &) = delete;
    Handover &operator=(const Handover &) = delete;

    bool create() {
        const key_t key = ::ftok(".", handoverProject);
        for (int attempt = 1; attempt <= handoverTries; ++attempt) {
            if (claim(key)) return true;
            if (errno != EEXIST) return false;
            vx::log(LOG_INFO, "Shared memory temporary not available (try %d/%d)", attempt, handoverTries);
            vx::sleepUs(handoverPause_us);
        }
        return false;
    }

    void put(pid_t pid) const noexcept { *record_ = pid; }
    [[nodiscard]] int get() const noexcept { return *record_; }

    // Frees the key; the record itself lives as long as a process is attached to it.
    void remove() noexcept {
        if (id_ != -1) ::shmctl(std::exchange(id_, -1), IPC_RMID, nullptr);
    }

private:
    // Fails with EEXIST while another process has the token. If a new token exists after each of several removals,
    // another user is making them to hold up all starts: the record is then made without a key and is not a token.
    bool claim(key_t key) {
        for (int removed = 0; removed < mostRemovals; ++removed) {
            if (make(key)) return true;
            if (errno != EEXIST || !vx::removeAbandonedSegment(key)) return false;
        }
        return make(IPC_PRIVATE);
    }

    bool make(key_t key) {
        id_ = ::shmget(key, sizeof(int), IPC_CREAT | IPC_EXCL | 0600);
        if (id_ != -1) return attach();
        if (errno != EEXIST) vx::log(LOG_ERR, "Shared memory allocation failed: %s (%d)", std::strerror(errno), errno);
        return false;
    }

    bool attach() {
        void *const address = ::shmat(id_, nullptr, 0);
        if (reinterpret_cast<intptr_t>(address) == -1) return false;
        record_ = static_cast<int *>(address);
        return true;
    }

    int id_ = -1;
    int *record_ = nullptr;
};

// Returns false when there are too many. execv() does not write to the words, although its type allows it.
bool collectArguments(Arguments &arguments, const char *arg0, va_list words) {
    arguments[0] = const_cast<char *>(arg0);
    if (arg0 == nullptr) return true;
    for (size_t i = 1; i <= mostWords; ++i) {
        arguments[i] = const_cast<char *>(va_arg(words, const char *));
        if (arguments[i] == nullptr) return true;
    }
    return false;
}

// --- in the child: from here to becomeProgram() only async-signal-safe calls

void closeFrom(int first) noexcept {
#ifdef SYS_close_range
    if (::syscall(SYS_close_range, static_cast<unsigned int>(first), ~0U, 0U) == 0) return;
#endif
    for (int fd = ::getdtablesize() - 1; fd >= first; --fd) ::close(fd);
}

// Every descriptor is closed, so open() returns 0, which the program is to keep: no O_CLOEXEC.
void standardStreamsToNull() noexcept {
    const int null = ::open(nullDevice, O_RDWR);
    for (int fd = 0; fd <= 2; ++fd) ::dup2(null, fd);
    if (null > 2) ::close(null);
}

// Leaves session and parent. Returns in the grandchild, or in the child if the second fork failed.
void detach(const Handover &handover, const vx::PreparedLog &secondForkFailed) noexcept {
    standardStreamsToNull();
    ::setsid();
    const pid_t grandchild = ::fork();
    if (grandchild == -1) secondForkFailed.send();
    if (grandchild <= 0) return;
    handover.put(grandchild);
    ::_exit(0);
}

void enterChildState(int mode) noexcept {
    [[maybe_unused]] const int atRoot = ::chdir("/");
    ::umask(022);
    closeFrom(mode == waitMode || mode == otherWaitMode ? 3 : 0);
}

[[noreturn]] void becomeProgram(const char *path, const Arguments &arguments) noexcept {
    ::execv(path, arguments.data());
    ::_exit(errno);
}

// --- in the caller

// Quirk Q45.
int waitForChild(pid_t child) {
    int status = 0;
    if (vx::retryEintr([&] { return ::waitpid(child, &status, 0); }) == -1) {
        vx::log(LOG_ERR, "Waiting for child process failed: %s (%d)", std::strerror(errno), errno);
    }
    return status;
}

int exitCode(int status) {
    int result = -1;
    if (WIFEXITED(status)) {
        result = WEXITSTATUS(status);
    } else {
        vx::log(LOG_ERR, "child didn't exit. error: %s", std::strerror(errno));
    }
    if (WIFSIGNALED(status)) vx::log(LOG_DEBUG, "child terminated by signal: %i ", WTERMSIG(status));
    return result;
}

// Quirk Q44: in both functions below, a process that cannot fork becomes the program itself.
int startDetached(const char *path, const Arguments &arguments) {
    Handover handover;
    if (!handover.create()) return -1;
    const vx::PreparedLog secondForkFailed(LOG_ERR, "second fork failed");
    const pid_t child = ::fork();
    if (child == -1) {
        vx::log(LOG_ERR, "fork failed");
        handover.remove();
    }
    if (child <= 0) {
        enterChildState(detachedMode);
        detach(handover, secondForkFailed);
        becomeProgram(path, arguments);
    }
    (void)waitForChild(child);
    return handover.get();
}

int runAndWait(int mode, const char *path, const Arguments &arguments) {
    const pid_t child = ::fork();
    if (child == -1) vx::log(LOG_ERR, "fork failed");
    if (child <= 0) {
        enterChildState(mode);
        becomeProgram(path, arguments);
    }
    return exitCode(waitForChild(child));
}

// Splits one line. Owns the arguments until release().
class ArgumentSplitter {
public:
    explicit ArgumentSplitter(const char *line)
        : line_(line),
          argumentSize_(std::strlen(line) + 1),
          arguments_(static_cast<char **>(std::calloc(mostArguments, sizeof(char *)))) {}

    // Returns false for an unterminated quote, too many arguments, or lack of memory.
    bool split() {
        if (!arguments_) return false;
        for (const char *at = line_; *at != '\0'; ++at) {
            if (!take(*at)) return false;
        }
        return quote_ == '\0' && end();
    }

    [[nodiscard]] int count() const { return static_cast<int>(count_); }
    char **release() { return arguments_.release(); }

private:
    bool take(char c) {
        if (quote_ != '\0') return c == quote_ ? end() : add(c);
        if (std::strchr(blanks, c) != nullptr) return end();
        if (!current_ && std::strchr(quotes, c) != nullptr) {
            quote_ = c;
            return begin();
        }
        return add(c);
    }

    bool begin() {
        current_.reset(static_cast<char *>(std::calloc(argumentSize_, 1)));
        length_ = 0;
        return current_ != nullptr;
    }

    bool add(char c) {
        if (!current_ && !begin()) return false;
        current_.get()[length_++] = c;
        return true;
    }

    // Stores the argument that is open, if any.
    bool end() {
        if (!current_) return true;
        if (count_ == mostArguments) return false;
        arguments_.get()[count_++] = current_.release();
        quote_ = '\0';
        return true;
    }

    const char *line_;
    size_t argumentSize_;
    std::unique_ptr<char *, vx::Release<&freeargv>> arguments_;
    size_t count_ = 0;
    MallocText current_;
    size_t length_ = 0;
    char quote_ = '\0';
};

void changePower(const PowerAction &action, int a, int b) {
    if (::access(action.vetoMarker, R_OK) == 0) {
        vx::log(LOG_ERR, "%s", action.vetoed);
        return;
    }
    if (::access(action.script, X_OK) == -1) {
        ::reboot(action.kernelCommand);
        return;
    }
    char line[scriptLineSize];
    std::snprintf(line, sizeof line, "%s %d %d", action.script, a, b);
    (void)run_command(line, 1);
    vx::sleepUs(scriptPause_us);
}

}  // namespace

int _exec_command(int mode, const char *path, const char *arg0, ...) {
    Arguments arguments{};
    va_list words;
    va_start(words, arg0);
    const bool fit = collectArguments(arguments, arg0, words);
    va_end(words);
    if (!fit) {
        vx::log(LOG_ERR, "Too many arguments");
        return -1;
    }
    if (path == nullptr || *path == '\0') return -1;
    return mode == detachedMode ? startDetached(path, arguments) : runAndWait(mode, path, arguments);
}

int run_command(const char *command, int background) {
    return _exec_command(background != 0 ? detachedMode : waitMode, shell, shell, "-c", command,
                         static_cast<const char *>(nullptr));
}

// Quirk Q46.
int eval_command(const char *command, char *out, size_t size) {
    if (command == nullptr || *command == '\0' || out == nullptr || size == 0) return -1;
    out[0] = '\0';
    vx::ShellOutput output(command);
    if (!output.running()) return -1;
    const size_t room = std::min(size, mostOutput) - 1;
    size_t used = 0;
    while (const auto piece = output.nextLine(outputPieceLength)) {
        if (used >= room) continue;  // full: the rest is read and dropped, so that the command can end
        const auto length = static_cast<int>(piece->size());
        used += static_cast<size_t>(std::snprintf(out + used, room - used, "%.*s", length, piece->data()));
    }
    const int status = output.close();
    return WEXITSTATUS(status) != 0 ? -1 : static_cast<int>(used);
}

// Quirk Q47.
int makeargv(const char *line, char ***argv, int *argc) {
    if (line == nullptr || argv == nullptr || argc == nullptr) return -1;
    ArgumentSplitter splitter(line);
    if (!splitter.split()) return -1;
    *argc = splitter.count();
    *argv = splitter.release();
    return 0;
}

void freeargv(char **argv) {
    if (argv == nullptr) return;
    for (size_t i = 0; i < mostArguments; ++i) std::free(argv[i]);
    std::free(argv);
}

void system_reboot(int a, int b) { changePower(restart, a, b); }

void system_poweroff(int a, int b) { changePower(powerOff, a, b); }
