// SPDX-License-Identifier: MIT
#include "gateway/core/gateway.h"

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "gateway/core/board.h"
#include "gateway/core/json.h"
#include "gateway/core/scenario.h"

namespace vxgateway {

namespace {

namespace fs = std::filesystem;

constexpr const char *statusDirectory = "/tmp/status";
constexpr const char *store = "/var/lib/configd/gateway-store";
constexpr std::array<const char *, 11> initialValues{
    "wan.interface=wan0",  "wan.gateway=192.0.2.1", "wan.target=198.51.100.9", "wan.sms=+15550100",  "wan.card=0",
    "wan.interval_ms=200", "wan.losses=2",          "wan.alarm_input=1",       "wan.state_output=1", "power.input=2",
    "hostname=gateway"};

struct SignalName {
    std::string_view name;
    int number;
};
constexpr std::array signalNames{SignalName{"HUP", SIGHUP},   SignalName{"INT", SIGINT},   SignalName{"TERM", SIGTERM},
                                 SignalName{"KILL", SIGKILL}, SignalName{"STOP", SIGSTOP}, SignalName{"CONT", SIGCONT},
                                 SignalName{"USR1", SIGUSR1}, SignalName{"USR2", SIGUSR2}};

std::string withoutNewline(std::string text) {
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

// Remove a part from the front of a line that a peer printed; false when the line begins with something else.
bool takeText(std::string_view &rest, std::string_view text) {
    if (rest.substr(0, text.size()) != text) return false;
    rest.remove_prefix(text.size());
    return true;
}

template <typename Number>
bool takeNumber(std::string_view &rest, Number &number) {
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), number);
    if (error != std::errc()) return false;
    rest.remove_prefix(static_cast<size_t>(end - rest.data()));
    return true;
}

// Only regular files are values; FIFOs take commands.
std::optional<std::string> valueOf(const std::string &path) {
    std::error_code error;
    if (!fs::is_regular_file(path, error)) return std::nullopt;
    return withoutNewline(readText(path));
}

// The library replaces the file as a whole, so a reader needs no lock.
std::string deviceLog() { return readText("/var/log/qxlog"); }

std::string list(const std::vector<std::string> &jsons) {
    Json array = Json::array();
    for (const std::string &json : jsons) array.add(json);
    return array.done();
}

// The scenarios that come with the gateway.
std::string catalogue(bool json) {
    std::map<std::string, std::string> questions;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(scenarioDirectory, error)) {
        const std::string name = entry.path().stem();
        try {
            questions[name] = readScenario(name, readText(entry.path())).question;
        } catch (const std::exception &problems) {
            questions[name] = problems.what();
        }
    }
    std::string text;
    Json array = Json::array();
    for (const auto &[name, question] : questions) {
        text.append(name).append(": ").append(question).append("\n");
        array.add(Json::object().text("name", name).text("question", question).done());
    }
    return json ? array.done() + "\n" : text;
}

std::string levels(const std::map<long long, char> &known, long long count) {
    Json array = Json::array();
    for (long long i = 1; i <= count; ++i) {
        const auto found = known.find(i);
        const char level = found == known.end() ? '0' : found->second;
        array.add(level == '0' || level == '1' ? std::string(1, level) : jsonString(std::string(1, level)));
    }
    return array.done();
}

}  // namespace

// ---- start and end

void Gateway::openLog() {
    constexpr const char *path = "/dev/log";
    ::unlink(path);
    log_ = Descriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path);
    if (log_.get() == -1 || ::bind(log_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == -1 ||
        ::chmod(path, 0666) == -1) {
        throw std::runtime_error(std::string(path) + ": " + std::strerror(errno));
    }
}

Peer &Gateway::addPeer(const std::string &name, std::vector<std::string> command) {
    command[0] = programs_ + "/" + command[0];
    peers_.push_back(
        std::make_unique<Peer>(name, std::move(command), [this, name](const std::string &line) { hear(name, line); }));
    return *peers_.back();
}

