// SPDX-License-Identifier: MIT
#include "gateway/core/replay.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <stdexcept>

#include "gateway/tap.h"

namespace vxgateway {

namespace {

namespace fs = std::filesystem;

constexpr long long patience_us = 10000000;  // with a program that does not do what it did
constexpr const char *debugPriority = "7";

// Of an effect, the number of arguments that the program gave; 0 for all.
struct Compared {
    std::string_view word;
    size_t arguments;
};
constexpr std::array effects{Compared{"connect", 1}, Compared{"send", 2},   Compared{"write", 2}, Compared{"make", 2},
                             Compared{"remove", 1},  Compared{"rename", 2}, Compared{"event", 3}, Compared{"ping", 2},
                             Compared{"log", 2},     Compared{"run", 0}};
constexpr std::array views{Compared{"open", 2}, Compared{"read", 1},      Compared{"access", 1},
                           Compared{"stat", 1}, Compared{"interface", 2}, Compared{"list", 1}};

template <typename Table>
const Compared *in(const Table &table, const std::string &word) {
    const auto found = std::find_if(table.begin(), table.end(), [&](const Compared &one) { return one.word == word; });
    return found == table.end() ? nullptr : &*found;
}

std::string withoutNumbers(const std::string &text) {
    std::string plain;
    for (const char c : text) {
        const bool digit = std::isdigit(static_cast<unsigned char>(c)) != 0;
        if (!digit || plain.empty() || plain.back() != '#') plain += digit ? '#' : c;
    }
    return plain;
}

// What has to be equal.
std::string compared(const RecordedLine &line) {
    const Compared *kind = in(effects, line.word);
    if (kind == nullptr) kind = in(views, line.word);
    const size_t count = kind == nullptr || kind->arguments == 0 ? line.arguments.size() : kind->arguments;
    std::string text = line.word;
    for (size_t i = 0; i < count && i < line.arguments.size(); ++i) {
        text += '\0';
        text += line.word == "log" ? withoutNumbers(line.arguments[i]) : line.arguments[i];
    }
    return text;
}

// Effects on the same one keep their order.
std::string channelOf(const RecordedLine &line) {
    if (line.word == "event" || line.word == "log" || line.word == "run" || line.arguments.empty()) return line.word;
    const bool file = line.word == "make";
    return line.arguments[file ? 1 : 0];
}

int resultOf(const RecordedLine &line) {
    if (line.word == "list") return errorNumber(line.arguments[1]);
    const int error = line.arguments.empty() ? 0 : errorNumber(line.arguments.back());
    return error == -1 ? 0 : error;
}

Descriptor listenAt(const std::string &path, int type) {
    fs::create_directories(fs::path(path).parent_path());
    ::unlink(path.c_str());
    Descriptor fd(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (fd.get() == -1 || ::bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == -1 ||
        ::chmod(path.c_str(), 0777) == -1 || (type != SOCK_DGRAM && ::listen(fd.get(), SOMAXCONN) == -1)) {
        throw std::runtime_error(path + ": " + std::strerror(errno));
    }
    return fd;
}

// Of the channel "modem0.1" it is 0; -1 for that of another daemon.
int cardOf(const std::string &channel) {
    constexpr std::string_view beginning = "modem";
    if (channel.compare(0, beginning.size(), beginning) != 0) return -1;
    return static_cast<int>(std::strtol(channel.c_str() + beginning.size(), nullptr, 10));
}

int signalNumber(const std::string &name) {
    for (int number = 1; number < NSIG; ++number) {
        const char *const known = ::sigabbrev_np(number);
        if (known != nullptr && name == known) return number;
    }
    return 0;
}

std::vector<std::string> patternsOf(const std::vector<RecordedLine> &lines) {
    const auto found = std::find_if(lines.begin(), lines.end(), [](const auto &line) { return line.word == "mask"; });
    return found == lines.end() ? std::vector<std::string>{} : found->arguments;
}

}  // namespace

Replay::Replay(std::string name, std::vector<RecordedLine> lines, Tolerance tolerance)
    : name_(std::move(name)),
      lines_(std::move(lines)),
      tolerance_us_(static_cast<long long>(tolerance.seconds * 1e6)),
      ignored_(std::move(tolerance.ignored)),
      mask_(patternsOf(lines_)),
      packet_(longestTapLine) {
    long long after_us = 0;
    size_t lastSignal = 0;
    for (const RecordedLine &line : lines_) {
        Program &program = programs_[line.source];
        if (in(effects, line.word) != nullptr && !isIgnored(line)) {
            program.effects.push_back({line});
            after_us = line.time_us;
        } else if (in(views, line.word) != nullptr) {
            program.views[compared(line)].lines.push_back(line);
        } else if (line.word == "signal" || line.word == "fifo") {
            if (line.word == "signal") {
                if (firstSignal_ == 0) firstSignal_ = line.number;
                lastSignal = line.number;
            }
            unasked_.push_back({line, after_us});
        } else if (line.word == "exit") {
            exit_ = &line;
        }
    }
    findSpares(lastSignal);
}

// How often a program still repeats what it does all the time before it ends depends on how fast the machine is.
void Replay::findSpares(size_t lastSignal) {
    for (auto &[source, program] : programs_) {
        std::set<std::string> before;
        for (Effect &one : program.effects) {
            if (one.line.number < lastSignal)
                before.insert(compared(one.line));
            else
                one.spare = before.count(compared(one.line)) != 0;
        }
    }
}

bool Replay::isIgnored(const RecordedLine &line) const {
    if (line.word == "log" && line.arguments[0] == debugPriority) return true;
    const std::string what = line.what();
    return std::any_of(ignored_.begin(), ignored_.end(),
                       [&](const std::string &pattern) { return ::fnmatch(pattern.c_str(), what.c_str(), 0) == 0; });
}

void Replay::listen() {
    listener_ = listenAt(socketPath, SOCK_SEQPACKET);
    config_ = listenAt("/var/run/configd/daemon.sock", SOCK_DGRAM);
    std::set<int> cards;
    for (const RecordedLine &line : lines_) {
        if (line.word == "connect" && cardOf(line.arguments[0]) >= 0) cards.insert(cardOf(line.arguments[0]));
    }
    for (const int card : cards)
        modems_[card] = listenAt("/var/run/wwanmd" + std::to_string(card) + "/server", SOCK_STREAM);
}

void Replay::programStarted(pid_t pid) {
    pid_ = pid;
    lastDone_ = Clock::now();
    startUnasked();
}

// ---- what is compared

void Replay::differ(const RecordedLine &expected, const std::string &got) {
    if (!difference_.empty()) return;
    difference_ = name_ + ":" + std::to_string(expected.number) + ": expected: " + expected.source + " " +
                  expected.what() + "\n" + name_ + ":" + std::to_string(expected.number) + ": got:      " + got;
}

const Replay::Effect *Replay::oldestUndone(bool withSpares) const {
    const Effect *oldest = nullptr;
    for (const auto &[source, program] : programs_) {
        const auto one =
            std::find_if(program.effects.begin() + static_cast<std::ptrdiff_t>(program.first), program.effects.end(),
                         [&](const Effect &effect) { return !effect.done && (withSpares || !effect.spare); });
        if (one == program.effects.end()) continue;
        if (oldest == nullptr || one->line.number < oldest->line.number) oldest = &*one;
    }
    return oldest;
}

bool Replay::allDoneBefore(long long time_us) const {
    return std::all_of(programs_.begin(), programs_.end(), [&](const auto &named) {
        const Program &program = named.second;
        return program.first == program.effects.size() || program.effects[program.first].line.time_us > time_us;
    });
}

void Replay::programEnded(int status) {
    pid_ = -1;
    const std::string ended = "the program ended with status " + std::to_string(status);
    const Effect *const undone = oldestUndone(false);
    if (over_ && undone == nullptr) return;
    if (undone != nullptr) {
        differ(undone->line, ended);
    } else if (exit_ != nullptr && exit_->arguments[0] != std::to_string(status)) {
        differ(*exit_, ended);
    }
    over_ = true;
}

void Replay::take(int tap, const std::string &text) {
    RecordedLine line = readRecordedLine(text, 0);
    mask_.apply(line);
    if (isIgnored(line)) return answer(tap, {0, -1, 0, 0}, "");
    const auto found = programs_.find(line.source);
    if (found == programs_.end()) {
        RecordedLine end = lines_.empty() ? RecordedLine{} : lines_.back();
        differ(end, line.source + " " + line.what() + " (the recording has no such process or thread)");
        return;
    }
    if (in(effects, line.word) != nullptr) return takeEffect(tap, found->second, line);
    if (in(views, line.word) != nullptr) return takeView(tap, found->second, line);
    answer(tap, {0, -1, 0, 0}, "");
}

void Replay::takeEffect(int tap, Program &program, const RecordedLine &line) {
    const std::string wanted = compared(line);
    const std::string got = line.source + " " + line.what();
    auto &all = program.effects;
    const Effect *oldest = nullptr;
    for (size_t i = program.first; i < all.size(); ++i) {
        Effect &one = all[i];
        if (one.done) continue;
        if (oldest == nullptr && !one.spare) oldest = &one;
        if (oldest != nullptr && one.line.time_us - oldest->line.time_us > tolerance_us_) break;
        if (compared(one.line) == wanted) {
            one.done = true;
            while (program.first < all.size() && all[program.first].done) ++program.first;
            lastDone_ = Clock::now();
            lastDone_us_ = std::max(lastDone_us_, one.line.time_us);
            perform(tap, line, one);
            return startUnasked();
        }
        if (!one.spare && channelOf(one.line) == channelOf(line)) {
            return differ(one.line, got);  // without an answer the program waits for its end
        }
    }
    // Until a signal comes, what is done again and again may be done once more.
    const auto again =
        std::find_if(all.rbegin(), all.rend(), [&](const Effect &one) { return compared(one.line) == wanted; });
    const bool waitsForSignal =
        firstSignal_ != 0 && (program.first == all.size() || all[program.first].line.number > firstSignal_);
    if (waitsForSignal && again != all.rend()) return perform(tap, line, *again);
    if (program.first < all.size()) return differ(all[program.first].line, got);
    if (!lines_.empty()) differ(exit_ != nullptr ? *exit_ : lines_.back(), got);
}

void Replay::takeView(int tap, Program &program, const RecordedLine &line) {
    const auto found = program.views.find(compared(line));
    if (found == program.views.end()) return answer(tap, {notRecorded, -1, 0, 0}, "");
    View &view = found->second;
    const size_t last = view.lines.size() - 1;
    const bool first = view.next == 0;
    if (!first && view.next <= last) {
        // Not before the program has done what it did before the change.
        const RecordedLine &now = view.lines[view.next - 1];
        const RecordedLine &then = view.lines[view.next];
        const bool gone =
            program.first == program.effects.size() || program.effects[program.first].line.number > then.number;
        if (gone || now.arguments == then.arguments) ++view.next;
    } else if (first) {
        view.next = 1;
    }
    const RecordedLine &shown = view.lines[view.next - 1];
    std::string bytes;
    if (shown.word == "list") {
        for (size_t i = 2; i < shown.arguments.size(); ++i) bytes += shown.arguments[i] + '\0';
    } else if (shown.word == "read" || shown.word == "stat") {
        bytes = shown.arguments[1];
    } else if (shown.word == "interface") {
        bytes = shown.arguments[2];
    }
    answer(tap, {resultOf(shown), -1, 0, 0}, bytes);
}

// ---- what is answered

// What this source received on the channel before it sent again.
std::vector<RecordedLine> Replay::answersTo(const RecordedLine &line) const {
    std::vector<RecordedLine> answers;
    for (const RecordedLine &one : lines_) {
        if (one.number <= line.number || one.source != line.source || one.arguments.empty()) continue;
        if (line.word == "ping" && one.word == "ping") break;
        const bool same = one.arguments[0] == line.arguments[0];
        if (same && (one.word == "send" || one.word == "connect")) break;
        if (same && (one.word == "receive" || one.word == "pong")) answers.push_back(one);
    }
    return answers;
}

void Replay::perform(int tap, const RecordedLine &asked, const Effect &effect) {
    const RecordedLine &line = effect.line;
    const int error = resultOf(line);
    TapAnswer head{error, -1, 0, 0};
    if (line.word == "ping") {
        constexpr unsigned long long most = 1000000000;
        const auto replies = answersTo(line);
        if (!replies.empty()) {
            head.delay_us = static_cast<int32_t>(std::min(std::stoull(replies[0].arguments[2]), most));
            head.looks = static_cast<uint32_t>(std::min(std::stoull(replies[0].arguments[3]), most));
        }
    } else if (line.word == "connect" && error == 0) {
        expectedModems_[cardOf(line.arguments[0])].push_back(line.source + " " + line.arguments[0]);
    }
    const bool isConfig = line.word == "send" && line.arguments[0].rfind("config.", 0) == 0;
    if (isConfig && error == 0) {
        requests_.push_back({asked.arguments[1], answersTo(line), line.time_us});
    } else if (line.word == "send" || line.word == "connect") {
        const std::string channel = line.source + " " + line.arguments[0];
        for (const RecordedLine &one : answersTo(line)) {
            later(one.time_us - line.time_us, [this, channel, bytes = one.arguments[1]] {
                acceptModems();
                const auto found = std::find_if(connections_.begin(), connections_.end(),
                                                [&](const Connection &each) { return each.channel == channel; });
                if (found == connections_.end()) return;
                if (bytes.empty()) {
                    connections_.erase(found);
                } else {
                    (void)!::send(found->fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
                }
            });
        }
    }
    answer(tap, head, "");
}

void Replay::answer(int tap, TapAnswer head, const std::string &bytes) {
    head.length = static_cast<uint32_t>(std::min(bytes.size(), longestRecorded));
    std::string packet(reinterpret_cast<const char *>(&head), sizeof head);
    packet.append(bytes, 0, head.length);
    (void)!::send(tap, packet.data(), packet.size(), MSG_NOSIGNAL);
}

// Requests arrive after the tap has asked for them. The answers are those recorded; an echo of a request is one of what came.
void Replay::readConfig() {
    for (;;) {
        sockaddr_un client{};
        socklen_t length = sizeof client;
        const ssize_t got = ::recvfrom(config_.get(), packet_.data(), packet_.size(), 0,
                                       reinterpret_cast<sockaddr *>(&client), &length);
        if (got < 0) return;
        const std::string bytes(packet_.data(), static_cast<size_t>(got));
        RecordedLine line{0, 0, "1", "send", {"config.0", bytes, "ok"}};
        mask_.apply(line);
        const auto found = std::find_if(requests_.begin(), requests_.end(),
                                        [&](const Request &one) { return one.bytes == line.arguments[1]; });
        if (found == requests_.end()) continue;
        for (const RecordedLine &one : found->answers) {
            const bool echo = one.arguments[1] == line.arguments[1];
            later(one.time_us - found->time_us, [this, client, length, text = echo ? bytes : one.arguments[1]] {
                ::sendto(config_.get(), text.data(), text.size(), MSG_DONTWAIT,
                         reinterpret_cast<const sockaddr *>(&client), length);
            });
        }
        requests_.erase(found);
    }
}

void Replay::acceptModems() {
    for (auto &[card, listener] : modems_) {
        for (int fd; (fd = ::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) != -1;) {
            auto &expected = expectedModems_[card];
            connections_.push_back({Descriptor(fd), expected.empty() ? "" : expected.front()});
            if (!expected.empty()) expected.pop_front();
        }
    }
    for (auto one = connections_.begin(); one != connections_.end();) {
        const ssize_t got = ::recv(one->fd.get(), packet_.data(), packet_.size(), 0);
        one = got == 0 ? connections_.erase(one) : std::next(one);
    }
}

void Replay::later(long long delay_us, std::function<void()> act) {
    due_.push_back({Clock::now() + std::chrono::microseconds(std::max(delay_us, 0LL)), std::move(act)});
}

// ---- what happens of itself

void Replay::startUnasked() {
    for (auto one = unasked_.begin(); one != unasked_.end();) {
        const bool ready = std::all_of(programs_.begin(), programs_.end(), [&](const auto &named) {
            const Program &program = named.second;
            return program.first == program.effects.size() ||
                   program.effects[program.first].line.number > one->line.number;
        });
        if (!ready) break;
        // Half the time: what the program did next has to come after it.
        later((one->line.time_us - one->after_us) / 2, [this, line = one->line] { doUnasked(line); });
        one = unasked_.erase(one);
    }
}

void Replay::doUnasked(const RecordedLine &line) {
    lastDone_ = Clock::now();
    lastDone_us_ = std::max(lastDone_us_, line.time_us);
    if (line.word == "signal") {
        if (pid_ > 0) ::kill(pid_, signalNumber(line.arguments[0]));
        return;
    }
    const Descriptor fifo(::open(line.arguments[0].c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (fifo.get() != -1) (void)!::write(fifo.get(), line.arguments[1].data(), line.arguments[1].size());
}

void Replay::watchPatience() {
    if (!difference_.empty() || over_ || pid_ == -1) return;
    const long long waited = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - lastDone_).count();
    const Effect *const undone = oldestUndone(true);
    if (undone != nullptr) {
        if (waited > std::max(undone->line.time_us - lastDone_us_, 0LL) + patience_us)
            differ(undone->line, "nothing for " + std::to_string(waited / 1000000) + " s");
        return;
    }
    if (!unasked_.empty() || !due_.empty()) return;
    if (exit_ == nullptr) {
        over_ = true;
    } else if (waited > std::max(exit_->time_us - lastDone_us_, 0LL) + patience_us) {
        differ(*exit_, "the program still runs");
    }
}

// ---- the loop's part

void Replay::addTo(std::vector<pollfd> &waiting) const {
    for (const Descriptor *one : {&listener_, &config_}) waiting.push_back({one->get(), POLLIN, 0});
    for (const Descriptor &one : taps_) waiting.push_back({one.get(), POLLIN, 0});
    for (const auto &[card, listener] : modems_) waiting.push_back({listener.get(), POLLIN, 0});
    for (const Connection &one : connections_) waiting.push_back({one.fd.get(), POLLIN, 0});
}

int Replay::patience_ms() const {
    constexpr long long most = 200;
    long long least = most;
    for (const Due &one : due_) {
        const long long left = std::chrono::duration_cast<std::chrono::milliseconds>(one.when - Clock::now()).count();
        least = std::min(least, std::max(left, 0LL) + (left > 0 ? 1 : 0));
    }
    return static_cast<int>(least);
}

void Replay::serve() {
    for (int fd; (fd = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) != -1;)
        taps_.emplace_back(fd);
    for (auto one = taps_.begin(); one != taps_.end();) {
        ssize_t got;
        while ((got = ::recv(one->get(), packet_.data(), packet_.size(), 0)) > 0)
            take(one->get(), {packet_.data(), static_cast<size_t>(got)});
        one = got == 0 ? taps_.erase(one) : std::next(one);
    }
    readConfig();
    acceptModems();
    std::vector<Due> ready;
    const auto now = Clock::now();
    for (auto one = due_.begin(); one != due_.end();) {
        if (one->when > now) {
            ++one;
            continue;
        }
        ready.push_back(std::move(*one));
        one = due_.erase(one);
    }
    for (const Due &one : ready) one.act();
    watchPatience();
}

}  // namespace vxgateway
