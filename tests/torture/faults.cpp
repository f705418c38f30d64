// SPDX-License-Identifier: MIT
#include "torture/faults.h"

#include <dirent.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <sstream>
#include <system_error>

#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

// The sanitizer's own; its headers come with another compiler.
extern "C" size_t __sanitizer_get_current_allocated_bytes();
extern "C" void __sanitizer_print_stack_trace();
extern "C" int __lsan_do_recoverable_leak_check();

namespace torture {
namespace {

constexpr int hangLimit_s = 60;  // without progress; a whole scenario takes well below one second
constexpr auto busy = 10s;       // real time that a busy machine may take for a library call, beside its waits

thread_local int armedDepth = 0;

// What the interposed functions read and write, in memory that forked children share.
struct State {
    static constexpr size_t mostPoints = 20000;

    Fault fault;
    bool recording = false;
    bool showStack = false;
    bool hit = false;                          // during the last library call
    bool fired = false;                        // in this run
    std::array<const char *, 64> failedCalls;  // during the last library call, each once
    std::atomic<size_t> failedCount = 0;
    std::array<int, 64> errors;  // with which they failed, each once
    std::atomic<size_t> errorCount = 0;
    bool removalFailed = false;  // a call that removes a file, or sees it, failed in this run
    std::atomic<size_t> processes = 0;
    std::atomic<size_t> pointCount = 0;
    std::array<Point, mostPoints> points;
};

State &state() {
    static State &only =
        *new (::mmap(nullptr, sizeof(State), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) State;
    return only;
}

// This process's own part: 0 is the scenario itself, 1 the first child that the library forks.
size_t process = 0;
size_t callsMade = 0;
std::chrono::nanoseconds ahead{};
std::vector<const char *> excluded;

vxtest::SyslogCapture &systemLog() {
    static vxtest::SyslogCapture capture;
    return capture;
}

std::string errorName(int error) {
    if (error == shortTransfer) return "short";
    const char *name = ::strerrorname_np(error);
    return name != nullptr ? name : std::to_string(error);
}

// What is below a directory, of its own file system.
void listFiles(const std::string &directory, dev_t device, std::vector<std::string> &found) {
    DIR *open = ::opendir((directory + "/").c_str());
    if (open == nullptr) return;
    while (const dirent *entry = ::readdir(open)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        const std::string path = directory + "/" + name;
        struct stat status {};
        if (::lstat(path.c_str(), &status) == -1 || status.st_dev != device) continue;
        found.push_back("file " + path);
        if (S_ISDIR(status.st_mode)) listFiles(path, device, found);
    }
    ::closedir(open);
}

// All files of the box that a program makes: those of the system, below /usr and /etc, are on other file systems.
void listFiles(std::vector<std::string> &found) {
    for (const char *root : {"", "/tmp", "/run", "/dev/shm"}) {
        struct stat status {};
        if (::stat((std::string(root) + "/").c_str(), &status) == 0) listFiles(root, status.st_dev, found);
    }
}

// Child processes as "child NUMBER NAME STATE".
void listChildren(std::vector<std::string> &found) {
    DIR *open = ::opendir("/proc");
    if (open == nullptr) return;
    const std::string self = std::to_string(::getpid());
    while (const dirent *entry = ::readdir(open)) {
        const std::string text = vxtest::readFile("/proc/" + std::string(entry->d_name) + "/stat");
        const size_t close = text.rfind(')');
        if (close == std::string::npos) continue;
        std::istringstream rest(text.substr(close + 1));
        std::string status;
        std::string parent;
        rest >> status >> parent;
        if (parent == self) found.push_back("child " + text.substr(0, close + 1) + (status == "Z" ? " zombie" : ""));
    }
    ::closedir(open);
}

void listThreads(std::vector<std::string> &found) {
    DIR *open = ::opendir("/proc/self/task");
    if (open == nullptr) return;
    while (const dirent *entry = ::readdir(open)) found.push_back(std::string("thread ") + entry->d_name);
    ::closedir(open);
}

// Files, shared memory and System V segments in the address space, each as often as it is there: a file that is left
// mapped by every failure is more each time. Libraries that are loaded once stay.
void listMappings(std::vector<std::string> &found) {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        const size_t path = line.find('/');
        if (path == std::string::npos || line.find(".so") != std::string::npos) continue;
        found.push_back("mapping " + line.substr(path));
    }
}

void listSystemV(const char *kind, std::vector<std::string> &found) {
    std::ifstream table(std::string("/proc/sysvipc/") + kind);
    std::string line;
    std::getline(table, line);
    while (std::getline(table, line)) {
        std::istringstream words(line);
        std::string key;
        std::string number;
        words >> key >> number;
        found.push_back(std::string("System V ") + kind + " " + number);
    }
}

void listProcessState(std::vector<std::string> &found) {
    struct sigaction action {};
    ::sigaction(SIGPIPE, nullptr, &action);
    found.emplace_back(action.sa_handler == SIG_DFL ? "SIGPIPE default" : "SIGPIPE changed");
    sigset_t mask;
    ::sigprocmask(SIG_BLOCK, nullptr, &mask);
    for (int number = 1; number < 32; ++number) {
        if (::sigismember(&mask, number) == 1) found.push_back("blocked signal " + std::to_string(number));
    }
    const mode_t umask = ::umask(022);
    ::umask(umask);
    found.push_back("file mode mask " + std::to_string(umask));
    std::array<char, 4096> directory{};
    found.push_back(std::string("directory ") + ::getcwd(directory.data(), directory.size()));
}

// Everything that a call could leave, except memory.
std::vector<std::string> inventory() {
    ::closelog();
    std::vector<std::string> found;
    for (const std::string &descriptor : vxtest::openDescriptors()) found.push_back("descriptor " + descriptor);
    listFiles(found);
    listChildren(found);
    listThreads(found);
    listMappings(found);
    listSystemV("sem", found);
    listSystemV("shm", found);
    listSystemV("msg", found);
    listProcessState(found);
    std::sort(found.begin(), found.end());
    return found;
}

// What the parent process sees of a worker, also when the worker has crashed.
struct Progress {
    size_t next = 0;  // the fault that comes next, in the plan's order
    size_t planned = 0;
    size_t calls = 0;
    size_t steps = 0;  // changes as long as the worker lives
    size_t done = 0;
    size_t missed = 0;  // faults whose call was not reached
    size_t findings = 0;
    char current[128] = "";
};

class Worker {
public:
    Worker(const Scenario &scenario, Progress &progress) : scenario_(scenario), progress_(progress) {}

