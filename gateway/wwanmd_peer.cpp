// SPDX-License-Identifier: MIT
// wwanmd: stand-in for the modem daemon of one card.
//
// Listens at the daemon's socket, answers commands as it was told to, and prints one line for everything that happens.
// Lines on its standard input change how it answers while it runs; each is confirmed with "done".
#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <list>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "gateway/control.h"
#include "gateway/send_alone.h"

namespace {

constexpr const char *help =
    "usage: wwanmd CARD\n"
    "Stand-in for the modem daemon of card CARD (0 to 5, 10 to 15), at /var/run/wwanmdCARD/server.\n"
    "\n"
    "It prints \"ready\", then one line for each event; times are microseconds of the monotonic clock:\n"
    "  TIME connected      TIME closed      TIME command TEXT\n"
    "Lines on standard input steer it; each is confirmed with \"done\". TEXT may hold \\n \\r \\\\ and \\xHH.\n"
    "  ok TEXT             answer commands with \"OK\" and TEXT\n"
    "  error TEXT          answer commands with \"ERROR\" and TEXT\n"
    "  raw TEXT            answer commands with TEXT alone\n"
    "  fill N              answer commands with \"OK\" and letters, N bytes in all\n"
    "  echo                answer commands with \"OK\", a blank and the command\n"
    "  on COMMAND = TEXT   answer this command with TEXT alone, whatever the others get\n"
    "  busy N TEXT         before each answer, answer N times \"BUSY\" and TEXT\n"
    "  busyfor MS TEXT     the same once, and the answer MS milliseconds later\n"
    "  late MS             send answers MS milliseconds late\n"
    "  times MS[,MS]...    send the answer to the next command at these times after it, several times in all; several\n"
    "                      words are used in turn, by all connections\n"
    "  pieces N            send answers in pieces of N bytes, each when the one before has been read\n"
    "  silent              take commands and answer none\n"
    "  handshake WAY       answer \"init\" commands: ok, error, silent, busy\n"
    "  drop                close connections as soon as they are made\n"
    "  deaf                accept no connection, and have the queue of waiting ones full\n"
    "  clog                read no commands\n"
    "  stale TEXT          send TEXT now, unasked\n"
    "  hangup              close all connections now\n"
    "  reset on|off        set or remove the marker of a card in reset\n"
    "  suspend on|off      set or remove the marker of a suspended card\n"
    "  normal              answer everything with \"OK\" again, at once and whole\n"
    "  sync                nothing: its \"done\" comes after all earlier events\n"
    "  die                 end at once and leave the socket behind\n"
    "It ends with the end of its standard input and then takes its socket and markers away.\n";

long long nowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void makeDirs(const std::string &path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        ::mkdir(path.substr(0, slash).c_str(), 0755);
    }
}

std::string escaped(std::string_view text) {
    std::string result;
    for (const char c : text) {
        if (c == '\\') {
            result += "\\\\";
        } else if (c == '\n') {
            result += "\\n";
        } else if (std::isprint(static_cast<unsigned char>(c)) != 0) {
            result += c;
        } else {
            std::array<char, 8> hex;
            std::snprintf(hex.data(), hex.size(), "\\x%02x", static_cast<unsigned int>(static_cast<unsigned char>(c)));
            result += hex.data();
        }
    }
    return result;
}

std::string unescaped(std::string_view text) {
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            result += text[i];
            continue;
        }
        const char kind = text[++i];
        if (kind == 'x' && i + 2 < text.size()) {
            result += static_cast<char>(std::strtoul(std::string(text.substr(i + 1, 2)).c_str(), nullptr, 16));
            i += 2;
        } else {
            result += kind == 'n' ? '\n' : kind == 'r' ? '\r' : kind;
        }
    }
    return result;
}

// How commands are answered.
struct Manner {
    std::string answer = "OK\n";
    std::map<std::string, std::string> answers;  // for single commands
    int busyTimes = 0;
    int busyMs = 0;  // between the last "BUSY" and the answer
    std::string busyText;
    int lateMs = 0;
    std::vector<std::vector<int>> times;
    size_t timesUsed = 0;
    bool echo = false;
    size_t pieceSize = 0;  // 0: whole
    bool silent = false;
    std::string handshake = "ok";
    bool drop = false;
    bool deaf = false;
    bool clog = false;
};

struct Piece {
    std::string bytes;
    int delayMs;
};

struct TimedAnswer {
    long long dueUs;
    std::string bytes;
};

struct Client {
    int fd = -1;
    std::vector<TimedAnswer> timedAnswers;
    std::string received;
    std::deque<Piece> pieces;
    long long previousDoneUs = 0;
};

class Daemon {
public:
    explicit Daemon(int card)
        : directory_("/var/run/wwanmd" + std::to_string(card) + "/"),
          status_("/tmp/status/wwanmd/card" + std::to_string(card) + "/") {}

