// SPDX-License-Identifier: MIT
// configd: the configuration daemon of the virtual gateway.
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "gateway/control.h"

namespace {

constexpr const char *usage =
    R"(usage: configd [--dir DIRECTORY] [--store FILE] [--trace] [KEY=VALUE]...

Plays the configuration daemon at DIRECTORY/daemon.sock (default /var/run/configd). Values live in FILE (default
/var/lib/configd/store): read when it starts, written whenever a change is committed. KEY=VALUE on the command line
are put in and committed before it starts. --trace prints each request and answer.

Requests: "?KEY\n" reads, "KEY=VALUE\n"... writes (echoed), "Done\n" commits ("Ready", or "Busy").
Commands, one a line on standard input, each confirmed by "ok COMMAND":
  normal             answers as it should
  silent             reads requests and never answers
  late MS            answers after MS milliseconds
  times MS[,MS]...   answers the next request at these times, several times in all; several words are used in turn
  short, long        answers one byte less, one byte more than it should
  wrong              answers with one byte changed
  empty              answers with an empty datagram
  raw TEXT           answers with this text (\n, \0 and \\ understood)
  mute KEY           never answers requests that read KEY; without KEY: all keys again
  busy [N]           answers the next N (default: all) commits with "Busy"
  deaf               does not read its socket
  restart            closes its socket, forgets what was not committed, starts again
  pieces N           sends an answer as datagrams of N bytes
  die [N]            ends at the Nth request from now (without N: at once) and leaves its socket file behind
  set KEY VALUE      changes a value and commits
  get KEY            prints KEY=VALUE
  requests           prints the number of requests received
  trace on|off       begins or ends to print requests and answers
End of file on standard input ends it, SIGTERM too; it removes its socket then.
)";

using Clock = std::chrono::steady_clock;
constexpr size_t longestRequest = 65536;
constexpr size_t unlimited = SIZE_MAX;

volatile std::sig_atomic_t terminated = 0;

enum class Mode { normal, silent, late, times, shorter, longer, wrong, empty, raw, pieces, deaf };

const std::map<std::string, Mode> modes = {{"normal", Mode::normal}, {"silent", Mode::silent}, {"late", Mode::late},
                                           {"times", Mode::times},   {"short", Mode::shorter}, {"long", Mode::longer},
                                           {"wrong", Mode::wrong},   {"empty", Mode::empty},   {"raw", Mode::raw},
                                           {"pieces", Mode::pieces}, {"deaf", Mode::deaf}};

[[noreturn]] void fail(const std::string &what) {
    std::cerr << "configd: " << what << ": " << std::strerror(errno) << '\n';
    std::exit(1);
}

// A text as one printable word: control characters as escapes.
std::string printable(const std::string &text) {
    std::string shown;
    for (const char c : text) {
        if (c == '\n') {
            shown += "\\n";
        } else if (c == '\0') {
            shown += "\\0";
        } else {
            shown += c;
        }
    }
    return shown;
}

std::string unescape(const std::string &text) {
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            plain += text[i];
            continue;
        }
        const char c = text[++i];
        plain += c == 'n' ? '\n' : c == '0' ? '\0' : c;
    }
    return plain;
}

// Values by key: those in effect and, in the file, those committed.
class Store {
public:
    explicit Store(std::string path) : path_(std::move(path)) { load(); }

    void load() {
        values_.clear();
        std::ifstream file(path_);
        for (std::string line; std::getline(file, line);) putLine(line);
    }

    // Replaces the file as a whole, so that a power cut leaves the old or the new values.
    void commit() const {
        std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
        const std::string fresh = path_ + ".new";
        std::ofstream file(fresh, std::ios::trunc);
        for (const auto &[key, value] : values_) file << key << '=' << value << '\n';
        file.close();
        if (!file || std::rename(fresh.c_str(), path_.c_str()) == -1) fail("cannot write " + path_);
    }

    void putLine(const std::string &line) {
        const size_t equals = line.find('=');
        if (equals != std::string::npos) values_[line.substr(0, equals)] = line.substr(equals + 1);
    }

    void put(const std::string &key, const std::string &value) { values_[key] = value; }

    std::string get(const std::string &key) const {
        const auto found = values_.find(key);
        return found == values_.end() ? std::string() : found->second;
    }

private:
    std::string path_;
    std::map<std::string, std::string> values_;
};

// An answer that waits for its time.
struct Answer {
    Clock::time_point due;
    std::string text;
    sockaddr_un client;
    socklen_t length;
};

class Daemon {
public:
    Daemon(std::string directory, const std::string &store)
        : directory_(std::move(directory)), socketPath_(directory_ + "/daemon.sock"), store_(store) {}