    // Counts the calls; the plan is all their faults.
    std::vector<Fault> plan() {
        (void)systemLog();
        for (int i = 0; i < 3; ++i) undisturbed("the scenario fails without any fault");
        state().recording = true;
        undisturbed("the scenario fails without any fault");
        state().recording = false;
        const size_t count = std::min<size_t>(state().pointCount, State::mostPoints);
        points_.assign(state().points.begin(), state().points.begin() + static_cast<std::ptrdiff_t>(count));
        std::sort(points_.begin(), points_.end(), [](const Point &a, const Point &b) { return a.number < b.number; });
        progress_.calls = points_.size();
        std::vector<Fault> faults;
        for (const Point &point : points_) {
            for (size_t i = 0; i < point.errorCount; ++i) faults.push_back({point.number, point.errors[i], false});
        }
        for (const Point &point : points_) faults.push_back({point.number, point.errors[0], true});
        return faults;
    }

    void inject(const Fault &fault) {
        describe(fault);
        const std::vector<std::string> first = disturbed(fault, false);
        if (!first.empty()) {
            // What grows once is a buffer of the C library; what grows each time is a leak.
            const std::vector<std::string> second = disturbed(fault, true);
            for (const std::string &text : first) {
                const std::string kind = kindOf(text);
                const auto same = [&](const std::string &other) { return kindOf(other) == kind; };
                if (mayGrowOnce(kind) && std::none_of(second.begin(), second.end(), same)) continue;
                report(text);
            }
        }
        ++progress_.done;
        undisturbed("the scenario fails afterwards");
    }

    void describe(const Fault &fault) {
        (void)std::snprintf(progress_.current, sizeof progress_.current, "%zu:%s:%s%s", fault.call, callOf(fault),
                            errorName(fault.error).c_str(), fault.persistent ? ":from" : "");
    }

private:
    // "left: descriptor" of "left: descriptor 7 -> /dev/null".
    static std::string kindOf(const std::string &text) {
        const size_t first = text.find(' ');
        return text.rfind("left: ", 0) == 0 ? text.substr(0, text.find(' ', first + 1)) : text;
    }
    static bool mayGrowOnce(const std::string &kind) {
        return kind == leakText || kind == "left: descriptor" || kind == "left: mapping";
    }

    const char *callOf(const Fault &fault) const {
        for (const Point &point : points_) {
            if (point.number == fault.call) return point.call;
        }
        return "?";
    }

