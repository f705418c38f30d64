// SPDX-License-Identifier: MIT
// Kill storms: processes that use the library are killed at random instants, and what they leave is looked at.
//
//   storms [--rounds N] [--seed S] [NAME...]      default: 10000 rounds of every storm, the day as seed
//
// One line for each storm: "NAME: N rounds, N kills, what was seen, N findings". Exit status 1 when there are findings.
// scripts/torture --kill runs it; the suite runs a sample.
#include <fcntl.h>
#include <poll.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/command.h>
#include <vxutils/configd.h>
#include <vxutils/csemaphore.h>
#include <vxutils/file.h>
#include <vxutils/lock.h>
#include <vxutils/qxlog.h>
#include <vxutils/statusinterface.h>
#include <vxutils/strutil.h>
#include <vxutils/vxstring.h>
#include <vxutils/wwanmd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/files.h"
#include "support/process.h"

// Inside calls of the library that talk to a peer, time-outs and pauses are short: a peer that was killed or stopped
// does not answer, however long a client waits.
namespace {

thread_local bool impatient = false;
constexpr int patience_ms = 20;

struct Impatience {
    Impatience() { impatient = true; }
    ~Impatience() { impatient = false; }
    Impatience(const Impatience &) = delete;
    Impatience &operator=(const Impatience &) = delete;
};

}  // namespace

extern "C" int poll(pollfd *waiting, nfds_t count, int timeout_ms) {
    const int cut = impatient && (timeout_ms < 0 || timeout_ms > patience_ms) ? patience_ms : timeout_ms;
    timespec limit{};
    limit.tv_nsec = static_cast<long>(cut % 1000) * 1000000;
    limit.tv_sec = cut / 1000;
    return ::ppoll(waiting, count, cut < 0 ? nullptr : &limit, nullptr);
}

extern "C" int clock_nanosleep(clockid_t clock, int flags, const timespec *request, timespec *left) {
    if (impatient) return 0;
    return ::syscall(SYS_clock_nanosleep, clock, flags, request, left) == 0 ? 0 : errno;
}

extern "C" int setsockopt(int fd, int level, int option, const void *value, socklen_t length) noexcept {
    constexpr timeval brief{0, patience_ms * 1000};
    if (level == SOL_SOCKET && option == SO_RCVTIMEO) value = &brief;
    return static_cast<int>(::syscall(SYS_setsockopt, fd, level, option, value, length));
}

namespace {

using namespace std::chrono_literals;

std::mt19937 randomness;

unsigned int randomBelow(unsigned int limit) {
    return std::uniform_int_distribution<unsigned int>(0, limit - 1)(randomness);
}

// ---- the frame of all storms ----

class Report {
public:
    explicit Report(std::string name) : name_(std::move(name)) {}

    void round() { ++rounds_; }
    void kill() { ++kills_; }
    void saw(const std::string &what, size_t times = 1) { seen_[what] += times; }
    void finding(const std::string &what) {
        ++findings_;
        if (findings_ <= 5) std::printf("%s: round %zu: %s\n", name_.c_str(), rounds_, what.c_str());
    }
    void expect(bool holds, const std::string &what) {
        if (!holds) finding(what);
    }

    size_t finish() const {
        std::printf("%s: %zu rounds, %zu kills", name_.c_str(), rounds_, kills_);
        for (const auto &[what, count] : seen_) std::printf(", %zu %s", count, what.c_str());
        std::printf(", %zu findings\n", findings_);
        (void)std::fflush(stdout);
        return findings_;
    }

private:
    std::string name_;
    size_t rounds_ = 0;
    size_t kills_ = 0;
    size_t findings_ = 0;
    std::map<std::string, size_t> seen_;
};

// Memory that the processes of a storm share.
template <typename T>
T &shared() {
    void *memory = ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) std::abort();
    return *new (memory) T;
}

// A process that does its work again and again until it is killed.
class Victim {
public:
    template <typename Work>
    explicit Victim(Work work) {
        (void)std::fflush(stdout);
        pid_ = ::fork();
        if (pid_ != 0) return;
        for (;;) work();
    }
    ~Victim() { kill(); }
    Victim(Victim &&other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
    Victim &operator=(Victim &&other) noexcept {
        kill();
        pid_ = std::exchange(other.pid_, -1);
        return *this;
    }
    Victim(const Victim &) = delete;
    Victim &operator=(const Victim &) = delete;

    pid_t pid() const { return pid_; }
    void kill() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
};

// The instant of a kill: from before the first step of the work to a few repetitions later.
void waitForTheInstant(unsigned int most_us) { ::usleep(randomBelow(most_us)); }

bool within(std::chrono::milliseconds limit, const std::function<bool()> &condition) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        ::usleep(200);
    }
    return true;
}