    bool listenAtSocket();
    void run();
    void leave();

private:
    static void report(const std::string &event);
    void accept();
    void read(Client &client);
    void take(Client &client, const std::string &command);
    void queue(Client &client, const std::string &text, int delayMs);
    void answerHandshake(Client &client);
    static bool sendTimed(Client &client);
    bool sendDue(Client &client);
    void drop(Client &client);
    void control(std::string_view line);
    void becomeDeaf();
    void hearAgain();
    void mark(const std::string &marker, bool present);

    std::string directory_;
    std::string status_;
    int listener_ = -1;
    std::list<Client> clients_;
    std::vector<int> fillers_;  // own connections that fill the queue of waiting ones
    ControlInput input_;
    Manner manner_;
};

std::vector<std::vector<int>> readTimes(const std::string &text) {
    std::vector<std::vector<int>> times;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        std::istringstream numbers(word);
        times.emplace_back();
        for (std::string number; std::getline(numbers, number, ',');) {
            times.back().push_back(static_cast<int>(std::strtol(number.c_str(), nullptr, 10)));
        }
    }
    return times;
}

sockaddr_un addressOf(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

bool Daemon::listenAtSocket() {
    makeDirs(directory_);
    makeDirs(status_);
    mark("reset", false);  // of a daemon that was killed
    mark("suspended", false);
    const std::string path = directory_ + "server";
    ::unlink(path.c_str());
    const sockaddr_un address = addressOf(path);
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    return ::bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
           ::listen(listener_, 16) == 0;
}

void Daemon::report(const std::string &event) { std::printf("%lld %s\n", nowUs(), event.c_str()); }

void Daemon::accept() {
    const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd == -1) return;
    report("connected");
    if (manner_.drop) {
        ::close(fd);
        report("closed");
        return;
    }
    clients_.emplace_back();
    clients_.back().fd = fd;
}

void Daemon::drop(Client &client) {
    ::close(client.fd);
    client.fd = -1;
    report("closed");
}

void Daemon::read(Client &client) {
    std::array<char, 16384> buffer;
    const ssize_t got = ::recv(client.fd, buffer.data(), buffer.size(), 0);
    if (got == -1 && errno == EAGAIN) return;
    if (got <= 0) {
        drop(client);
        return;
    }
    client.received.append(buffer.data(), static_cast<size_t>(got));
    for (size_t end = client.received.find('\n'); end != std::string::npos; end = client.received.find('\n')) {
        const std::string command = client.received.substr(0, end);
        client.received.erase(0, end + 1);
        take(client, command);
    }
}

void Daemon::queue(Client &client, const std::string &text, int delayMs) {
    if (client.pieces.empty()) client.previousDoneUs = nowUs();
    client.pieces.push_back({text, delayMs});
}

void Daemon::answerHandshake(Client &client) {
    if (manner_.handshake == "ok") queue(client, "OK\n", 0);
    if (manner_.handshake == "error") queue(client, "ERROR refused\n", 0);
    if (manner_.handshake == "busy") queue(client, "BUSY\n", 0);
}

void Daemon::take(Client &client, const std::string &command) {
    report("command " + escaped(command));
    if (command.rfind("init ", 0) == 0) {
        answerHandshake(client);
        return;
    }
    if (manner_.silent) return;
    for (int i = 0; i < manner_.busyTimes; ++i) queue(client, "BUSY" + manner_.busyText, 0);
    const auto own = manner_.answers.find(command);
    const std::string answer = own != manner_.answers.end() ? own->second
                               : manner_.echo               ? "OK " + command
                                                            : manner_.answer;
    if (!manner_.times.empty()) {
        for (const int ms : manner_.times[manner_.timesUsed++ % manner_.times.size()]) {
            client.timedAnswers.push_back({nowUs() + ms * 1000LL, answer});
        }
        return;
    }
    int delayMs = manner_.lateMs + manner_.busyMs;
    const size_t step = manner_.pieceSize > 0 ? manner_.pieceSize : answer.size();
    for (size_t start = 0; start < answer.size(); start += step) {
        queue(client, answer.substr(start, step), delayMs);
        delayMs = 0;
    }
}

// Sends what is due, in the order of its times. Returns whether more is to come.
bool Daemon::sendTimed(Client &client) {
    auto &answers = client.timedAnswers;
    const auto earlier = [](const TimedAnswer &a, const TimedAnswer &b) { return a.dueUs < b.dueUs; };
    std::stable_sort(answers.begin(), answers.end(), earlier);
    while (!answers.empty() && answers.front().dueUs <= nowUs()) {
        (void)!::send(client.fd, answers.front().bytes.data(), answers.front().bytes.size(), MSG_NOSIGNAL);
        answers.erase(answers.begin());
    }
    return !answers.empty();
}

// Sends the next piece when it is due and the one before has been read. Returns whether more is to come.
bool Daemon::sendDue(Client &client) {
    if (client.pieces.empty()) return false;
    int unread = 0;
    if (::ioctl(client.fd, SIOCOUTQ, &unread) == 0 && unread > 0) {
        client.previousDoneUs = nowUs();
        return true;
    }
    const Piece &piece = client.pieces.front();
    if (nowUs() < client.previousDoneUs + piece.delayMs * 1000LL) return true;
    vxgateway::sendAlone(client.fd, piece.bytes);
    client.pieces.pop_front();
    client.previousDoneUs = nowUs();
    return !client.pieces.empty();
}