Peer *Gateway::peer(const std::string &name) const {
    for (const auto &peer : peers_) {
        if (peer->name() == name) return peer.get();
    }
    return nullptr;
}

std::vector<Peer *> Gateway::peers() const {
    std::vector<Peer *> all;
    for (const auto &peer : peers_) all.push_back(peer.get());
    return all;
}

void Gateway::start() {
    layOutBoard(programs_);
    if (setsClock) clock_.share();
    openLog();
    std::vector<std::string> config{"configd", "--store", store};
    config.insert(config.end(), initialValues.begin(), initialValues.end());
    if (!replaysDaemons) addPeer("config", config);
    if (!replaysDaemons) addPeer("modem", {"wwanmd", "0"});
    addPeer("events", {"eventmanager"});
    addPeer("board", {"board", "--group", std::to_string(usableGroup("dialout"))});
    if (net_ == Net::wan) addPeer("wan", {"wanlink", "--delay", "3"});
    if (net_ == Net::full) addPeer("wan", {"wanlink", "--delay", "3", "--lan"});
    for (Peer *one : peers()) startPeer(*one);
    waitUntilReady(peers());
    if (replaysDaemons) return;
    bool answered = false;
    perform({"modem", "signal", "-67"}, [&answered](const Outcome &) { answered = true; });
    while (!answered) {
        for (Peer *one : peers()) one->read();
        giveUp();
        ::usleep(500);
    }
    openToUsers();
}

void Gateway::startPeer(Peer &peer) {
    peer.start(std::string(logDirectory) + "/" + peer.name() + ".log");
    note({0, "peer", "peer " + peer.name() + " started", {{"peer", peer.name()}, {"state", "started"}}});
}

void Gateway::waitUntilReady(const std::vector<Peer *> &awaited) {
    const auto deadline = Clock::now() + std::chrono::seconds(15);
    for (;;) {
        std::vector<pollfd> waiting;
        for (Peer *one : awaited) {
            one->read();
            if (!one->ready()) waiting.push_back({one->output(), POLLIN, 0});
            int status = 0;
            if (one->ready() || ::waitpid(one->pid(), &status, WNOHANG) != one->pid()) continue;
            one->ended();
            throw std::runtime_error("the peer " + one->name() + " did not start:\n" + one->said());
        }
        if (waiting.empty()) return;
        if (Clock::now() > deadline) throw std::runtime_error("the peers are not ready after 15 s");
        ::poll(waiting.data(), waiting.size(), 100);
    }
}

// As the firmware does: every user may configure and ask the modem.
void Gateway::openToUsers() const { ::chmod("/var/run/wwanmd0/server", 0777); }

void Gateway::stop() {
    for (Peer *one : peers()) one->endInput();
    const auto deadline = Clock::now() + std::chrono::seconds(1);
    for (Peer *one : peers()) {
        int status = 0;
        while (one->running() && ::waitpid(one->pid(), &status, WNOHANG) == 0) {
            if (Clock::now() > deadline) one->kill();
            one->read();
            ::usleep(1000);
        }
        one->ended();
    }
    ::unlink("/dev/log");
    clearBoard();
}

// ---- what happens

long long Gateway::now_us() const {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - started_).count();
}

void Gateway::note(Entry entry) {
    entry.time_us = now_us();
    record_.add(std::move(entry));
}

void Gateway::readLog() {
    std::array<char, 65536> buffer;
    static std::ofstream file(std::string(logDirectory) + "/syslog.log", std::ios::app);
    ssize_t got;
    while ((got = ::recv(log_.get(), buffer.data(), buffer.size(), 0)) >= 0) {
        note(logEntry({buffer.data(), static_cast<size_t>(got)}));
        const Entry &entry = record_.entries().back();
        file << secondsText(entry.time_us) << ' ' << entry.line << std::endl;
        if (!echoLog.empty()) std::fprintf(stderr, "%s%s\n", echoLog.c_str(), entry.line.c_str());
    }
}

