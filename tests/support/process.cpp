// SPDX-License-Identifier: MIT
#include "support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "support/emulation.h"
#include "support/files.h"

namespace vxtest {
namespace {

int exitStatus(int status) { return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status); }

// Words that start a program of this tree on a machine that cannot run it by itself; none natively.
std::vector<std::string> emulator() {
    std::vector<std::string> words;
    std::istringstream list(emulatorCommand());
    for (std::string word; list >> word;) words.push_back(word);
    return words;
}

}  // namespace

std::string built(const std::string &program) {
    static const char *const elsewhere = std::getenv("VXTEST_BUILD_DIR");
    return std::string(elsewhere != nullptr ? elsewhere : VXTEST_BUILD_DIR) + "/" + program;
}

std::string shellCommand(const std::string &program) {
    std::string words;
    for (const std::string &word : emulator()) words += word + " ";
    return words + built(program);
}

Process::Process(const std::vector<std::string> &command) {
    std::vector<std::string> words;
    if (command.at(0).rfind(built(""), 0) == 0) words = emulator();
    words.insert(words.end(), command.begin(), command.end());
    std::vector<char *> argv;
    for (std::string &word : words) argv.push_back(word.data());
    argv.push_back(nullptr);

    std::array<int, 2> in{};
    std::array<int, 2> out{};
    if (::pipe2(in.data(), O_CLOEXEC) == -1 || ::pipe2(out.data(), O_CLOEXEC) == -1) throw std::runtime_error("pipe");
    pid_ = ::fork();
    if (pid_ == -1) throw std::runtime_error("fork");
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        ::dup2(out[1], 2);
        ::execvp(argv[0], argv.data());
        ::perror(argv[0]);
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    in_ = in[1];
    out_ = out[0];
}

Process::~Process() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        wait();
    }
    closeInput();
    ::close(out_);
}

void Process::send(const std::string &text) {
    if (::write(in_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) throw std::runtime_error("send");
}

void Process::closeInput() {
    if (in_ >= 0) ::close(in_);
    in_ = -1;
}

bool Process::hasOutput() const {
    pollfd waiting{out_, POLLIN, 0};
    return !buffered_.empty() || ::poll(&waiting, 1, 0) > 0;
}

std::string Process::readLine(int timeout_ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        const size_t newline = buffered_.find('\n');
        if (newline != std::string::npos) {
            std::string line = buffered_.substr(0, newline);
            buffered_.erase(0, newline + 1);
            return line;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd waiting{out_, POLLIN, 0};
        const int ready = left.count() <= 0 ? 0 : ::poll(&waiting, 1, static_cast<int>(left.count()));
        if (ready == -1 && errno == EINTR) continue;
        if (ready <= 0) {
            throw std::runtime_error("no line from the process; so far: " + buffered_);
        }
        std::array<char, 4096> piece;
        const ssize_t got = ::read(out_, piece.data(), piece.size());
        if (got <= 0) throw std::runtime_error("the process ended; so far: " + buffered_);
        buffered_.append(piece.data(), static_cast<size_t>(got));
    }
}

std::string Process::readAll() {
    std::array<char, 4096> piece;
    for (;;) {
        const ssize_t got = ::read(out_, piece.data(), piece.size());
        if (got == -1 && errno == EINTR) continue;
        if (got <= 0) break;
        buffered_.append(piece.data(), static_cast<size_t>(got));
    }
    return std::exchange(buffered_, {});
}

void Process::signal(int number) const { ::kill(pid_, number); }

int Process::wait() { return waitChild(std::exchange(pid_, -1)); }

Output run(const std::vector<std::string> &command) {
    Process process(command);
    process.closeInput();
    std::string text = process.readAll();
    return {process.wait(), std::move(text)};
}

pid_t startChild(const std::function<int()> &body) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == -1) throw std::runtime_error("fork");
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int result = body();
        std::fflush(nullptr);
        ::_exit(result);
    }
    return pid;
}

int waitChild(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) == -1) {
        if (errno != EINTR) return -1;
    }
    return exitStatus(status);
}

int inChild(const std::function<int()> &body) { return waitChild(startChild(body)); }

int inLaterThread(const std::function<int()> &body) {
    return inChild([&] {
        const std::string status = "/proc/" + std::to_string(::getpid()) + "/stat";
        std::thread([&body, status] {
            const bool ended = eventually([&] { return readFile(status).find(") Z ") != std::string::npos; });
            ::_exit(ended ? body() : 98);
        }).detach();
        return static_cast<int>(::syscall(SYS_exit, 0));  // of this thread alone; nothing of it is unwound
    });
}

bool hasOtherUsers() {
    constexpr uid_t other = 12345;
    return inChild([] { return ::setresuid(other, other, other) == 0 ? 0 : 1; }) == 0;
}

bool eventually(const std::function<bool()> &condition, int timeout_ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

}  // namespace vxtest