    static constexpr const char *leakText = "memory is not freed";

    std::vector<std::string> disturbed(const Fault &fault, bool again) {
        ++progress_.steps;
        std::vector<std::string> findings;
        const std::vector<std::string> before = inventory();
        const size_t bytes = __sanitizer_get_current_allocated_bytes();
        bool reached = false;
        {
            Run run(fault, scenario_.excluded);
            scenario_.run(run);
            reached = run.disturbed();
            for (const std::string &text : run.findings()) findings.push_back(text);
        }
        (void)systemLog().take();
        ::closelog();
        size_t own = 0;
        for (const std::string &text : findings) own += text.capacity() > 15 ? text.capacity() + 1 : 0;
        own += findings.capacity() * sizeof(std::string);
        const bool leak = __sanitizer_get_current_allocated_bytes() > bytes + own;
        if (!reached && !again) ++progress_.missed;
        for (const std::string &text : leftOver(before)) {
            remove(text);
            // A file stays when its removal failed, or when it could not be seen.
            if (text.rfind("file ", 0) == 0 && state().removalFailed) continue;
            findings.push_back("left: " + text);
        }
        if (leak) {
            findings.emplace_back(leakText);
            if (again) (void)__lsan_do_recoverable_leak_check();
        }
        return findings;
    }

    // What was not there before. Detached processes let go of what they share a moment after the call, and threads that
    // were joined are seen for a moment.
    std::vector<std::string> leftOver(const std::vector<std::string> &before) const {
        std::vector<std::string> left;
        for (int tries = 0; tries < 100; ++tries) {
            const std::vector<std::string> after = inventory();
            left.clear();
            std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::back_inserter(left));
            const auto mayGo = [&](const std::string &text) {
                return text.rfind("System V", 0) == 0 || (text.rfind("thread", 0) == 0 && tries < 10);
            };
            if (std::none_of(left.begin(), left.end(), mayGo)) break;
            ::usleep(20000);
        }
        return left;
    }

    // What is left must not disturb the next run.
    static void remove(const std::string &text) {
        int number = 0;
        if (text.rfind("file ", 0) == 0) {
            std::error_code ignored;
            std::filesystem::remove_all(text.substr(5), ignored);
        }
        if (std::sscanf(text.c_str(), "System V sem %d", &number) == 1) ::semctl(number, 0, IPC_RMID);
        if (std::sscanf(text.c_str(), "System V shm %d", &number) == 1) ::shmctl(number, IPC_RMID, nullptr);
        if (text == "SIGPIPE changed") std::signal(SIGPIPE, SIG_DFL);
        if (std::sscanf(text.c_str(), "child %d", &number) == 1) {
            ::kill(number, SIGKILL);
            ::waitpid(number, nullptr, 0);
        }
    }

    void undisturbed(const char *what) {
        ++progress_.steps;
        Run run({}, scenario_.excluded);
        scenario_.run(run);
        for (const std::string &text : run.findings()) report(std::string(what) + ": " + text);
    }

    void report(const std::string &text) {
        ++progress_.findings;
        std::printf("%s: %s: %s\n", scenario_.name, progress_.current, text.c_str());
        (void)std::fflush(stdout);
    }

    const Scenario &scenario_;
    Progress &progress_;
    std::vector<Point> points_;
};

struct Options {
    size_t sample = 0;
    unsigned int seed = 1;
    std::string only;
    bool list = false;
};

Options parse(int argc, char **argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const auto value = [&] { return i + 1 < argc ? argv[++i] : ""; };
        if (word == "--sample") {
            options.sample = std::stoul(value());
        } else if (word == "--seed") {
            options.seed = static_cast<unsigned int>(std::stoul(value()));
        } else if (word == "--only") {
            options.only = value();
        } else if (word == "--list") {
            options.list = true;
        } else {
            std::fprintf(stderr, "usage: %s [--sample N] [--seed S] [--only NUMBER[:CALL][:ERROR[:from]]] [--list]\n",
                         argv[0]);
            std::exit(2);
        }
    }
    return options;
}

// "12", "12:open:EMFILE", "12:open:EMFILE:from"
bool isChosen(const std::string &only, const std::string &description) {
    return description == only || description.rfind(only + ":", 0) == 0;
}

// The faults that this run is to inject, the same ones in every worker.
std::vector<Fault> chosen(std::vector<Fault> faults, const Options &options) {
    if (options.sample == 0 || faults.size() <= options.sample) return faults;
    std::mt19937 random(options.seed);
    std::shuffle(faults.begin(), faults.end(), random);
    faults.resize(options.sample);
    return faults;
}