// A peer tells what programs did to it.
void Gateway::hear(const std::string &name, const std::string &line) {
    Entry entry{0, name, line, {}};
    std::string_view rest = line;
    unsigned long long id = 0;
    unsigned long long param = 0;
    long long number = 0;
    if (name == "events" && takeText(rest, "event id=") && takeNumber(rest, id) && takeText(rest, " param=") &&
        takeNumber(rest, param) && takeText(rest, " text=\"")) {
        entry.kind = "event";
        const std::string text(rest.substr(0, rest.rfind('"')));
        entry.fields = {{"id", std::to_string(id), true}, {"param", std::to_string(param), true}, {"text", text}};
    } else if (name == "board" && takeText(rest, "out ") && takeNumber(rest, number) && takeText(rest, " = ") &&
               !rest.empty()) {
        entry.kind = "output";
        outputs_[number] = rest[0];
        entry.fields = {{"output", std::to_string(number), true}, {"level", std::string(1, rest[0])}};
    } else if (name == "board" && takeText(rest, "counting ") && takeNumber(rest, number) && takeText(rest, " ")) {
        entry.kind = "counting";
        entry.fields = {{"input", std::to_string(number), true}, {"state", std::string(rest)}};
    } else {
        entry.fields = {{"text", line}};
    }
    note(std::move(entry));
}

void Gateway::giveUp() {
    const auto now = Clock::now();
    for (Peer *one : peers()) one->giveUp(now);
}

bool Gateway::childEnded(pid_t pid, int status) {
    for (Peer *one : peers()) {
        if (one->pid() != pid) continue;
        one->ended();
        note({0,
              "peer",
              "peer " + one->name() + " ended",
              {{"peer", one->name()}, {"state", "ended"}, {"status", std::to_string(status), true}}});
        return true;
    }
    return false;
}

void Gateway::programStarted(pid_t pid) {
    program_ = pid;
    note({0, "program", "program started", {{"state", "started"}, {"pid", std::to_string(pid), true}}});
}

void Gateway::programEnded() {
    program_ = -1;
    note({0, "program", "program ended", {{"state", "ended"}}});
}

std::optional<std::string> Gateway::status(const std::string &name) const {
    return valueOf(std::string(statusDirectory) + "/" + name);
}

char Gateway::outputLevel(long long output) const {
    const auto found = outputs_.find(output);
    return found == outputs_.end() ? '0' : found->second;
}

// ---- orders

void Gateway::perform(const Words &words, const Done &done) {
    const auto finish = [this, words, done](const Outcome &outcome) {
        if (outcome.obeyed) remember(words);
        note({0,
              "order",
              join(words, 0, words.size()),
              {{"words", join(words, 0, words.size())}, {"obeyed", outcome.obeyed ? "true" : "false", true}}});
        done(outcome);
    };
    if (const auto problem = checkLines(words)) return finish({false, problem->message, 2});
    try {
        if (const auto outcome = performHere(words)) return finish(*outcome);
    } catch (const std::exception &problem) {
        return finish({false, problem.what()});
    }
    // What is left is a peer's: all words but the peer's name, with some said in another way.
    std::string name = words[0];
    std::string order = join(words, 1, words.size());
    if (name == "input" || name == "pulse") {
        order = (name == "input" ? "in " : "pulse ") + order;
        name = "board";
    } else if (name == "modem" && words[1] == "signal") {
        order = "on signal = OK " + words[2] + " dBm";
    } else if (name == "manager") {
        name = "events";
    }
    Peer *const obeying = peer(name);
    if (obeying == nullptr) return finish({false, "this gateway has no " + name});
    obeying->order(order, finish);
}

// Lines that this board does not have.
std::optional<Problem> Gateway::checkLines(const Words &words) const {
    const bool moves = words[0] == "input" || words[0] == "pulse" ||
                       (words[0] == "board" && (words[1] == "in" || words[1] == "pulse"));
    if (!moves) return std::nullopt;
    const size_t at = words[0] == "board" ? 2 : 1;
    if (std::stoll(words[at]) <= inputCount_) return std::nullopt;
    return Problem{at, "the board has " + std::to_string(inputCount_) + " inputs, not " + words[at]};
}

