// SPDX-License-Identifier: MIT
#include "gateway/core/recorder.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <list>
#include <optional>
#include <stdexcept>

#include "gateway/core/peer.h"
#include "gateway/core/preload.h"
#include "gateway/tap.h"

namespace vxgateway {

namespace {

namespace fs = std::filesystem;

enum ExitStatus { cannotRun = 126, notFound = 127 };

constexpr std::array<int, 5> passedOn{SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGUSR1};

[[noreturn]] void fail(const std::string &what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

long long monotonic_us() {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch()).count();
}

// Holds the socket and the tap under names without blanks, for LD_PRELOAD. A process of its own removes the directory, so
// that it is removed when the recorder is killed.
class Place {
public:
    explicit Place(const std::string &tap) {
        startRemover();
        std::string pattern = fs::temp_directory_path() / "vxgateway.XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) fail(pattern);
        path_ = pattern;
        if (::write(leash_.get(), path_.data(), path_.size()) != static_cast<ssize_t>(path_.size())) fail(path_);
        ::chmod(path_.c_str(), 0711);  // for programs that change their user; the name cannot be guessed
        fs::create_symlink(tap, tapPath());
    }
    ~Place() {
        leash_.close();
        ::waitpid(remover_, nullptr, 0);
    }
    Place(const Place &) = delete;
    Place &operator=(const Place &) = delete;

    std::string tapPath() const { return path_ + "/libvxtap.so"; }
    std::string socketPath() const { return path_ + "/socket"; }

private:
    void startRemover() {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) == -1) fail("pipe");
        leash_ = Descriptor(ends[1]);
        const Descriptor told(ends[0]);
        remover_ = ::fork();
        if (remover_ == -1) fail("fork");
        if (remover_ == 0) removeWhatIsTold(told.get());
    }

    // A path, once the other end is closed.
    [[noreturn]] static void removeWhatIsTold(int told) {
        ::setsid();  // what ends the recorder does not end this one
        ::dup2(told, STDIN_FILENO);
        ::close_range(STDIN_FILENO + 1, ~0U, 0);
        std::string path;
        std::array<char, 4096> piece;
        for (ssize_t got; (got = ::read(STDIN_FILENO, piece.data(), piece.size())) > 0;)
            path.append(piece.data(), static_cast<size_t>(got));
        std::error_code ignored;
        if (!path.empty()) fs::remove_all(path, ignored);
        ::_exit(0);
    }

    Descriptor leash_;
    pid_t remover_ = -1;
    std::string path_;
};

class Recorder {
public:
    explicit Recorder(const Recording &wanted)
        : wanted_(wanted), mask_([&] {
              auto all = Mask::defaults();
              all.insert(all.end(), wanted.masks.begin(), wanted.masks.end());
              return all;
          }()) {}

    int run() {
        file_ = Descriptor(::open(wanted_.file.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600));
        if (file_.get() == -1) fail(wanted_.file);
        holdSignals();
        place_.emplace(wanted_.tap);
        listen();
        began_us_ = monotonic_us();
        buffer_ = std::string(recordingHeader) + "\n";
        note("mask", mask_.patterns());
        note("program", wanted_.program);
        start();
        while (status_ == -1) step();
        // What was told before the end; processes that the program has left may go on.
        for (const long long end_us = monotonic_us(); readLines(end_us);) continue;
        note("exit", {std::to_string(status_)});
        flush();
        const bool ran = status_ != cannotRun && status_ != notFound;
        if (!heard_ && ran) {
            std::fprintf(
                stderr, "vxgateway: %s could not be listened to: linked statically, for another processor, or setuid\n",
                wanted_.program[0].c_str());
        }
        return status_;
    }

private:
    void listen() {
        listener_ = Descriptor(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (place_->socketPath().size() >= sizeof address.sun_path)
            throw std::runtime_error(place_->socketPath() + ": path too long");
        std::strcpy(address.sun_path, place_->socketPath().c_str());
        if (listener_.get() == -1 ||
            ::bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == -1 ||
            ::chmod(address.sun_path, 0666) == -1 || ::listen(listener_.get(), SOMAXCONN) == -1) {
            fail(place_->socketPath());
        }
    }

    void holdSignals() {
        sigset_t handled;
        ::sigemptyset(&handled);
        ::sigaddset(&handled, SIGCHLD);
        for (const int signal : passedOn) ::sigaddset(&handled, signal);
        ::sigprocmask(SIG_BLOCK, &handled, &before_);
        signals_ = Descriptor(::signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK));
        brokenPipe_ = std::signal(SIGPIPE, SIG_IGN);  // the file may be a pipe
    }