// ---- files ----

const std::string place = "/tmp/storm/";

// A record that proves itself whole: "NUMBER:xxxx...:NUMBER\n".
std::string record(unsigned int number) {
    const std::string name = std::to_string(number);
    return name + ":" + vxtest::repeated(1 + number * 37 % 9000, 'x') + ":" + name + "\n";
}

bool isWhole(const std::string &text) {
    unsigned int number = 0;
    return std::sscanf(text.c_str(), "%u:", &number) == 1 && text == record(number);
}

bool isPrefixOfRecord(const std::string &text) {
    unsigned int number = 0;
    if (text.find(':') == std::string::npos) return text.size() < 12;
    return std::sscanf(text.c_str(), "%u:", &number) == 1 && record(number).rfind(text, 0) == 0;
}

std::vector<std::string> filesLike(const std::string &prefix) {
    std::vector<std::string> found;
    for (const auto &entry : std::filesystem::directory_iterator(place)) {
        if (entry.path().filename().string().rfind(prefix, 0) == 0) found.push_back(entry.path());
    }
    return found;
}

// Readers see a whole record, the old or the new one. A killed writer leaves at most one temporary file, whose name and
// content are as documented.
void atomicWriter(Report &report, size_t rounds) {
    const std::string path = place + "value";
    vxtest::writeFile(path, record(0));
    for (size_t i = 0; i < rounds; ++i) {
        report.round();
        unsigned int number = randomBelow(1000000);
        Victim writer([&] {
            const std::string text = record(++number);
            (void)write_file_atomic(path.c_str(), text.data(), text.size(), 0, 0);
        });
        waitForTheInstant(600);
        report.expect(isWhole(vxtest::readFile(path)), "a reader sees a torn record");
        writer.kill();
        report.kill();
        report.expect(isWhole(vxtest::readFile(path)), "the file holds a torn record");
        const std::vector<std::string> left = filesLike("value_");
        report.expect(left.size() <= 1, "more than one temporary file is left");
        for (const std::string &file : left) {
            report.saw("temporary files left");
            report.expect(file.size() == path.size() + 7, "a temporary file has another name: " + file);
            report.expect(isPrefixOfRecord(vxtest::readFile(file)), "a temporary file holds something else");
            ::unlink(file.c_str());
        }
    }
}

// A copy that is cut short is a part of the source from its beginning: documented, copy_file() is not atomic.
void copier(Report &report, size_t rounds) {
    const std::string source = place + "source";
    const std::string target = place + "made/copy";
    vxtest::writeFile(source, record(777));
    for (size_t i = 0; i < rounds; ++i) {
        report.round();
        Victim worker([&] { (void)copy_file(source.c_str(), target.c_str()); });
        waitForTheInstant(400);
        worker.kill();
        report.kill();
        const std::string copy = vxtest::readFile(target);
        report.expect(record(777).rfind(copy, 0) == 0, "the copy is not a part of the source");
        if (copy != record(777)) report.saw("partial copies");
        report.expect(copy_file(source.c_str(), target.c_str()) == 0 && vxtest::readFile(target) == record(777),
                      "the next copy fails");
        if (randomBelow(4) == 0) std::filesystem::remove_all(place + "made");
    }
}

// Whole lines only; the next writer gets in although the semaphore's holder is dead.
void deviceLog(Report &report, size_t rounds) {
    (void)qxlog_clear();
    for (size_t i = 0; i < rounds; ++i) {
        report.round();
        Victim writer([] { (void)qxlog(7, "a message"); });
        Victim second([] { (void)qxlog(7, "a message"); });
        waitForTheInstant(1500);
        writer.kill();
        second.kill();
        report.kill();
        const std::string content = vxtest::readFile("/var/log/qxlog");
        report.expect(content.empty() || content.back() == '\n', "the log ends within a line");
        std::istringstream lines(content);
        for (std::string line; std::getline(lines, line);) {
            const bool whole = (line.rfind("7: ", 0) == 0 || line.rfind("8: ", 0) == 0) && line.size() == 29 &&
                               line.substr(20) == "a message";
            report.expect(whole, "a torn line: " + line);
        }
        report.expect(qxlog(8, "a message") == 0, "the next writer fails");
        if (randomBelow(20) == 0) (void)qxlog_clear();
    }
    report.expect(!vxtest::exists("/var/log/qxlog.tmp"), "the temporary file is left after a good write");
}