[[noreturn]] void work(const Scenario &scenario, const Options &options, Progress &progress) {
    ::setpgid(0, 0);
    int status = 0;
    {
        Worker worker(scenario, progress);
        const std::vector<Fault> faults = chosen(worker.plan(), options);
        progress.planned = faults.size();
        for (size_t i = progress.next; i < faults.size(); ++i) {
            progress.next = i + 1;
            worker.describe(faults[i]);
            if (options.list) std::puts(progress.current);
            if (!options.only.empty() && !isChosen(options.only, progress.current)) continue;
            if (options.list) continue;
            state().showStack = !options.only.empty();
            worker.inject(faults[i]);
        }
        progress.next = faults.size();
        progress.planned = faults.size();
    }
    std::exit(status);
}

// Waits for the worker; false when it crashed or hung.
bool supervise(pid_t worker, const Scenario &scenario, Progress &progress) {
    size_t seen = progress.steps;
    int quiet_ms = 0;
    int status = 0;
    for (;;) {
        const pid_t ended = ::waitpid(worker, &status, WNOHANG);
        if (ended == worker) break;
        ::usleep(20000);
        quiet_ms = progress.steps == seen ? quiet_ms + 20 : 0;
        seen = progress.steps;
        if (quiet_ms > hangLimit_s * 1000) {
            std::printf("%s: %s: hangs\n", scenario.name, progress.current);
            ++progress.findings;
            ::kill(worker, SIGABRT);
            ::usleep(2000000);
            ::kill(-worker, SIGKILL);
            (void)::waitpid(worker, &status, 0);
            return false;
        }
    }
    ::kill(-worker, SIGKILL);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
    std::printf("%s: %s: the process ends with %s %d\n", scenario.name, progress.current,
                WIFSIGNALED(status) ? "signal" : "status",
                WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    (void)std::fflush(stdout);
    ++progress.findings;
    return false;
}

size_t torment(const Scenario &scenario, const Options &options) {
    void *shared = ::mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto &progress = *new (shared) Progress;
    (void)std::snprintf(progress.current, sizeof progress.current, "undisturbed");
    for (int crashes = 0; crashes < 100; ++crashes) {
        const size_t begun = progress.next;
        (void)std::fflush(stdout);
        const pid_t worker = ::fork();
        if (worker == 0) work(scenario, options, progress);
        if (supervise(worker, scenario, progress) && progress.next >= progress.planned) break;
        if (progress.next == begun) break;  // the scenario itself does not work
        if (progress.next >= progress.planned) break;
    }
    const size_t findings = progress.findings;
    std::printf("%s: %zu fallible calls, %zu of %zu faults injected, %zu findings\n", scenario.name, progress.calls,
                progress.done - progress.missed, progress.planned, findings);
    ::munmap(shared, sizeof(Progress));
    return findings;
}

}  // namespace

Armed::Armed() { ++armedDepth; }
Armed::~Armed() { --armedDepth; }

Disarmed::Disarmed() : saved_(armedDepth) { armedDepth = 0; }
Disarmed::~Disarmed() { armedDepth = saved_; }

bool armed() { return armedDepth > 0; }

std::chrono::nanoseconds virtualTime() { return ahead; }

void passTime(std::chrono::nanoseconds duration) {
    if (duration > 0ns) ahead += duration;
}

size_t nextProcess() { return armed() ? ++state().processes : 0; }

void enterProcess(size_t number) {
    process = number;
    callsMade = 0;
}

namespace {

// Whether the run's fault is to show in the current call, and as which error.
int chosenError(const Fault &fault, size_t number, std::initializer_list<int> errors) {
    if (number == fault.call) {
        const bool listed = std::find(errors.begin(), errors.end(), fault.error) != errors.end();
        return listed ? fault.error : *errors.begin();
    }
    if (!fault.persistent || fault.call == 0 || number < fault.call) return 0;
    // EINTR without end is not a fault that machines have: the library repeats a call for as long as it gets EINTR.
    for (const int error : errors) {
        if (error != EINTR) return error;
    }
    return 0;
}

bool failedBefore(const char *call) {
    const State &now = state();
    const auto *const end = now.failedCalls.begin() + now.failedCount;
    return std::any_of(now.failedCalls.begin(), end, [&](const char *name) { return std::strcmp(name, call) == 0; });
}

bool failedWith(int error) {
    const State &now = state();
    const auto *const end = now.errors.begin() + now.errorCount;
    return std::find(now.errors.begin(), end, error) != end;
}

bool removesOrSees(const char *call) {
    const char *const names[] = {"unlink", "unlinkat", "remove", "shm_unlink", "access"};
    return std::any_of(std::begin(names), std::end(names),
                       [&](const char *name) { return std::strcmp(name, call) == 0; });
}

void record(size_t number, const char *call, std::initializer_list<int> errors) {
    State &now = state();
    const size_t at = now.pointCount++;
    if (at >= State::mostPoints) return;
    Point &point = now.points[at];
    point = {number, call, {}, std::min(errors.size(), std::size(point.errors))};
    std::copy_n(errors.begin(), point.errorCount, point.errors);
}

}  // namespace