std::optional<Outcome> Gateway::performHere(const Words &words) {
    const std::string &what = words[0];
    if (what == "voltage") {
        setVoltage(static_cast<int>(std::stol(words[1])), std::stoll(words[2]));
    } else if (what == "converter") {
        setConverter(std::stoll(words[1]));
    } else if (what == "usb" || what == "sd") {
        putDisk(what, words[1] == "in");
    } else if (what == "disk") {
        fillDisk(words[2], words[1] == "fill");
    } else if (what == "sms") {
        receiveSms(words[2], join(words, 3, words.size()));
    } else if (what == "note") {
        note({0, "note", join(words, 1, words.size()), {{"text", join(words, 1, words.size())}}});
    } else if (what == "deliver") {
        return deliver(words);
    } else if (what == "clock") {
        return setClock(words);
    } else if (what == "program") {
        return performProgram(words);
    } else if (what == "start" || what == "stop" || what == "kill") {
        return performPeer(words);
    } else if (what == "scenario") {
        return words[1] == "play" ? stage->play(words[2]) : stage->stopPlaying();
    } else {
        return std::nullopt;
    }
    return Outcome{true, ""};
}

// What the firmware's scripts would do for real is written down.
Outcome Gateway::deliver(const Words &words) {
    const std::string text = join(words, 2, words.size());
    Entry entry{0, words[1], text, {}};
    if (words[1] == "sms") {
        // To open a FIFO is to wait for its writer.
        std::error_code error;
        if (!fs::is_regular_file(text, error)) return {false, text + ": not a file"};
        std::istringstream message(readText(text));
        ::unlink(text.c_str());
        std::string number;
        std::string body;
        for (std::string line; std::getline(message, line) && !line.empty();) {
            if (line.rfind("To: ", 0) == 0) number += (number.empty() ? "" : " ") + line.substr(4);
        }
        body.assign(std::istreambuf_iterator<char>(message), {});
        entry.line = number + " " + withoutNewline(body);
        entry.fields = {{"to", number}, {"text", withoutNewline(body)}};
    } else {
        entry.fields = {{"text", text}};
    }
    std::ofstream(std::string(logDirectory) + "/" + words[1] + ".log", std::ios::app) << entry.line << '\n';
    note(std::move(entry));
    return {true, ""};
}

Outcome Gateway::setClock(const Words &words) {
    if (!clock_.isShared()) return {false, "the clock can be set in a gateway that was started with --clock"};
    std::string problem;
    if (words[1] == "real")
        clock_.setReal();
    else
        problem = clock_.set(*clockMove(words[1]));
    return {problem.empty(), problem};
}

Outcome Gateway::performProgram(const Words &words) const {
    if (program_ <= 0) return {false, "no program runs"};
    int result = 0;
    if (words[1] == "signal") {
        const auto known = std::find_if(signalNames.begin(), signalNames.end(),
                                        [&](const SignalName &one) { return one.name == words[2]; });
        result = ::kill(program_, known->number);
    } else {
        const bool memory = words[1] == "memory";
        const auto limit = static_cast<rlim_t>(std::stoull(words[2]) << (memory ? 20 : 0));
        rlimit old{};
        ::prlimit(program_, memory ? RLIMIT_AS : RLIMIT_NOFILE, nullptr, &old);
        const rlimit changed{std::min(limit, old.rlim_max), old.rlim_max};
        result = ::prlimit(program_, memory ? RLIMIT_AS : RLIMIT_NOFILE, &changed, nullptr);
    }
    return {result == 0, result == 0 ? "" : std::strerror(errno)};
}