// ---- locks ----

struct Arena {
    std::atomic<pid_t> inside{0};
    std::atomic<pid_t> killed{0};  // the last ones, for the case that they were inside
    std::atomic<size_t> entries{0};
    std::atomic<size_t> told{0};  // entries that were told of a dead owner
    std::atomic<size_t> violations{0};
    std::atomic<size_t> untold{0};
};

// Enters, stays a moment and leaves; `ownerDied` is what the lock said.
void visit(Arena &arena, bool ownerDied, bool tells) {
    const pid_t self = ::getpid();
    const pid_t other = arena.inside.exchange(self);
    if (other != 0 && other != arena.killed) ++arena.violations;
    if (other != 0 && other == arena.killed && tells && !ownerDied) ++arena.untold;
    if (ownerDied) ++arena.told;
    ++arena.entries;
    // Long enough to be met here by many kills.
    const auto end = std::chrono::steady_clock::now() + 200us;
    while (std::chrono::steady_clock::now() < end) {
        if (arena.inside.load() != self) ++arena.violations;
    }
    arena.inside = 0;
}

// Three processes take turns; one after the other is killed. The others get in, and never two at once.
void contend(Report &report, size_t rounds, const std::function<void(Arena &)> &work, bool tells) {
    Arena &arena = shared<Arena>();
    const auto start = [&] { return Victim([&] { work(arena); }); };
    std::vector<Victim> workers;
    for (int i = 0; i < 3; ++i) workers.push_back(start());
    for (size_t i = 0; i < rounds; ++i) {
        report.round();
        waitForTheInstant(500);
        Victim &victim = workers[randomBelow(3)];
        // Stopped first, so that the lock is not passed on between this look and the kill.
        ::kill(victim.pid(), SIGSTOP);
        int status = 0;
        ::waitpid(victim.pid(), &status, WUNTRACED);
        if (arena.inside == victim.pid()) report.saw("killed inside");
        arena.killed = victim.pid();
        victim.kill();
        report.kill();
        const size_t before = arena.entries;
        if (!within(20s, [&] { return arena.entries > before; })) {
            report.finding("nothing gets in any more");
            break;
        }
        victim = start();
    }
    // The last kills, of all workers, are not announced: what happens from here on does not count.
    const size_t violations = arena.violations;
    const size_t untold = arena.untold;
    workers.clear();
    report.expect(violations == 0, std::to_string(violations) + " times two holders at once");
    report.expect(untold == 0, std::to_string(untold) + " times the next holder was not told");
    if (tells) report.saw("entries told of a dead owner", arena.told);
}

void firewallLocks(Report &report, size_t rounds) {
    contend(
        report, rounds,
        [](Arena &arena) {
            firewall_lock_handle *lock = firewall_lock();
            if (lock != nullptr) visit(arena, false, false);
            (void)firewall_unlock(lock);
        },
        false);
}

void systemVLocks(Report &report, size_t rounds) {
    vxtest::writeFile(place + "key", "");
    CSemaphore maker(place + "key", 7);
    (void)maker.init();
    contend(
        report, rounds,
        [](Arena &arena) {
            static CSemaphore lock(place + "key", 7);
            static const int made = lock.init();
            if (made == 0 && lock.lock() == 0) {
                visit(arena, false, false);
                (void)lock.unlock();
            }
        },
        false);
}

void sharedLocks(Report &report, size_t rounds) {
    ::shm_unlink("/storm");
    contend(
        report, rounds,
        [](Arena &arena) {
            // Made anew each time, so that makers and openers are killed as well.
            CRecursiveSemaphore lock("/storm");
            const int result = lock.lock();
            if (result != 0 && result != EOWNERDEAD) return;
            visit(arena, result == EOWNERDEAD, true);
            (void)lock.unlock();
        },
        true);
    ::shm_unlink("/storm");
}

