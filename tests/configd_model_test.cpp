// SPDX-License-Identifier: MIT
// Random operations on configuration handles, beside a model that is short enough to be read as their rules.
#include <vxutils/configd.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/call_hooks.h"
#include "support/configd.h"
#include "support/configd_client.h"
#include "support/model.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

VXTEST_HOOK(ssize_t, recvfrom, (int fd, void *data, size_t size, int flags, sockaddr *from, socklen_t *length),
            (fd, data, size, flags, from, length))
VXTEST_THREAD_HOOK(int, poll, (pollfd * waiting, nfds_t count, int timeout), (waiting, count, timeout))

namespace {

using vxtest::ModelSteps;
using vxtest::configd::answerOf;
using vxtest::configd::daemonSocket;
using Log = std::vector<vxtest::LogLine>;
using Values = std::map<std::string, std::string>;

constexpr const char *socketAside = "/var/run/configd/aside.sock";

// What the daemon does wrong with one of the requests of an operation. A daemon that is gone fails them all.
enum class Fault { none, shorter, longer, wrong, empty, twice, late, gone };

struct Plan {
    Fault fault = Fault::none;
    size_t request = 0;  // of the operation, from 0
    bool busy = false;
    bool inRealTime = false;  // a late answer is waited for
};

// The datagram that arrives in the place of the right one.
std::string spoilt(Fault fault, std::string answer) {
    if (fault == Fault::shorter) answer.pop_back();
    if (fault == Fault::longer) answer += 'x';
    if (fault == Fault::wrong) answer[0] = static_cast<char>(answer[0] ^ 1);
    if (fault == Fault::empty) answer.clear();
    return answer;
}

// The configuration daemon, inside the client's process. It works when the client is about to wait for an answer: on a
// busy machine, waking up another process for each request takes most of the time.
class DaemonInside {
public:
    DaemonInside()
        : receiving_(vxtest::hooks::recvfrom, [this](int, void *, size_t, int flags, sockaddr *,
                                                     socklen_t *) { return beforeReceiving(flags); }),
          polling_(vxtest::hooks::poll,
                   [this](pollfd *, nfds_t, int) { return timesOut_ ? std::optional<int>(0) : std::nullopt; }) {
        listen();
    }
    ~DaemonInside() { close(); }

    // Holds for the requests from now on.
    void follow(const Plan &plan) {
        if ((plan.fault == Fault::gone) != (fd_ == -1)) fd_ == -1 ? listen() : close();
        plan_ = plan;
        requests_ = 0;
        timesOut_ = false;
    }

private:
    struct Datagram {
        std::string text;
        sockaddr_un client;
        socklen_t length;
    };