Outcome Gateway::performPeer(const Words &words) {
    Peer *const one = peer(words[1]);
    if (one == nullptr) return {false, "this gateway has no " + words[1]};
    if (words[0] == "start") {
        if (one->running()) return {false, words[1] + " runs already"};
        startPeer(*one);
        waitUntilReady({one});
        openToUsers();
        return {true, ""};
    }
    if (!one->running() && words[0] == "kill") return {true, ""};  // killed or dead is the same
    if (!one->running()) return {false, words[1] + " does not run"};
    if (words[0] == "kill") {
        one->kill();
    } else {
        one->endInput();
    }
    int status = 0;
    const auto deadline = Clock::now() + Peer::patience;
    while (::waitpid(one->pid(), &status, WNOHANG) == 0) {
        if (Clock::now() > deadline) return {false, words[1] + " does not end"};
        one->read();
        ::usleep(500);
    }
    childEnded(one->pid(), status);
    return {true, ""};
}

// Keeps what gw shows of the orders themselves.
void Gateway::remember(const Words &words) {
    const std::string &what = words[0];
    const auto last = [&] { return std::stoll(words.back()); };
    if (what == "input") {
        inputs_[std::stoll(words[1])] = words[2][0];
    } else if (what == "voltage") {
        supplies_[std::stoll(words[1])] = last();
    } else if (what == "converter") {
        converter_ = last();
    } else if (what == "board") {
        if (words[1] == "in") inputs_[std::stoll(words[2])] = words[3][0];
        if (words[1] == "inputs") inputCount_ = last();
        if (words[1] == "outputs") outputCount_ = last();
    } else if (what == "wan") {
        if (words[1] == "cut" || words[1] == "restore") cable_ = words[1] == "restore";
        if (words[1] == "lose" || words[1] == "carry") lossPercent_ = words[1] == "lose" ? 100 : 0;
        if (words[1] == "loss") lossPercent_ = last();
        if (words[1] == "delay") delay_ms_ = last();
    } else if (what == "modem") {
        if (words[1] == "signal") signal_ = words[2];
        if (words[1] == "reset") reset_ = words[2] == "on";
        if (words[1] == "suspend") suspended_ = words[2] == "on";
        if (words[1] == "normal") signal_ = "";
    }
}

// ---- queries

std::map<std::string, std::string> Gateway::statusTree() const {
    std::map<std::string, std::string> tree;
    std::error_code error;
    for (auto entry = fs::recursive_directory_iterator(statusDirectory, error);
         !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename();
        const auto value = name[0] == '.' ? std::nullopt : valueOf(entry->path());
        if (value) tree[fs::path(entry->path()).lexically_relative(statusDirectory)] = *value;
    }
    return tree;
}

std::string Gateway::statusJson() const {
    Json object = Json::object();
    for (const auto &[name, value] : statusTree()) object.text(name, value);
    return object.done();
}

std::string Gateway::configJson() const {
    Json object = Json::object();
    std::istringstream lines(readText(store));
    for (std::string line; std::getline(lines, line);) {
        const size_t equals = line.find('=');
        object.text(line.substr(0, equals), equals == std::string::npos ? "" : line.substr(equals + 1));
    }
    return object.done();
}

std::string Gateway::peersJson() const {
    Json array = Json::array();
    for (const auto &one : peers_) {
        Json object = Json::object();
        object.text("name", one->name()).truth("running", one->running());
        object.add("pid", one->running() ? std::to_string(one->pid()) : "null");
        array.add(object.done());
    }
    return array.done();
}

std::string Gateway::entries(const std::string &kind, bool json) const {
    std::vector<std::string> found;
    std::string text;
    for (const Entry &entry : record_.entries()) {
        if (!kind.empty() && entry.kind != kind) continue;
        if (json) {
            found.push_back(entry.json());
        } else {
            text += (kind.empty() ? secondsText(entry.time_us) + " " + entry.kind + ": " : "") + entry.line + "\n";
        }
    }
    return json ? list(found) + "\n" : text;
}

