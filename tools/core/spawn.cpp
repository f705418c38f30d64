// SPDX-License-Identifier: MIT
#include "core/spawn.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>

#include "core/failure.h"
#include "core/fd.h"

namespace tool {

namespace {

using Clock = std::chrono::steady_clock;
constexpr milliseconds killTime{5000};
constexpr milliseconds groupPause{10};
constexpr const char *defaultPath = "/usr/local/bin:/usr/bin:/bin";

Failure cannotRun(const std::string &name, int error) {
    return {named(name), std::strerror(error), error == ENOENT ? statusNotFound : statusNotExecutable};
}

// The signals that are waited for, held back from construction on; a program that is started gets the mask from before.
// They are SIGCHLD and all that would end this process, but for those that tell of a fault of its own and SIGXFSZ.
class Signals {
public:
    Signals() {
        sigemptyset(&set_);
        for (const int signal : {SIGCHLD, SIGHUP, SIGINT, SIGQUIT, SIGABRT, SIGUSR1, SIGUSR2, SIGPIPE, SIGALRM, SIGTERM,
                                 SIGSTKFLT, SIGXCPU, SIGVTALRM, SIGPROF, SIGIO, SIGPWR}) {
            sigaddset(&set_, signal);
        }
        for (int signal = SIGRTMIN; signal <= SIGRTMAX; ++signal) sigaddset(&set_, signal);
        ::sigprocmask(SIG_BLOCK, &set_, &before_);
    }
    ~Signals() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }
    Signals(const Signals &) = delete;
    Signals &operator=(const Signals &) = delete;

    void restore() const { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }
    // Next signal; 0 after the time.
    int wait(std::optional<Clock::time_point> until, siginfo_t &info) const {
        if (!until) return ::sigwaitinfo(&set_, &info);
        const auto left = std::max(*until - Clock::now(), Clock::duration::zero());
        timespec time{};
        time.tv_sec = std::chrono::duration_cast<std::chrono::seconds>(left).count();
        time.tv_nsec = (left % std::chrono::seconds(1)).count();
        const int signal = ::sigtimedwait(&set_, &info, &time);
        return signal == -1 && errno == EAGAIN ? 0 : signal;
    }

private:
    sigset_t set_;
    sigset_t before_;
};

struct Child {
    pid_t pid;
    bool ownGroup;

    void send(int signal) const { ::kill(ownGroup ? -pid : pid, signal); }

    // The terminal sends its signals to a program in the same group itself, but SIGHUP to the leader of the session alone.
    void passOn(int signal, const siginfo_t &info) const {
        if (signal <= 0 || signal == SIGCHLD) return;
        const bool toAll = signal == SIGINT || signal == SIGQUIT || (signal == SIGHUP && ::getsid(0) != ::getpid());
        if (ownGroup || !toAll || info.si_code != SI_KERNEL) send(signal);
    }
};

// After the end of a program that had been told to end: waits for the others of its group, and kills what is left then.
void endGroup(const Child &child, const Signals &signals, Clock::time_point until) {
    while (::kill(-child.pid, 0) == 0) {
        if (Clock::now() >= until) return child.send(SIGKILL);
        siginfo_t info{};
        const int signal = signals.wait(std::min(until, Clock::now() + groupPause), info);
        child.passOn(signal, info);
    }
}

// The child tells through a pipe that closes on exec why it could not become the program.
Child start(const std::vector<std::string> &command, const Signals &signals, bool ownGroup) {
    std::vector<char *> words;
    words.reserve(command.size() + 1);
    for (const std::string &word : command) words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw Failure(command[0], std::strerror(errno), statusCannotRun);
    const Fd result(ends[0]);
    Fd report(ends[1]);
    const pid_t pid = ::fork();
    if (pid == -1) throw Failure(command[0], std::strerror(errno), statusCannotRun);
    if (pid == 0) {
        if (ownGroup) ::setpgid(0, 0);
        signals.restore();
        ::execvp(words[0], words.data());
        const int error = errno;
        (void)!::write(report.get(), &error, sizeof error);
        ::_exit(statusNotFound);
    }
    report.reset();
    if (ownGroup) ::setpgid(pid, pid);  // whichever comes first
    int error = 0;
    if (::read(result.get(), &error, sizeof error) == static_cast<ssize_t>(sizeof error)) {
        ::waitpid(pid, nullptr, 0);
        throw cannotRun(command[0], error);
    }
    return {pid, ownGroup};
}

}  // namespace

std::string findProgram(const std::string &name) {
    int error = ENOENT;
    const auto usable = [&](const std::string &path) {
        struct stat status {};
        if (::stat(path.c_str(), &status) != 0) return false;
        if (S_ISREG(status.st_mode) && ::access(path.c_str(), X_OK) == 0) return true;
        error = EACCES;
        return false;
    };
    if (name.find('/') != std::string::npos) {
        if (!usable(name)) throw cannotRun(name, error);
        return name;
    }
    const char *given = std::getenv("PATH");
    const std::string path = given != nullptr ? given : defaultPath;
    for (size_t at = 0; at <= path.size();) {
        const size_t end = std::min(path.find(':', at), path.size());
        std::string candidate = end > at ? path.substr(at, end - at) : ".";
        candidate.append("/").append(name);
        if (!name.empty() && usable(candidate)) return candidate;
        at = end + 1;
    }
    throw cannotRun(name, error);
}

int runProgram(const std::vector<std::string> &command, std::optional<milliseconds> timeout) {
    const Signals signals;
    const Child child = start(command, signals, timeout.has_value());
    std::optional<Clock::time_point> until;
    if (timeout) until = Clock::now() + *timeout;
    bool timedOut = false;
    for (;;) {
        int status = 0;
        if (::waitpid(child.pid, &status, WNOHANG) == child.pid) {
            if (timedOut) {
                endGroup(child, signals, *until);
                return statusTimedOut;
            }
            return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        }
        siginfo_t info{};
        const int signal = signals.wait(until, info);
        if (signal == 0) {
            child.send(timedOut ? SIGKILL : SIGTERM);
            child.send(SIGCONT);
            timedOut = true;
            until = Clock::now() + killTime;
        } else {
            child.passOn(signal, info);
        }
    }
}

}  // namespace tool