    void listen() {
        const sockaddr_un address = vxtest::configd::addressOf(daemonSocket);
        ::unlink(daemonSocket);
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(::bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    }
    void close() {
        if (fd_ != -1) ::close(fd_);
        fd_ = -1;
    }

    std::optional<ssize_t> beforeReceiving(int flags) {
        if ((flags & MSG_DONTWAIT) != 0) return std::nullopt;  // does not wait, or is the daemon's own call
        while (const auto request = next()) serve(*request);
        if (!timesOut_) return std::nullopt;
        errno = EAGAIN;  // as after the socket's time limit
        return -1;
    }
    std::optional<Datagram> next() const {
        std::array<char, CONFIGD_MSG_LEN> buffer;
        Datagram request{{}, {}, sizeof request.client};
        auto *const from = reinterpret_cast<sockaddr *>(&request.client);
        const ssize_t got = ::recvfrom(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT, from, &request.length);
        if (got < 0) return std::nullopt;
        request.text.assign(buffer.data(), static_cast<size_t>(got));
        return request;
    }
    void serve(const Datagram &request) {
        // Those that are late arrive just before the one that the client waits for now.
        for (const Datagram &late : std::exchange(late_, {})) send(late);
        Datagram answer = request;
        answer.text = answerTo(request.text);
        const Fault fault = requests_++ == plan_.request ? plan_.fault : Fault::none;
        answer.text = spoilt(fault, answer.text);
        if (fault == Fault::late) {
            late_.push_back(answer);
            timesOut_ = !plan_.inRealTime;
            return;
        }
        send(answer);
        if (fault == Fault::twice) send(answer);
    }
    std::string answerTo(const std::string &request) {
        if (request == "Done\n") return plan_.busy ? "Busy" : "Ready";
        const size_t end = request.find('\n');
        if (request[0] == '?') return answerOf(values_[request.substr(1, end - 1)]);
        const size_t equals = request.find('=');
        values_[request.substr(0, equals)] = request.substr(equals + 1, end - equals - 1);
        return request;
    }
    // The client may have left the name.
    void send(const Datagram &answer) const {
        ::sendto(fd_, answer.text.data(), answer.text.size(), MSG_DONTWAIT,
                 reinterpret_cast<const sockaddr *>(&answer.client), answer.length);
    }

    int fd_ = -1;
    Plan plan_;
    size_t requests_ = 0;  // of the operation
    bool timesOut_ = false;
    Values values_;
    std::vector<Datagram> late_;
    vxtest::Hooked<decltype(vxtest::hooks::recvfrom)> receiving_;
    vxtest::Hooked<const std::function<std::optional<int>(pollfd *, nfds_t, int)> *> polling_;
};

// Handles on one daemon. A handle's keys keep their order; their values are read together when the first of them is
// asked for, and stay as they were until the handle is cleared or read again. An operation ends with the first request
// that fails. The answer to an earlier request is never taken for the answer to a later one.
class HandleModel {
public:
    explicit HandleModel(ModelSteps &steps) : steps_(steps) {
        for (Handle &handle : handles_) handle.real = configd_open();
    }
    ~HandleModel() {
        for (Handle &handle : handles_) configd_close(handle.real);
    }

    // What was done, when the handle and its model differ after it; else empty.
    std::string step(const Plan &plan) {
        plan_ = plan;
        requests_ = 0;
        Handle &handle = handles_[steps_.below(handles_.size())];
        const std::string key = "model." + std::to_string(steps_.below(12));
        const bool right = act(handle, key);
        return right && same(handle) ? "" : done_ + " " + key;
    }

    // Another daemon has values of its own.
    void changeDaemon() { std::swap(store_, otherStore_); }

    Log takeLog() { return std::exchange(log_, {}); }

private:
    struct Handle {
        configd_handle *real;
        std::vector<std::string> keys;
        Values values;
        bool fetched = false;
    };

    bool act(Handle &handle, const std::string &key) {
        switch (steps_.below(20)) {
            case 0:
            case 1:
            case 2:
            case 3:
                return add(handle, key);
            case 4:
                return get(handle);
            case 5:
                return getArray(handle, key);
            case 6:
            case 7:
                return set(handle, key);
            case 8:
                return done(handle);
            case 9:
                return clear(handle);
            case 10:
                return steps_.oneIn(10) ? reopen(handle) : clear(handle);
            default:
                return fetch(handle, key);
        }
    }

    // ---- The exchange ----

    void logs(int priority, const std::string &text) { log_.push_back({priority, text}); }

    // Returns false, with the message predicted, if the daemon does not run.
    bool sends() {
        if (plan_.fault == Fault::gone) logs(LOG_ERR, "unable to send query to configd");
        return plan_.fault != Fault::gone;
    }
    // Returns what the client receives instead of the right answer; nothing if it comes too late.
    std::optional<std::string> arriving(const std::string &right) {
        const Fault fault = requests_++ == plan_.request ? plan_.fault : Fault::none;
        return fault == Fault::late ? std::nullopt : std::optional(spoilt(fault, right));
    }
    static int lengthOf(const std::optional<std::string> &arrived) {
        return arrived ? static_cast<int>(arrived->size()) : -1;
    }
    // Two bytes follow a value, whatever they are.
    bool read(const std::string &key, std::string &value) {
        if (!sends()) return false;
        const auto arrived = arriving(answerOf(store_[key]));
        if (lengthOf(arrived) < 2) {
            logs(LOG_ERR, "no response from configd (len " + std::to_string(lengthOf(arrived)) + ")");
            return false;
        }
        value = arrived->substr(0, std::min<size_t>(arrived->size() - 2, CONFIGD_VALUE_LEN - 1)).c_str();
        return true;
    }
    bool readAll(Handle &handle) {
        return std::all_of(handle.keys.begin(), handle.keys.end(),
                           [&](const std::string &key) { return read(key, handle.values[key]); });
    }

