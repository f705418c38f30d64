// SPDX-License-Identifier: MIT
// vx config: the configuration daemon's values, and those of configuration files.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <vxutils/cfread.h>
#include <vxutils/configd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <thread>

#include "commands/commands.h"
#include "core/failure.h"
#include "core/fd.h"
#include "core/owned.h"
#include "core/socket.h"

namespace tool {

namespace {

constexpr const char *socketDirectory = "/var/run/configd";
constexpr const char *daemonSocket = "/var/run/configd/daemon.sock";
constexpr milliseconds answerTime{10000};
constexpr milliseconds busyPause{200};
constexpr milliseconds longestBusy{60000};

using Clock = std::chrono::steady_clock;

constexpr int endingSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGALRM, SIGUSR1, SIGUSR2};

// The handle's socket file, which must not be left by a signal.
char clientSocket[sizeof(configd_handle::client_path)];

void removeSocketAndEnd(int signal) {
    ::unlink(clientSocket);
    ::signal(signal, SIG_DFL);
    ::raise(signal);
}

// Keeps the signals that end a program pending.
class SignalsHeld {
public:
    SignalsHeld() {
        sigset_t held;
        sigemptyset(&held);
        for (const int signal : endingSignals) sigaddset(&held, signal);
        sigprocmask(SIG_BLOCK, &held, &before_);
    }
    ~SignalsHeld() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
    SignalsHeld(const SignalsHeld &) = delete;
    SignalsHeld &operator=(const SignalsHeld &) = delete;

private:
    sigset_t before_;
};

class Daemon {
public:
    Daemon() {
        // The handler needs the name of the socket, which exists from configd_open() on.
        const SignalsHeld held;
        handle_ = configd_open();
        if (handle_ == nullptr) throw notOpened();
        std::memcpy(clientSocket, handle_->client_path, sizeof clientSocket);
        for (const int signal : endingSignals) {
            if (::signal(signal, removeSocketAndEnd) == SIG_IGN) ::signal(signal, SIG_IGN);
        }
    }
    ~Daemon() { configd_close(handle_); }
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    std::string get(const std::string &key) {
        auto entry = std::make_unique<configd_entry>();
        std::memcpy(entry->key, key.c_str(), key.size() + 1);
        const auto begin = Clock::now();
        if (configd_prepare_get(handle_, entry.get()) != 0) throw noAnswer(key, Clock::now() - begin);
        return entry->value;
    }

    void set(const std::vector<configd_entry> &entries) {
        const auto begin = Clock::now();
        switch (configd_set(handle_, entries.data())) {
            case 0:
                return;
            case -1:
                throw Failure("", "more than fits into one request to the configuration daemon");
            case -4:
                throw Failure(entries[0].key, "the configuration daemon does not confirm the change");
            default:
                throw noAnswer(entries[0].key, Clock::now() - begin);
        }
    }

    // Asks again while the daemon is busy, for so long.
    void commit(milliseconds longest) {
        const auto begin = Clock::now();
        for (;;) {
            const auto asked = Clock::now();
            const int result = configd_done(handle_);
            if (result == 0) return;
            if (result < 0) throw noAnswer("commit", Clock::now() - asked);
            if (Clock::now() - begin >= longest) {
                throw Failure("", "the configuration daemon is busy; what was set waits for vx config commit");
            }
            std::this_thread::sleep_for(busyPause);
        }
    }

private:
    static Failure notOpened() {
        if (::access(socketDirectory, W_OK | X_OK) == -1) return systemFailure(socketDirectory);
        return {socketDirectory, "no socket can be made in it; the system log has the reason"};
    }

    static Failure noAnswer(std::string_view on, Clock::duration waited) {
        if (!answers(daemonSocket, SOCK_DGRAM)) {
            const std::string why = std::strerror(errno);
            return {on, std::string("no configuration daemon at ") + daemonSocket + ": " + why};
        }
        if (waited >= answerTime) return {on, "no answer from the configuration daemon within 10 s"};
        return {on, "no usable answer from the configuration daemon"};
    }