// The first maker of a lock is killed; the next one finds something that can be used.
void makers(Report &report, size_t rounds) {
    for (size_t i = 0; i < rounds; ++i) {
        report.round();
        ::shm_unlink("/storm-made");
        Victim maker([] { CRecursiveSemaphore("/storm-made").lock(); });
        waitForTheInstant(400);
        maker.kill();
        report.kill();
        // In a child: a lock that cannot be had would hang.
        Victim next([] {
            CRecursiveSemaphore lock("/storm-made");
            const int result = lock.lock();
            ::_exit(result == 0 ? 0 : result == EOWNERDEAD ? 1 : 2);
        });
        int status = 0;
        const bool ended = within(20s, [&] { return ::waitpid(next.pid(), &status, WNOHANG) == next.pid(); });
        report.expect(ended, "the next maker hangs");
        if (!ended) break;
        report.expect(WIFEXITED(status) && WEXITSTATUS(status) <= 1, "the next maker cannot lock");
        if (WEXITSTATUS(status) == 1) report.saw("dead owners told");
    }
    ::shm_unlink("/storm-made");
}

void systemVMakers(Report &report, size_t rounds) {
    const std::string path = place + "made-key";
    vxtest::writeFile(path, "");
    for (size_t i = 0; i < rounds; ++i) {
        report.round();
        const int set = ::semget(::ftok(path.c_str(), 7), 1, 0);
        if (set != -1) ::semctl(set, 0, IPC_RMID);
        Victim maker([&] {
            CSemaphore lock(path, 7);
            (void)lock.init();
            ::pause();
        });
        waitForTheInstant(200);
        maker.kill();
        report.kill();
        Victim next([&] {
            CSemaphore lock(path, 7);
            ::_exit(lock.init() == 0 && lock.lock() == 0 ? 0 : 2);
        });
        int status = 0;
        const bool ended = within(5s, [&] { return ::waitpid(next.pid(), &status, WNOHANG) == next.pid(); });
        report.expect(ended, "the next user hangs: the set was made and not initialised");
        if (ended) report.expect(WIFEXITED(status) && WEXITSTATUS(status) == 0, "the next user cannot lock");
    }
}

// A dead holder's directory stays, documented: nothing gets in until it is removed, and never two at once.
void directoryLocks(Report &report, size_t rounds) {
    const std::string path = place + "lock";
    for (size_t i = 0; i < rounds; ++i) {
        report.round();
        Victim holder([&] {
            if (acquire_lock(path.c_str(), 1) == 0) (void)release_lock(path.c_str());
        });
        waitForTheInstant(300);
        holder.kill();
        report.kill();
        const bool held = vxtest::exists(path);
        if (held) report.saw("directories left");
        if (held) report.expect(release_lock(path.c_str()) == 0, "the directory cannot be removed");
        report.expect(acquire_lock(path.c_str(), 1) == 0, "a free lock cannot be had");
        report.expect(::mkdir(path.c_str(), 0755) == -1 && errno == EEXIST, "the lock keeps no second holder out");
        (void)release_lock(path.c_str());
    }
}

// ---- peers ----

// Does something to a process at a random instant, while this process waits for it.
class Assassin {
public:
    Assassin(pid_t victim, unsigned int most_us) {
        const unsigned int delay_us = randomBelow(most_us);
        how_ = randomBelow(3);
        pid_ = ::fork();
        if (pid_ != 0) return;
        ::usleep(delay_us);
        if (how_ == 0) {
            ::kill(victim, SIGKILL);
        } else {
            ::kill(victim, SIGSTOP);
            if (how_ == 2) ::usleep(20000);
            ::kill(victim, SIGCONT);
        }
        ::_exit(0);
    }
    ~Assassin() {
        if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
    }
    Assassin(const Assassin &) = delete;
    Assassin &operator=(const Assassin &) = delete;

    bool kills() const { return how_ == 0; }
    bool isDone() {
        if (pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == pid_) pid_ = -1;
        return pid_ <= 0;
    }

private:
    pid_t pid_;
    unsigned int how_;
};

class Daemon {
public:
    Daemon(std::vector<std::string> command) : command_(std::move(command)) { start(); }