std::string Gateway::everything() const {
    Json wan = Json::object();
    wan.truth("present", net_ != Net::none)
        .truth("cable", cable_)
        .number("delay_ms", delay_ms_)
        .number("loss_percent", lossPercent_);
    Json modem = Json::object();
    modem.number("card", 0)
        .add("signal_dbm", signal_.empty() ? "null" : signal_)
        .truth("reset", reset_)
        .truth("suspended", suspended_);
    Json storage = Json::array();
    for (const Disk &disk : disks()) {
        Json one = Json::object();
        one.text("name", disk.name)
            .text("device", disk.device)
            .text("mounted_on", disk.mountPoint)
            .truth("present", diskPresent(disk.name));
        one.truth("full", disk.mountPoint[0] != '\0' && diskFull(disk.name));
        storage.add(one.done());
    }
    Json supplies = Json::array();
    for (const auto &[supply, millivolts] : supplies_) supplies.add(std::to_string(millivolts));
    Json object = Json::object();
    object.add("time", secondsText(now_us()));
    object.add("inputs", levels(inputs_, inputCount_)).add("outputs", levels(outputs_, outputCount_));
    object.add("supplies_mv", supplies.done()).number("converter_raw", converter_);
    object.add("wan", wan.done()).add("modem", modem.done()).add("storage", storage.done());
    object.add("clock", clock_.json());
    object.add("peers", peersJson()).add("status", statusJson()).add("config", configJson());
    object.text("devlog", deviceLog());
    object.add("program", program_ > 0 ? std::to_string(program_) : "null");
    object.add("scenario", scenario.empty() ? "null" : jsonString(scenario));
    object.add("timeline", stage->timeline());
    return object.done();
}

std::optional<std::string> Gateway::show(const Words &words, bool json, const Done &done) {
    const std::string &what = words[0];
    const auto both = [&](const std::string &text, const std::string &structured) {
        return json ? structured + "\n" : text;
    };
    if (what == "status" && words.size() == 2) {
        const auto value = status(words[1]);
        if (!value) {
            done({false, "no such value: " + words[1]});
            return std::nullopt;
        }
        return both(*value + "\n", jsonString(*value));
    }
    if (what == "status") {
        std::string text;
        for (const auto &[name, value] : statusTree()) text.append(name).append("=").append(value).append("\n");
        return both(text, statusJson());
    }
    if (what == "config" && words[1] == "list") return both(readText(store), configJson());
    if (what == "config" || what == "manager") {
        const auto answer = [done, json](const Outcome &outcome) {
            if (!outcome.obeyed || !json) return done(outcome);
            const std::string text = withoutNewline(outcome.text);
            const size_t equals = text.find('=');
            done({true, (equals == std::string::npos ? text : jsonString(text.substr(equals + 1))) + "\n"});
        };
        Peer *const asked = peer(what == "config" ? "config" : "events");
        asked->order(join(words, 1, words.size()), answer);
        return std::nullopt;
    }
    if (what == "scenario") return words.size() == 2 ? catalogue(json) : stage->timeline() + "\n";
    if (what == "clock") return both(clock_.text(), clock_.json());
    if (what == "now") return secondsText(now_us()) + "\n";
    if (what == "show") return everything() + "\n";
    if (what == "devlog") {
        std::vector<std::string> lines;
        std::istringstream text(deviceLog());
        for (std::string line; std::getline(text, line);) lines.push_back(jsonString(line));
        return both(text.str(), list(lines));
    }
    if (what == "inputs") {
        const std::string all = levels(inputs_, inputCount_);
        std::string text;
        for (long long i = 1; i <= inputCount_; ++i)
            text += "in " + std::to_string(i) + " = " + (inputs_.count(i) != 0 ? inputs_[i] : '0') + "\n";
        return both(text, all);
    }
    if (what == "outputs" && json) {
        const std::string changes = withoutNewline(entries("output", true));
        return Json::object().add("levels", levels(outputs_, outputCount_)).add("changes", changes).done() + "\n";
    }
    if (what == "peers") {
        std::string text;
        for (const auto &one : peers_) text += one->name() + (one->running() ? " running\n" : " ended\n");
        return both(text, peersJson());
    }
    if (what == "record") return entries("", json);
    const std::string kind = what == "outputs" ? "output" : what == "events" ? "event" : what;
    return entries(kind, json);
}

}  // namespace vxgateway