void Daemon::becomeDeaf() {
    manner_.deaf = true;
    ::listen(listener_, 0);
    const sockaddr_un address = addressOf(directory_ + "server");
    for (;;) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd == -1 || ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1) {
            if (fd != -1) ::close(fd);
            return;
        }
        fillers_.push_back(fd);
    }
}

void Daemon::hearAgain() {
    for (const int fd : fillers_) {
        ::close(fd);
        const int waiting = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (waiting != -1) ::close(waiting);
    }
    fillers_.clear();
    ::listen(listener_, 16);
}

void Daemon::mark(const std::string &marker, bool present) {
    const std::string path = status_ + marker;
    if (!present) {
        ::unlink(path.c_str());
        return;
    }
    const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    if (fd != -1) ::close(fd);
}

void Daemon::control(std::string_view line) {
    const size_t blank = line.find(' ');
    const std::string word(line.substr(0, blank));
    const std::string text = blank == std::string_view::npos ? "" : unescaped(line.substr(blank + 1));
    const auto number = static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
    const size_t second = text.find(' ');
    const std::string afterNumber = second == std::string::npos ? "" : text.substr(second + 1);
    if (word == "ok") {
        manner_.answer = "OK" + text;
    } else if (word == "error") {
        manner_.answer = "ERROR" + text;
    } else if (word == "raw") {
        manner_.answer = text;
    } else if (word == "fill") {
        manner_.answer = "OK" + std::string(number > 2 ? static_cast<size_t>(number - 2) : 0, 'x');
    } else if (word == "on") {
        const size_t equals = text.find(" = ");
        if (equals != std::string::npos) manner_.answers[text.substr(0, equals)] = text.substr(equals + 3);
    } else if (word == "busy") {
        manner_.busyTimes = number;
        manner_.busyText = afterNumber;
    } else if (word == "busyfor") {
        manner_.busyTimes = 1;
        manner_.busyMs = number;
        manner_.busyText = afterNumber;
    } else if (word == "late") {
        manner_.lateMs = number;
    } else if (word == "echo") {
        manner_.echo = true;
    } else if (word == "times") {
        manner_.times = readTimes(text);
    } else if (word == "pieces") {
        manner_.pieceSize = static_cast<size_t>(number > 0 ? number : 0);
    } else if (word == "silent") {
        manner_.silent = true;
    } else if (word == "handshake") {
        manner_.handshake = text;
    } else if (word == "drop") {
        manner_.drop = true;
    } else if (word == "deaf") {
        becomeDeaf();
    } else if (word == "clog") {
        manner_.clog = true;
    } else if (word == "stale") {
        for (Client &client : clients_) (void)!::send(client.fd, text.data(), text.size(), MSG_NOSIGNAL);
    } else if (word == "hangup") {
        for (Client &client : clients_) drop(client);
    } else if (word == "reset" || word == "suspend") {
        mark(word == "reset" ? "reset" : "suspended", text == "on");
    } else if (word == "normal") {
        if (manner_.deaf) hearAgain();
        manner_ = Manner{};
    } else if (word == "die") {
        ::_exit(0);
    } else if (word != "sync") {
        std::printf("unknown: %s\n", word.c_str());
    }
    std::puts("done");
}

void Daemon::run() {
    std::puts("ready");
    for (;;) {
        bool pending = false;
        for (Client &client : clients_) {
            pending = sendDue(client) || pending;
            pending = sendTimed(client) || pending;
        }
        clients_.remove_if([](const Client &client) { return client.fd == -1; });

        std::vector<pollfd> waiting{{0, POLLIN, 0}, {manner_.deaf ? -1 : listener_, POLLIN, 0}};
        for (const Client &client : clients_) waiting.push_back({manner_.clog ? -1 : client.fd, POLLIN, 0});
        if (::poll(waiting.data(), waiting.size(), pending ? 1 : -1) == -1) continue;
        size_t next = 2;
        for (Client &client : clients_) {
            if (waiting[next++].revents != 0) read(client);
        }
        if (waiting[1].revents != 0) accept();
        if (waiting[0].revents != 0 && !input_.read([this](const std::string &line) { control(line); })) {
            return;
        }
    }
}

void Daemon::leave() {
    ::unlink((directory_ + "server").c_str());
    mark("reset", false);
    mark("suspended", false);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2 || std::string_view(argv[1]) == "--help") {
        std::fputs(help, argc == 2 ? stdout : stderr);
        return argc == 2 ? 0 : 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Daemon daemon(static_cast<int>(std::strtol(argv[1], nullptr, 10)));
    if (!daemon.listenAtSocket()) {
        std::perror("wwanmd");
        return 1;
    }
    daemon.run();
    daemon.leave();
    return 0;
}