    configd_handle *handle_ = nullptr;
};

void checkKey(std::string_view key) {
    if (key.empty()) throw Usage{"KEY is empty"};
    if (key.size() >= CONFIGD_KEY_LEN)
        throw Usage{"KEY is longer than " + std::to_string(CONFIGD_KEY_LEN - 1) + " bytes"};
    if (key.find_first_of("=\n") != std::string_view::npos)
        throw Usage{"KEY '" + std::string(key) + "' holds '=' or a line feed"};
}

configd_entry entryOf(const std::string &word) {
    const size_t equals = word.find('=');
    if (equals == std::string::npos) throw Usage{"'" + word + "' is not KEY=VALUE"};
    const std::string key = word.substr(0, equals);
    const std::string value = word.substr(equals + 1);
    checkKey(key);
    if (value.size() >= CONFIGD_VALUE_LEN) {
        throw Usage{key + ": VALUE is longer than " + std::to_string(CONFIGD_VALUE_LEN - 1) + " bytes"};
    }
    if (value.find('\n') != std::string::npos) throw Usage{key + ": VALUE holds a line feed"};
    configd_entry entry{};
    std::memcpy(entry.key, key.c_str(), key.size());
    std::memcpy(entry.value, value.c_str(), value.size());
    return entry;
}

using Table = Owned<cfread_table, &cfread_close>;

Table openFile(const char *path) {
    const Fd fd(::open(path, O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (!fd.valid() || ::fstat(fd.get(), &status) != 0) throw systemFailure(path);
    // The library reads a directory as an empty file.
    if (S_ISDIR(status.st_mode)) throw systemFailure(path, EISDIR);
    Table table(cfread_open(path));
    if (!table) throw Failure(path, "cannot be read with all its includes; the system log has file and line");
    return table;
}

int get(const Arguments &arguments, Output &out) {
    std::vector<Record> values;
    if (const char *file = arguments.text("file")) {
        const Table table = openFile(file);
        for (const std::string &key : arguments.words()) {
            const cfread_entry *entry = cfread_find_entry(table.get(), key.c_str());
            if (entry == nullptr) throw Failure(named(key), std::string("not in ") + file);
            values.push_back({{"key", key}, {"value", entry->value}});
        }
    } else {
        for (const std::string &key : arguments.words()) checkKey(key);
        Daemon daemon;
        for (const std::string &key : arguments.words()) values.push_back({{"key", key}, {"value", daemon.get(key)}});
    }
    out.print(values, values.size() == 1 ? Plain::value : Plain::pair);
    return statusDone;
}

int set(const Arguments &arguments, Output &out) {
    if (arguments.has("file")) throw Usage{"--file: files are only read"};
    const milliseconds longest = arguments.seconds("wait").value_or(longestBusy);
    std::vector<configd_entry> entries;
    for (const std::string &word : arguments.words()) entries.push_back(entryOf(word));
    entries.push_back({});
    Daemon daemon;
    daemon.set(entries);
    if (!arguments.has("no-commit")) daemon.commit(longest);
    out.done();
    return statusDone;
}

int commit(const Arguments &arguments, Output &out) {
    if (arguments.has("file")) throw Usage{"--file: files are only read"};
    const milliseconds longest = arguments.seconds("wait").value_or(milliseconds(0));
    Daemon().commit(longest);
    out.done();
    return statusDone;
}

int list(const Arguments &arguments, Output &out) {
    const char *file = arguments.text("file");
    if (file == nullptr) throw Usage{"--file is missing: the configuration daemon does not list its keys"};
    const Table table = openFile(file);
    std::vector<Record> values;
    for (int slot = 0; slot < table->size; ++slot) {
        const cfread_entry *entry = table->entries[slot];
        if (entry != nullptr) values.push_back({{"key", entry->key}, {"value", entry->value}});
    }
    out.print(values, Plain::pair);
    return statusDone;
}

// Those of a file; the daemon does not list its keys.
std::vector<std::string> keyWords(const Arguments &given) {
    std::vector<std::string> words;
    const char *file = given.text("file");
    const Table table = file != nullptr ? openFile(file) : nullptr;
    for (int slot = 0; table && slot < table->size; ++slot) {
        if (table->entries[slot] != nullptr) words.emplace_back(table->entries[slot]->key);
    }
    return words;
}

constexpr Option options[] = {
    {0, "file", "PATH", "read a configuration file and what it includes, not the daemon", fileWords},
};
constexpr Option setOptions[] = {
    {0, "no-commit", nullptr, "leave the change to a later commit"},
    {0, "wait", "SECONDS", "how long to ask again while the daemon is busy (60)"},
};
constexpr Option commitOptions[] = {
    {0, "wait", "SECONDS", "how long to ask again while the daemon is busy (0)"},
};
constexpr Argument keys[] = {{"KEY", Count::many, keyWords}};
constexpr Argument changes[] = {{"KEY=VALUE", Count::many}};

constexpr Verb verbs[] = {
    {"get", "print the values of keys", {}, keys, get},
    {"set", "write values in one request, then commit them", setOptions, changes, set},
    {"commit", "have the daemon put into effect what was written", commitOptions, {}, commit},
    {"list", "print all keys and values of a file", {}, {}, list},
};

}  // namespace

const Command configCommand{"config", "values of the configuration daemon and of configuration files", options, verbs};

}  // namespace tool