    // ---- Operations on both ----

    bool add(Handle &handle, const std::string &key) {
        done_ = "add";
        const bool formatted = steps_.oneIn(2);
        const int result = formatted ? configd_add_query(handle.real, "model.%s", key.c_str() + std::strlen("model."))
                                     : configd_add_query(handle.real, "%s", key.c_str());
        if (handle.values.emplace(key, "").second) handle.keys.push_back(key);
        return result == 0;
    }
    bool get(Handle &handle) {
        done_ = "get";
        return configd_get(handle.real, nullptr) == (readAll(handle) ? 0 : -1);
    }
    bool getArray(Handle &handle, const std::string &key) {
        done_ = "get of an array";
        std::array<configd_entry, 3> entries{};
        std::strcpy(entries[0].key, key.c_str());
        std::strcpy(entries[1].key, "model.0");
        std::array<std::string, 2> values;
        const bool succeeds = read(key, values[0]) && read("model.0", values[1]);
        return configd_get(handle.real, entries.data()) == (succeeds ? 0 : -1) && entries[0].value == values[0] &&
               entries[1].value == values[1];
    }
    bool set(Handle &handle, const std::string &key) {
        done_ = "set";
        std::array<configd_entry, 2> entries{};
        std::strcpy(entries[0].key, key.c_str());
        std::string value = std::to_string(steps_.random()());
        if (steps_.oneIn(20)) value.assign(steps_.below(CONFIGD_VALUE_LEN), 'v');
        std::strcpy(entries[0].value, value.c_str());
        return configd_set(handle.real, entries.data()) == resultOfSet(key, value);
    }
    // The daemon has the value even when the client does not understand its answer.
    int resultOfSet(const std::string &key, const std::string &value) {
        if (!sends()) return -2;
        store_[key] = value;
        const std::string request = key + "=" + value + std::string("\n\0", 2);
        const auto arrived = arriving(request);
        if (lengthOf(arrived) != lengthOf(request)) {
            logs(LOG_ERR, "no response from configd (" + std::to_string(lengthOf(arrived)) +
                              " != " + std::to_string(lengthOf(request)) + ")");
            return -3;
        }
        if (*arrived == request) return 0;
        logs(LOG_ERR, "invalid response from configd");
        return -4;
    }
    bool done(Handle &handle) {
        done_ = "done";
        return configd_done(handle.real) == resultOfDone();
    }
    int resultOfDone() {
        if (!sends()) return -2;
        const auto arrived = arriving(plan_.busy ? "Busy" : "Ready");
        if (arrived == "Ready") return 0;
        if (arrived == "Busy") return 1;
        const bool empty = arrived == "";
        const std::string reason = "invalid response <" + arrived.value_or("") + "> from configd";
        logs(LOG_ERR, empty ? "no response from configd" : reason);
        return empty ? -3 : -4;
    }
    bool fetch(Handle &handle, const std::string &key) {
        done_ = "fetch";
        if (!handle.fetched) handle.fetched = readAll(handle);
        const auto found = handle.values.find(key);
        const bool known = found != handle.values.end();
        if (!handle.fetched) {
            logs(LOG_ERR, "configd_get failed");
        } else if (!known) {
            logs(LOG_DEBUG, "key '" + key + "' not found");
        }
        return configd_fetch(handle.real, "%s", key.c_str()) == (handle.fetched && known ? found->second : "");
    }
    bool clear(Handle &handle) {
        done_ = "clear";
        configd_clear(handle.real);
        handle = {handle.real, {}, {}};
        return true;
    }
    bool reopen(Handle &handle) {
        done_ = "open again";
        configd_close(handle.real);
        handle = {configd_open(), {}, {}};
        return handle.real != nullptr;
    }
    static bool same(const Handle &handle) {
        if (handle.real->count != static_cast<int>(handle.keys.size())) return false;
        if (handle.real->fetched != (handle.fetched ? 1 : 0)) return false;
        auto key = handle.keys.begin();
        const list_link *const head = &handle.real->queries;
        for (const list_link *link = head->next; link != head && link != nullptr; link = link->next, ++key) {
            const auto *entry = reinterpret_cast<const configd_entry *>(link);
            if (key == handle.keys.end() || *key != entry->key || handle.values.at(*key) != entry->value) return false;
        }
        return key == handle.keys.end();
    }