    Store &store() { return store_; }
    void trace(bool on) { trace_ = on; }

    void listen() {
        std::filesystem::create_directories(directory_);
        ::unlink(socketPath_.c_str());
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (socketPath_.size() >= sizeof address.sun_path) fail("path too long");
        std::strcpy(address.sun_path, socketPath_.c_str());
        if (fd_ == -1 || ::bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == -1) fail(socketPath_);
        ::chmod(socketPath_.c_str(), 0777);
    }

    void close() {
        ::close(fd_);
        ::unlink(socketPath_.c_str());
    }

    // From now on a request to end is kept until the daemon waits in run(). Called before anybody can know it is there.
    void holdEndingSignals() {
        struct sigaction onTerm {};
        onTerm.sa_handler = [](int) { terminated = 1; };
        sigset_t ending;
        ::sigemptyset(&ending);
        for (const int signal : {SIGTERM, SIGINT}) {
            ::sigaction(signal, &onTerm, nullptr);
            ::sigaddset(&ending, signal);
        }
        ::sigprocmask(SIG_BLOCK, &ending, &whileWaiting_);
    }

    // Serves until SIGTERM or SIGINT, or the end of its input.
    void run() {
        ControlInput input;
        while (terminated == 0) {
            std::array<pollfd, 2> waiting{{{0, POLLIN, 0}, {mode_ == Mode::deaf ? -1 : fd_, POLLIN, 0}}};
            const auto left = timeToNextAnswer();
            if (::ppoll(waiting.data(), waiting.size(), left ? &*left : nullptr, &whileWaiting_) == -1) continue;
            // Requests first, all of them: a command then holds for what is sent after it.
            while (mode_ != Mode::deaf && readRequest()) continue;
            sendDueAnswers();
            if (waiting[0].revents != 0 && !readCommands(input)) return;
        }
    }

private:
    std::optional<timespec> timeToNextAnswer() const {
        if (answers_.empty()) return std::nullopt;
        const auto left = std::max<Clock::duration>(answers_.front().due - Clock::now(), Clock::duration::zero());
        const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
        timespec time{};
        time.tv_sec = seconds.count();
        time.tv_nsec = (left - seconds).count();
        return time;
    }

    void sendDueAnswers() {
        while (!answers_.empty() && answers_.front().due <= Clock::now()) {
            const Answer answer = std::move(answers_.front());
            answers_.erase(answers_.begin());
            if (trace_) std::cout << "answer \"" << printable(answer.text) << '"' << std::endl;
            const size_t piece =
                mode_ == Mode::pieces && pieceSize_ > 0 ? pieceSize_ : std::max<size_t>(answer.text.size(), 1);
            for (size_t at = 0; at == 0 || at < answer.text.size(); at += piece) {
                // The client may be gone, or may not take more: its own time-out is its own matter.
                ::sendto(fd_, answer.text.data() + at, std::min(piece, answer.text.size() - at), MSG_DONTWAIT,
                         reinterpret_cast<const sockaddr *>(&answer.client), answer.length);
            }
        }
    }

    // False when none is there.
    bool readRequest() {
        std::vector<char> buffer(longestRequest);
        Answer answer{};
        answer.length = sizeof answer.client;
        const ssize_t got = ::recvfrom(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT,
                                       reinterpret_cast<sockaddr *>(&answer.client), &answer.length);
        if (got < 0) return false;
        ++requests_;
        if (requestsToDeath_ > 0 && --requestsToDeath_ == 0) ::_exit(0);
        const std::string request(buffer.data(), static_cast<size_t>(got));
        if (trace_) std::cout << "request \"" << printable(request) << '"' << std::endl;
        const bool muted = !mute_.empty() && request.substr(0, request.find('\n')) == "?" + mute_;
        std::string text = handle(request);
        if (muted || mode_ == Mode::silent) return true;
        answer.text = spoil(std::move(text));
        const auto now = Clock::now();
        for (const long delay : nextDelays()) {
            answer.due = now + std::chrono::milliseconds(delay);
            answers_.insert(std::upper_bound(answers_.begin(), answers_.end(), answer,
                                             [](const Answer &a, const Answer &b) { return a.due < b.due; }),
                            answer);
        }
        return true;
    }

    // Milliseconds after which the answer to one request is sent, once for each.
    std::vector<long> nextDelays() {
        if (mode_ != Mode::times) return {mode_ == Mode::late ? delay_ms_ : 0};
        return times_.empty() ? std::vector<long>{0} : times_[timesUsed_++ % times_.size()];
    }

    void readTimes(const std::string &text) {
        times_.clear();
        std::istringstream words(text);
        for (std::string word; words >> word;) {
            std::istringstream numbers(word);
            std::vector<long> delays;
            for (std::string number; std::getline(numbers, number, ',');) {
                delays.push_back(std::strtol(number.c_str(), nullptr, 10));
            }
            times_.push_back(delays);
        }
    }