    pid_t pid() const { return process_->pid(); }
    void restart() {
        process_.reset();
        start();
    }
    // Waits until it has taken what was sent before.
    void sync(const std::string &line, const std::string &answer) {
        process_->send(line + "\n");
        while (process_->readLine() != answer) continue;
    }

private:
    void start() {
        process_ = std::make_unique<vxtest::Process>(command_);
        while (process_->readLine() != "ready") continue;
    }

    std::vector<std::string> command_;
    std::unique_ptr<vxtest::Process> process_;
};

// Right values or the documented failure; once the daemon is there again, right values.
void configurationDaemon(Report &report, size_t rounds) {
    vxtest::makeDirs("/var/run/configd");
    Daemon daemon({vxtest::built("gateway/configd"), "a.key=first", "another.key=second"});
    configd_handle *handle = configd_open();
    configd_entry change[2]{};
    strlcpy(change[0].key, "changed.key", sizeof change[0].key);
    size_t changeCount = 0;
    for (size_t i = 0; i < rounds; ++i) {
        report.round();
        bool killed = false;
        bool changed = false;  // the daemon has confirmed the last change
        {
            Assassin assassin(daemon.pid(), 1000);
            killed = assassin.kills();
            const Impatience impatience;
            for (unsigned int exchange = 0; !assassin.isDone(); ++exchange) {
                configd_entry entry[2]{};
                const bool first = exchange % 2 == 0;
                strlcpy(entry[0].key, first ? "a.key" : "another.key", sizeof entry[0].key);
                const bool changes = exchange % 3 == 2;
                if (changes) {
                    const std::string value = std::to_string(++changeCount);
                    strlcpy(change[0].value, value.c_str(), sizeof change[0].value);
                }
                const int result = changes ? configd_set(handle, change) : configd_get(handle, entry);
                report.saw(result == 0 ? "exchanges" : "failed exchanges");
                if (changes) changed = result == 0;
                if (!changes && result == 0) {
                    report.expect(std::string(entry[0].value) == (first ? "first" : "second"),
                                  std::string("a wrong value: ") + entry[0].value);
                }
                report.expect(result <= 0 && result >= -4, "another result than documented");
            }
        }
        if (killed) {
            report.kill();
            daemon.restart();
        }
        daemon.sync("requests", "ok requests");
        configd_entry entry[2]{};
        strlcpy(entry[0].key, "another.key", sizeof entry[0].key);
        report.expect(configd_get(handle, entry) == 0 && std::string(entry[0].value) == "second",
                      std::string("the daemon is there and the value is ") + entry[0].value);
        if (killed || !changed) continue;
        report.saw("changes read back");
        entry[0] = {};
        strlcpy(entry[0].key, "changed.key", sizeof entry[0].key);
        report.expect(configd_get(handle, entry) == 0 && std::strcmp(entry[0].value, change[0].value) == 0,
                      std::string("a confirmed change is lost: ") + entry[0].value);
    }
    configd_close(handle);
    report.expect(!vxtest::exists("/var/run/configd/client." + std::to_string(::getpid())), "a socket is left");
}

// Each answer is that to its own command, however late others come.
void modemDaemon(Report &report, size_t rounds) {
    Daemon daemon({vxtest::built("gateway/wwanmd"), "0"});
    daemon.sync("echo", "done");
    wwanmd_handle *handle = wwanmd_init(0, "storm");
    if (handle == nullptr) {
        report.finding("no connection");
        return;
    }
    size_t number = 0;
    const auto command = [&] {
        wwanmd_msg message{};
        const std::string text = "status " + std::to_string(++number);
        std::strcpy(message.data, text.c_str());
        message.len = static_cast<int>(text.size());
        const Impatience impatience;
        const int result = wwanmd_command(handle, &message);
        if (result == 0) report.expect(" " + text == message.data, "the answer to " + text + " is" + message.data);
        return result;
    };
    for (size_t i = 0; i < rounds; ++i) {
        report.round();
        bool killed = false;
        {
            Assassin assassin(daemon.pid(), 4000);
            killed = assassin.kills();
            while (!assassin.isDone()) {
                const int result = command();
                report.saw(result == 0 ? "commands" : "failed commands");
                report.expect(result == 0 || result == -1, "another result than documented");
            }
        }
        if (killed) {
            report.kill();
            daemon.restart();
        }
        daemon.sync("echo", "done");
        // The connection to a daemon that ended is noticed with the first command, and made anew within four failures.
        int tries = 0;
        while (command() != 0 && ++tries < 6) continue;
        report.expect(tries < 6, "the daemon is there and no command succeeds");
    }
    wwanmd_free(handle);
}