int decide(const char *call, std::initializer_list<int> errors) {
    if (armedDepth == 0) return 0;
    for (const char *name : excluded) {
        if (std::strcmp(name, call) == 0) return 0;
    }
    State &now = state();
    const size_t number = process * callsPerProcess + ++callsMade;
    if (now.recording) record(number, call, errors);
    const int error = chosenError(now.fault, number, errors);
    if (error == 0) return 0;
    const bool first = !now.fired;
    now.hit = now.fired = true;
    if (!failedWith(error) && now.errorCount < now.errors.size()) now.errors[now.errorCount++] = error;
    now.removalFailed = now.removalFailed || removesOrSees(call);
    if (!failedBefore(call) && now.failedCount < now.failedCalls.size()) now.failedCalls[now.failedCount++] = call;
    if (first && now.showStack) {
        const Disarmed quiet;
        __sanitizer_print_stack_trace();
    }
    return error;
}

Run::Run(const Fault &fault, const std::set<std::string> &leftOut) : fault_(fault) {
    State &now = state();
    now.fault = fault;
    now.fired = now.hit = now.removalFailed = false;
    now.failedCount = now.errorCount = 0;
    now.processes = 0;
    now.pointCount = 0;
    excluded.clear();
    for (const std::string &name : leftOut) excluded.push_back(name.c_str());
    callsMade = 0;
    ahead = 0ns;
    interceptCalls(true);
}

Run::~Run() { interceptCalls(false); }

bool Run::hit() const { return state().hit; }

bool Run::told() const { return failedWith(error_); }

bool Run::disturbed() const { return state().fired; }

bool Run::failed(const char *call) const { return failedBefore(call); }

void Run::begin() {
    (void)systemLog().take();
    state().hit = false;
    state().failedCount = 0;
    state().errorCount = 0;
    virtualStart_ = ahead;
    realStart_ = std::chrono::steady_clock::now();
    errno = 0;
}

void Run::end(std::chrono::nanoseconds limit) {
    error_ = errno;
    // Waits for what no clock knows, for a lock or a peer, take real time; so does work on a busy machine.
    const auto taken = std::chrono::steady_clock::now() - realStart_;
    const auto waited = std::max<std::chrono::nanoseconds>(ahead - virtualStart_, taken - busy);
    if (waited > limit) {
        finding("waits " + std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(waited).count()) +
                " ms, longer than documented");
    }
}

bool Run::outcome(const char *what, bool right, bool documented, const char *line) {
    if (right) return true;
    const std::string name = what;
    if (!hit()) {
        finding(name + (disturbed() ? " fails although nothing failed during it" : " fails"));
    } else if (!documented) {
        finding(name + ": not the documented failure after " + state().failedCalls[0]);
    } else if (line != nullptr) {
        std::string seen;
        bool found = false;
        for (const vxtest::LogLine &entry : systemLog().take()) {
            found = found || entry.text.find(line) != std::string::npos;
            seen += " <" + entry.text + ">";
        }
        if (!found) finding(name + ": not logged: \"" + line + "\", but" + (seen.empty() ? " nothing" : seen));
    }
    return false;
}

void Run::always(const char *what, bool holds) {
    if (!holds) finding(what);
}

void Run::finding(const std::string &text) {
    if (findings_.size() < 10) findings_.push_back(text);
}

int torment(int argc, char **argv, const std::vector<Scenario> &scenarios) {
    if (std::getenv("VXBOX") == nullptr) {
        std::fputs("run this inside a box: scripts/torture\n", stderr);
        return 2;
    }
    const Options options = parse(argc, argv);
    size_t findings = 0;
    vxtest::makeDirs("/tmp/torture");
    for (const Scenario &scenario : scenarios) {
        findings += torment(scenario, options);
    }
    return findings == 0 ? 0 : 1;
}

}  // namespace torture