    std::string handle(const std::string &request) {
        const std::string text = request.substr(0, request.find('\0'));
        if (text == "Done\n") return commit();
        if (text[0] == '?') return store_.get(text.substr(1, text.find('\n') - 1)) + std::string("\n\0", 2);
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) store_.putLine(line);
        return request;
    }

    std::string commit() {
        if (busy_ > 0) {
            if (busy_ != unlimited) --busy_;
            return "Busy";
        }
        store_.commit();
        return "Ready";
    }

    std::string spoil(std::string text) const {
        switch (mode_) {
            case Mode::shorter:
                if (!text.empty()) text.pop_back();  // the echo of an empty request
                break;
            case Mode::longer:
                text += 'x';
                break;
            case Mode::wrong:
                if (!text.empty()) text[0] = static_cast<char>(text[0] ^ 1);
                break;
            case Mode::empty:
                return {};
            case Mode::raw:
                return raw_;
            default:
                break;
        }
        return text;
    }

    // False at end of file.
    bool readCommands(ControlInput &input) {
        return input.read(
            [this](const std::string &line) { std::cout << (obey(line) ? "ok " : "what? ") << line << std::endl; });
    }

    bool obey(const std::string &line) {
        std::istringstream words(line);
        std::string name;
        words >> name >> std::ws;
        std::string rest;
        std::getline(words, rest);

        const auto mode = modes.find(name);
        if (mode != modes.end()) {
            mode_ = mode->second;
            if (mode_ == Mode::normal) busy_ = 0;
            if (mode_ == Mode::late) delay_ms_ = std::strtol(rest.c_str(), nullptr, 10);
            if (mode_ == Mode::times) readTimes(rest);
            if (mode_ == Mode::pieces) pieceSize_ = std::strtoul(rest.c_str(), nullptr, 10);
            if (mode_ == Mode::raw) raw_ = unescape(rest);
            return true;
        }
        if (name == "mute") {
            mute_ = rest;
        } else if (name == "busy") {
            busy_ = rest.empty() ? unlimited : std::strtoul(rest.c_str(), nullptr, 10);
        } else if (name == "restart") {
            restart();
        } else if (name == "die" && !rest.empty()) {
            requestsToDeath_ = std::strtoul(rest.c_str(), nullptr, 10);
        } else if (name == "die") {
            std::cout << "ok die" << std::endl;
            ::_exit(0);
        } else if (name == "set") {
            const size_t blank = rest.find(' ');
            store_.put(rest.substr(0, blank), blank == std::string::npos ? "" : rest.substr(blank + 1));
            store_.commit();
        } else if (name == "get") {
            std::cout << rest << '=' << store_.get(rest) << std::endl;
        } else if (name == "requests") {
            std::cout << requests_ << std::endl;
        } else if (name == "trace") {
            trace_ = rest == "on";
        } else {
            return false;
        }
        return true;
    }

    void restart() {
        close();
        answers_.clear();
        store_.load();
        listen();
    }

    std::string directory_;
    std::string socketPath_;
    Store store_;
    int fd_ = -1;
    sigset_t whileWaiting_{};
    Mode mode_ = Mode::normal;
    long delay_ms_ = 0;
    std::vector<std::vector<long>> times_;
    size_t timesUsed_ = 0;
    size_t pieceSize_ = 0;
    size_t requestsToDeath_ = 0;  // 0: lives on
    std::string raw_;
    std::string mute_;
    size_t busy_ = 0;
    size_t requests_ = 0;
    bool trace_ = false;
    std::vector<Answer> answers_;  // by the time they are due
};

}  // namespace

int main(int argc, char **argv) {
    std::string directory = "/var/run/configd";
    std::string store = "/var/lib/configd/store";
    std::vector<std::string> values;
    bool trace = false;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--help") {
            std::cout << usage;
            return 0;
        }
        if (word == "--trace") {
            trace = true;
        } else if (word == "--dir" && i + 1 < argc) {
            directory = argv[++i];
        } else if (word == "--store" && i + 1 < argc) {
            store = argv[++i];
        } else if (word.find('=') != std::string::npos) {
            values.push_back(word);
        } else {
            std::cerr << usage;
            return 2;
        }
    }
    Daemon daemon(directory, store);
    for (const std::string &value : values) daemon.store().putLine(value);
    if (!values.empty()) daemon.store().commit();
    daemon.trace(trace);
    daemon.holdEndingSignals();
    daemon.listen();
    std::cout << "ready" << std::endl;
    daemon.run();
    daemon.close();
    return 0;
}