    void start() {
        const pid_t parent = ::getpid();
        program_ = ::fork();
        if (program_ == -1) fail("fork");
        if (program_ != 0) return;
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) ::_exit(125);
        ::sigprocmask(SIG_SETMASK, &before_, nullptr);
        std::signal(SIGPIPE, brokenPipe_);
        preload(place_->tapPath());
        ::setenv(tapVariable, ("record " + place_->socketPath()).c_str(), 1);
        std::vector<char *> words;
        for (const std::string &word : wanted_.program) words.push_back(const_cast<char *>(word.c_str()));
        words.push_back(nullptr);
        ::execvp(words[0], words.data());
        const int status = errno == ENOENT ? notFound : cannotRun;
        std::fprintf(stderr, "vxgateway: %s: %s\n", words[0], std::strerror(errno));
        ::_exit(status);
    }

    void step() {
        std::vector<pollfd> waiting{{signals_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}};
        for (const Descriptor &one : taps_) waiting.push_back({one.get(), POLLIN, 0});
        flush();
        ::poll(waiting.data(), waiting.size(), -1);
        readLines();
        readSignals();
    }

    // True when something was read that was told until then.
    bool readLines(long long until_us = std::numeric_limits<long long>::max()) {
        bool any = false;
        for (int fd; (fd = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) != -1;) {
            taps_.emplace_back(fd);
            heard_ = any = true;
        }
        for (auto one = taps_.begin(); one != taps_.end();) {
            const ssize_t got = ::recv(one->get(), packet_.data(), packet_.size(), 0);
            if (got == 0) {
                one = taps_.erase(one);
                continue;
            }
            if (got > 0 && take({packet_.data(), static_cast<size_t>(got)}, until_us)) any = true;
            ++one;
        }
        return any;
    }

    // False for what was told later.
    bool take(std::string_view text, long long until_us) {
        try {
            RecordedLine line = readRecordedLine(text, 0);
            if (line.time_us > until_us) return false;
            line.time_us = std::max(line.time_us - began_us_, 0LL);
            write(std::move(line));
        } catch (const std::runtime_error &problem) {
            std::fprintf(stderr, "vxgateway: not recorded: %s\n", problem.what());
        }
        return true;
    }

    void note(const char *word, std::vector<std::string> arguments) {
        write({0, monotonic_us() - began_us_, "1", word, std::move(arguments)});
    }

    void write(RecordedLine line) {
        mask_.apply(line);
        buffer_ += line.text() + "\n";
    }

    void flush() {
        for (size_t at = 0; at < buffer_.size();) {
            const ssize_t written = ::write(file_.get(), buffer_.data() + at, buffer_.size() - at);
            if (written == -1 && errno != EINTR) fail(wanted_.file);
            if (written > 0) at += static_cast<size_t>(written);
        }
        buffer_.clear();
    }

    void readSignals() {
        signalfd_siginfo got{};
        while (::read(signals_.get(), &got, sizeof got) == sizeof got) {
            const int number = static_cast<int>(got.ssi_signo);
            if (number == SIGCHLD) continue;
            note("signal", {::sigabbrev_np(number)});
            // The terminal has sent it to the program as well.
            if (got.ssi_code != SI_KERNEL) ::kill(program_, number);
        }
        int status = 0;
        if (::waitpid(program_, &status, WNOHANG) == program_)
            status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }

    const Recording &wanted_;
    std::optional<Place> place_;
    Mask mask_;
    Descriptor file_;
    Descriptor listener_;
    Descriptor signals_;
    std::list<Descriptor> taps_;
    sigset_t before_{};
    void (*brokenPipe_)(int) = SIG_DFL;
    pid_t program_ = -1;
    long long began_us_ = 0;
    std::string buffer_;
    std::vector<char> packet_ = std::vector<char>(longestTapLine);
    bool heard_ = false;
    int status_ = -1;
};

}  // namespace

int record(const Recording &wanted) { return Recorder(wanted).run(); }

}  // namespace vxgateway