// ---- daemons ----

// A status is the old or the new text, or a part of it: documented, setStatus() truncates and writes.
void statusDaemons(Report &report, size_t rounds) {
    vxtest::makeDirs("/tmp/status");
    const String name("/state");
    const String text("a status of some length");
    for (size_t i = 0; i < rounds; ++i) {
        report.round();
        Victim daemon([&] {
            StatusInterface status;
            (void)status.setup(BASEPATH_STATUS, String("/storm"));
            (void)status.setStatus(name, text);
            (void)status.setLink(String("/link"), name);
        });
        waitForTheInstant(500);
        daemon.kill();
        report.kill();
        const std::string state = vxtest::readFile("/tmp/status/storm/state");
        report.expect(std::string(text.c_str()).rfind(state, 0) == 0, "another text: " + state);
        if (state.empty()) report.saw("empty states");
        StatusInterface next;
        String read;
        report.expect(next.setup(BASEPATH_STATUS, String("/storm")) && next.setStatus(name, text) &&
                          next.getStatus(name, read) && read == text && next.setLink(String("/link"), name),
                      "the next daemon cannot publish");
        if (randomBelow(3) == 0) std::filesystem::remove_all("/tmp/status/storm");
    }
}

// Kills the process that starts a program in the background; the next process can start one.
void backgroundStarts(Report &report, size_t rounds) {
    for (size_t i = 0; i < rounds; ++i) {
        report.round();
        Victim starter([] { (void)_exec_command(1, "/bin/true", "true", static_cast<const char *>(nullptr)); });
        waitForTheInstant(1500);
        starter.kill();
        report.kill();
        const int pid = _exec_command(1, "/bin/true", "true", static_cast<const char *>(nullptr));
        report.expect(pid > 0, "the next program cannot be started");
        if (pid > 0) continue;
        const int segment = ::shmget(::ftok(".", 52), 0, 0);
        if (segment != -1) ::shmctl(segment, IPC_RMID, nullptr);
    }
}

struct Storm {
    const char *name;
    void (*run)(Report &report, size_t rounds);
};
constexpr Storm storms[] = {
    {"atomic-writer", atomicWriter},
    {"copier", copier},
    {"device-log", deviceLog},
    {"directory-lock", directoryLocks},
    {"firewall-lock", firewallLocks},
    {"system-v-lock", systemVLocks},
    {"system-v-maker", systemVMakers},
    {"shared-lock", sharedLocks},
    {"shared-lock-maker", makers},
    {"configd", configurationDaemon},
    {"wwanmd", modemDaemon},
    {"status-daemon", statusDaemons},
    {"background-start", backgroundStarts},
};

}  // namespace

int main(int argc, char **argv) {
    if (std::getenv("VXBOX") == nullptr) {
        std::fputs("run this inside a box: scripts/torture --kill\n", stderr);
        return 2;
    }
    size_t rounds = 10000;
    auto seed = static_cast<unsigned int>(std::time(nullptr) / (24 * 60 * 60));
    std::vector<std::string> names;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--rounds" && i + 1 < argc) {
            rounds = std::stoul(argv[++i]);
        } else if (word == "--seed" && i + 1 < argc) {
            seed = static_cast<unsigned int>(std::stoul(argv[++i]));
        } else {
            names.push_back(word);
        }
    }
    std::printf("storms: seed %u\n", seed);
    vxtest::makeDirs(place);
    vxtest::makeDirs("/var/lock");
    vxtest::writeFile("/etc/fstab", "");
    vxtest::writeFile("/usr/lib/libvxutils.so.1.0.0", "");
    for (const std::string &name : names) {
        const auto isNamed = [&](const Storm &storm) { return name == storm.name; };
        if (std::any_of(std::begin(storms), std::end(storms), isNamed)) continue;
        std::fprintf(stderr, "storms: unknown storm '%s'\n", name.c_str());
        return 2;
    }
    size_t findings = 0;
    for (const Storm &storm : storms) {
        if (!names.empty() && std::find(names.begin(), names.end(), storm.name) == names.end()) continue;
        randomness.seed(seed);
        Report report(storm.name);
        storm.run(report, rounds);
        findings += report.finish();
    }
    return findings == 0 ? 0 : 1;
}