    ModelSteps &steps_;
    std::array<Handle, 3> handles_{};
    Values store_;
    Values otherStore_;
    Plan plan_;
    size_t requests_ = 0;  // of the operation
    Log log_;
    std::string done_;
};

// An honest daemon to begin with, then one that makes mistakes, in the end also one that repeats answers: a client that
// has seen an answer twice never uses a socket's name twice from then on. One step in a hundred asks a daemon in a
// process of its own.
class Course {
public:
    explicit Course(ModelSteps &steps) : steps_(steps), faulty_(steps.left() / 5), repeating_(steps.left() / 50) {}

    bool asksOtherProcess() const { return steps_.left() % 20000 < 200 && steps_.left() > faulty_; }

    Plan next() {
        Plan plan;
        plan.busy = !asksOtherProcess() && steps_.oneIn(4);
        const bool repeats = steps_.left() <= repeating_;
        if (steps_.left() > faulty_ || !steps_.oneIn(repeats ? 3 : 10)) return plan;
        constexpr std::array faults{Fault::shorter, Fault::longer, Fault::wrong,
                                    Fault::empty,   Fault::late,   Fault::gone};
        plan.fault = repeats && steps_.oneIn(2) ? Fault::twice : faults[steps_.below(faults.size())];
        plan.request = steps_.below(3);
        plan.inRealTime = steps_.oneIn(10000);
        return plan;
    }

private:
    ModelSteps &steps_;
    const long faulty_;
    const long repeating_;
};

// Gives the socket's name to the daemon of this process or to that of the other one.
void exchangeSockets() {
    const std::string third = std::string(daemonSocket) + ".other";
    std::filesystem::rename(daemonSocket, third);
    std::filesystem::rename(socketAside, daemonSocket);
    std::filesystem::rename(third, socketAside);
}

void agreeOverRandomOperations(vxtest::SyslogCapture &log) {
    ModelSteps steps("configuration handles", 30000);
    Course course(steps);
    DaemonInside inside;
    HandleModel model(steps);
    bool atProcess = false;
    while (steps.next()) {
        if (course.asksOtherProcess() != atProcess) {
            exchangeSockets();
            model.changeDaemon();
            atProcess = !atProcess;
        }
        const Plan plan = course.next();
        inside.follow(plan);
        ASSERT_EQ(model.step(plan), "") << steps.left() << " steps were left";
        if (steps.left() % 1000 == 0) ASSERT_EQ(log.take(), model.takeLog()) << steps.left() << " steps were left";
    }
}

TEST(ConfigdModel, AgreesOverRandomOperations) {
    std::filesystem::create_directories("/var/run/configd");
    vxtest::Configd process;
    std::filesystem::rename(daemonSocket, socketAside);
    vxtest::SyslogCapture log;
    ::openlog("configd_model_test", LOG_NDELAY, LOG_USER);  // no further descriptor when something is logged
    const auto before = vxtest::openDescriptors();
    agreeOverRandomOperations(log);
    EXPECT_EQ(vxtest::configd::socketFiles(), 0U);
    EXPECT_EQ(vxtest::openDescriptors(), before);
    ::closelog();
}

}  // namespace
