// SPDX-License-Identifier: MIT
#include "gateway/core/peer.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace vxgateway {

namespace {

std::array<Descriptor, 2> makePipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) == -1) throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

// In the child.
[[noreturn]] void become(const std::vector<std::string> &command, int input, int output) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::setsid();  // Ctrl-C is for the program under test
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(output, STDERR_FILENO);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const int signal : {SIGINT, SIGQUIT, SIGPIPE}) std::signal(signal, SIG_DFL);
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string &word : command) arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    ::execv(arguments[0], arguments.data());
    const std::string complaint = command[0] + ": " + std::strerror(errno) + "\n";
    (void)!::write(STDERR_FILENO, complaint.data(), complaint.size());
    ::_exit(127);
}

bool startsWith(const std::string &text, const std::string &beginning) { return text.rfind(beginning, 0) == 0; }

}  // namespace

void Descriptor::close() {
    if (fd_ != -1) ::close(fd_);
    fd_ = -1;
}

void Peer::start(const std::string &logPath) {
    auto [inputEnd, inputHere] = makePipe();
    auto [outputHere, outputEnd] = makePipe();
    log_ = std::ofstream(logPath, std::ios::app);
    ready_ = false;
    partial_.clear();
    unsent_.clear();
    said_.clear();
    pid_ = ::fork();
    if (pid_ == -1) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    if (pid_ == 0) become(command_, inputEnd.get(), outputEnd.get());
    ::fcntl(outputHere.get(), F_SETFL, O_NONBLOCK);
    ::fcntl(inputHere.get(), F_SETFL, O_NONBLOCK);
    input_ = std::move(inputHere);
    output_ = std::move(outputHere);
}

void Peer::kill() const {
    if (pid_ > 0) ::kill(pid_, SIGKILL);
}

void Peer::ended() {
    read();
    unsent_.clear();
    pid_ = -1;
    ready_ = false;
    input_.close();
    output_.close();
    while (!pending_.empty()) {
        Pending &order = pending_.front();
        const bool meant = startsWith(order.text, "die");
        if (!meant) order.answer = name_ + " has ended";
        finish(meant);
    }
}

void Peer::order(const std::string &text, Done done) {
    if (!running()) return done({false, name_ + " does not run"});
    const std::string line = text + "\n";
    // A stopped process leaves no room in the pipe, or room for a part of the line.
    const ssize_t sent = unsent_.empty() ? ::write(input_.get(), line.data(), line.size()) : -1;
    if (sent <= 0) return done({false, name_ + " takes no orders"});
    unsent_ = line.substr(static_cast<size_t>(sent));
    pending_.push_back({text, std::move(done), Clock::now() + patience, "", false});
}

void Peer::sendRest() {
    const ssize_t sent = unsent_.empty() ? 0 : ::write(input_.get(), unsent_.data(), unsent_.size());
    if (sent > 0) unsent_.erase(0, static_cast<size_t>(sent));
}

bool Peer::isBusy() const {
    return !unsent_.empty() ||
           std::any_of(pending_.begin(), pending_.end(), [](const Pending &order) { return order.done != nullptr; });
}

void Peer::read() {
    sendRest();
    std::array<char, 65536> piece;
    ssize_t got;
    while (output_.get() != -1 && (got = ::read(output_.get(), piece.data(), piece.size())) > 0) {
        partial_.append(piece.data(), static_cast<size_t>(got));
    }
    for (size_t end; (end = partial_.find('\n')) != std::string::npos;) {
        const std::string line = partial_.substr(0, end);
        partial_.erase(0, end + 1);
        log_ << line << '\n';
        take(line);
    }
    log_.flush();
}

// Each peer confirms an order with the line "ok ORDER", "done" or the order's word itself, after what it shows for it. It
// refuses with "cannot ORDER", "what? ORDER", or a line that begins with "unknown".
void Peer::take(const std::string &line) {
    if (!ready_) {
        said_ += line + "\n";
        ready_ = line == "ready";
        return;
    }
    skipLost(line);
    if (!pending_.empty()) {
        Pending &order = pending_.front();
        if (line == "ok die") return;  // obeyed when it has ended: it can be started again then
        if (line == "ok " + order.text || line == "done" || line == order.text) return finish(!order.refused);
        if (line == "cannot " + order.text || line == "what? " + order.text) {
            order.answer = line;
            return finish(false);
        }
        if (startsWith(line, "unknown")) {
            order.refused = true;
            order.answer = line;
            if (startsWith(line, "unknown order")) finish(false);
            return;
        }
        if (order.text == "count" && startsWith(line, "count ")) {
            order.answer = line.substr(6) + "\n";
            return finish(true);
        }
        const bool value = startsWith(order.text, "get ") && startsWith(line, order.text.substr(4) + "=");
        const bool amount = order.text == "requests" && line.find_first_not_of("0123456789") == std::string::npos;
        if (value || amount) {
            order.answer += line + "\n";
            return;
        }
    }
    hear_(line);
}

// Forgets orders that were given up and whose confirmation did not come before that of a later one.
void Peer::skipLost(const std::string &line) {
    const auto confirmed = std::find_if(pending_.begin(), pending_.end(), [&](const Pending &order) {
        return order.done != nullptr || line == "ok " + order.text || line == order.text;
    });
    if (confirmed != pending_.end() && (line == "ok " + confirmed->text || line == confirmed->text))
        pending_.erase(pending_.begin(), confirmed);
}

void Peer::finish(bool obeyed) {
    const Pending order = std::move(pending_.front());
    pending_.pop_front();
    if (order.done) order.done({obeyed, order.answer});
}

void Peer::giveUp(Clock::time_point now) {
    for (size_t i = 0; i < pending_.size() && pending_[i].deadline <= now; ++i) {
        const Done done = std::exchange(pending_[i].done, nullptr);
        if (done) done({false, name_ + " does not answer"});
    }
}

}  // namespace vxgateway
