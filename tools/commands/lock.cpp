// SPDX-License-Identifier: MIT
// vx lock: runs a command while a lock between processes is held.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>
#include <vxutils/lock.h>
#include <vxutils/sem.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <memory>
#include <mutex>
#include <thread>

#include "commands/commands.h"
#include "core/failure.h"
#include "core/fd.h"
#include "core/owned.h"
#include "core/spawn.h"

namespace tool {

namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t longestName = 254;  // and the slash before it
constexpr milliseconds firstPause{1};
constexpr milliseconds longestPause{50};
constexpr milliseconds takingTime{1000};
constexpr const char *firewallLockPath = "/var/lock/iptables_flock_file";

Failure notFree(std::string_view name) { return {name, "locked by another", statusTimedOut}; }

// ---- the named lock

class NamedLock {
public:
    NamedLock(const std::string &name, std::optional<milliseconds> longest, const Output &out)
        : handle_(sem_create(("/" + name).c_str())) {
        const int result = take(name, longest);
        if (result == EOWNERDEAD) {
            out.note(name + ": the owner before died while it held the lock");
        } else if (result == -1) {
            throw Failure(name, "the lock cannot be set up; vx doctor lock tells what it needs", statusCannotRun);
        } else if (result != 0) {
            throw Failure(name, std::strerror(result), statusCannotRun);
        }
    }
    ~NamedLock() { sem_unlock(handle_.get()); }
    NamedLock(const NamedLock &) = delete;
    NamedLock &operator=(const NamedLock &) = delete;

private:
    // The library knows no time limit: the lock is tried again and again, where there is one.
    int take(const std::string &name, std::optional<milliseconds> longest) {
        if (!longest) return sem_lock(handle_.get());
        const auto end = Clock::now() + *longest;
        for (milliseconds pause = firstPause;; pause = std::min(pause * 2, longestPause)) {
            const int result = sem_trylock(handle_.get());
            if (result != EBUSY) return result;
            const auto left = end - Clock::now();
            if (left <= Clock::duration::zero()) throw notFree(name);
            std::this_thread::sleep_for(std::min<Clock::duration>(left, pause));
        }
    }

    Owned<sem_handle, &sem_release> handle_;
};

// ---- the packet-filter lock

// What the thread that waits for the lock and the one that waits for the thread share.
struct Waiting {
    std::mutex mutex;
    std::condition_variable over;
    bool done = false;
    firewall_lock_handle *handle = nullptr;
};

// Whether a process has it at this moment; not so where this user cannot look.
bool firewallIsLocked() {
    const Fd fd(::open(firewallLockPath, O_RDONLY | O_CLOEXEC | O_NOCTTY));
    return fd.valid() && ::flock(fd.get(), LOCK_EX | LOCK_NB) == -1 && errno == EWOULDBLOCK;
}

firewall_lock_handle *lockFirewall(std::optional<milliseconds> longest) {
    if (!longest) return firewall_lock();
    // A lock that is free is to be had, however short the time, for the thread takes some.
    if (!firewallIsLocked()) longest = std::max(*longest, takingTime);
    // The library waits without limit; a thread that waits in vain ends with the process.
    const auto waiting = std::make_shared<Waiting>();
    std::thread([waiting] {
        // Until this thread has ended, signals would end the process here that are held back where the command runs.
        sigset_t all;
        sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
        firewall_lock_handle *handle = firewall_lock();
        const std::lock_guard guard(waiting->mutex);
        waiting->handle = handle;
        waiting->done = true;
        waiting->over.notify_one();
    }).detach();
    std::unique_lock guard(waiting->mutex);
    if (!waiting->over.wait_for(guard, *longest, [&] { return waiting->done; })) throw notFree("packet filter");
    return waiting->handle;
}

class FirewallLock {
public:
    explicit FirewallLock(std::optional<milliseconds> longest) : handle_(lockFirewall(longest)) {
        if (handle_ == nullptr) {
            throw Failure("packet filter", "the lock cannot be taken; vx doctor lock tells what it needs",
                          statusCannotRun);
        }
    }
    ~FirewallLock() { firewall_unlock(handle_); }
    FirewallLock(const FirewallLock &) = delete;
    FirewallLock &operator=(const FirewallLock &) = delete;

private:
    firewall_lock_handle *handle_;
};

int lock(const Arguments &arguments, Output &out) {
    std::optional<milliseconds> longest = arguments.seconds("wait");
    if (arguments.has("try")) longest = milliseconds(0);
    if (arguments.has("firewall")) {
        if (arguments.size() > 0) throw Usage{"NAME and --firewall exclude each other"};
        findProgram(arguments.command()[0]);
        const FirewallLock held(longest);
        return runProgram(arguments.command());
    }
    if (arguments.size() == 0) throw Usage{"NAME is missing"};
    const std::string &name = arguments[0];
    if (name.empty() || name.size() > longestName || name.find('/') != std::string::npos || name == "." ||
        name == "..") {
        throw Usage{"NAME '" + name + "' is not 1 to " + std::to_string(longestName) + " characters without slashes"};
    }
    findProgram(arguments.command()[0]);
    const NamedLock held(name, longest, out);
    return runProgram(arguments.command());
}

constexpr Option options[] = {
    {0, "try", nullptr, "end with status 124 at once when another has the lock"},
    {0, "wait", "S", "end with status 124 when the lock is not free within S seconds"},
    {0, "firewall", nullptr, "take the lock of all that change packet-filter rules"},
};
constexpr Argument arguments[] = {{"NAME", Count::optional}, {"CMD", Count::command}};
constexpr Verb verbs[] = {
    {"", "run a command while a named lock, or the packet filter's, is held", options, arguments, lock}};

}  // namespace

const Command lockCommand{"lock", "locks between processes", {}, verbs};

}  // namespace tool
