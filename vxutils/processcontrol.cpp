// SPDX-License-Identifier: MIT
#include <vxutils/processcontrol.h>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unordered_map>
#include <utility>

#include "vxutils/internal/fd.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/retry.h"

namespace {

constexpr const char *processDirectory = "/proc";
constexpr char commandLineFile[] = "/cmdline";
constexpr size_t longestCommandLine = 255;
constexpr size_t pidTextSize = 12;  // of any int, terminator included

using Name = std::array<char, std::max(longestCommandLine + 1, sizeof(dirent::d_name) + sizeof "[]")>;

// Compares in a loop: most names differ in one of the first characters, and strncmp() with the prefix's length takes
// 139 instructions for a name on the board instead of 38.
bool beginsWith(const char *name, const char *prefix) {
    if (prefix == nullptr) return true;
    while (*prefix != '\0' && *name == *prefix) ++name, ++prefix;
    return *prefix == '\0';
}

// Returns -1 for a number that is too large for an int; no process has it.
int pidOf(const char *digits) {
    int number = -1;
    std::from_chars(digits, digits + strlen(digits), number);
    return number;
}

vx::Fd openCommandLine(int directory, int pid) {
    char path[pidTextSize + sizeof commandLineFile];
    char *end = std::to_chars(path, path + pidTextSize, pid).ptr;
    memcpy(end, commandLineFile, sizeof commandLineFile);
    return vx::Fd(vx::retryEintr([&] { return ::openat(directory, path, O_RDONLY | O_CLOEXEC); }));
}

// Reads the arguments as one line. Returns false if there are none.
bool readCommandLine(int file, Name &name) {
    const ssize_t got = vx::retryEintr([&] { return ::read(file, name.data(), longestCommandLine); });
    if (got <= 0) return false;
    char *end = name.data() + got;
    std::replace(name.data(), end, '\0', ' ');
    if (end[-1] == ' ') --end;
    *end = '\0';
    return true;
}

ProcessEntry *markAllInvalid(ProcessEntry *head) {
    ProcessEntry *tail = nullptr;
    for (ProcessEntry *entry = head; entry != nullptr; entry = entry->getNext()) {
        entry->setValid(false);
        tail = entry;
    }
    return tail;
}

// Makes the entry of a process; null if the process has just ended (its command line cannot be opened). `counts` tells
// whether it has a command line.
ProcessEntry *readProcess(int directory, const char *number, int pid, bool &counts) {
    const vx::Fd file = openCommandLine(directory, pid);
    if (!file.valid()) return nullptr;
    Name name;
    counts = readCommandLine(file.get(), name);
    if (!counts) snprintf(name.data(), name.size(), "[%s]", number);
    return new (std::nothrow) ProcessEntry(pid, name.data());
}

// Deletes the entries that are not valid and returns the new head. Quirk Q53: each one reduces the count, even if it
// was never counted.
ProcessEntry *deleteInvalid(ProcessEntry *head, int &count) {
    ProcessEntry *first = nullptr;
    ProcessEntry *last = nullptr;
    for (ProcessEntry *next = nullptr, *entry = head; entry != nullptr; entry = next) {
        next = entry->getNext();
        if (!entry->isValid()) {
            delete entry;
            --count;
            continue;
        }
        if (last != nullptr) {
            last->setNext(entry);
        } else {
            first = entry;
        }
        last = entry;
    }
    if (last != nullptr) last->setNext(nullptr);
    return first;
}

// Finds entries while their list is being updated. List and directory have the same order, except for processes that
// started or ended. So the entry after the one found last is nearly always the next one asked for. An index, made when
// it is first needed, finds the others.
class Lookup {
public:
    explicit Lookup(ProcessEntry *head) : head_(head), expected_(head) {}

    ProcessEntry *find(int pid) {
        ProcessEntry *found = expected_ != nullptr && expected_->getPid() == pid ? expected_ : fromIndex(pid);
        if (found != nullptr) expected_ = found->getNext();
        return found;
    }

    // Makes an entry that was appended during the refresh known.
    void append(ProcessEntry *entry) {
        if (head_ == nullptr) head_ = entry;
        if (!index_.empty()) index_.emplace(entry->getPid(), entry);
    }

private:
    ProcessEntry *fromIndex(int pid) {
        if (index_.empty()) {
            for (ProcessEntry *entry = head_; entry != nullptr; entry = entry->getNext()) {
                index_.emplace(entry->getPid(), entry);
            }
        }
        const auto found = index_.find(pid);
        return found != index_.end() ? found->second : nullptr;
    }

    ProcessEntry *head_;
    ProcessEntry *expected_;
    std::unordered_map<int, ProcessEntry *> index_;
};

// The refresh that runs on this thread. For every process, refresh() calls getProcessEntryByPid(), which a subclass may
// have replaced; the library's version uses the Lookup of the running refresh, and otherwise walks along the list. It
// is kept here because the layout of ProcessControl is fixed. Without it an incremental refresh with 260 processes
// takes 50 % more instructions on the board and 3 times as many on x86-64, and it grows with the square of their
// number.
struct RunningRefresh {
    const ProcessControl *owner;
    Lookup *lookup;
};
thread_local RunningRefresh runningRefresh{nullptr, nullptr};

class RefreshScope {
public:
    RefreshScope(const ProcessControl *owner, Lookup *lookup)
        : outer_(std::exchange(runningRefresh, RunningRefresh{owner, lookup})) {}
    ~RefreshScope() { runningRefresh = outer_; }
    RefreshScope(const RefreshScope &) = delete;
    RefreshScope &operator=(const RefreshScope &) = delete;

private:
    RunningRefresh outer_;
};

}  // namespace

ProcessEntry::ProcessEntry(int pid, const char *name)
    : pid_(pid), name_(::strdup(name != nullptr ? name : "")), next_(nullptr), valid_(true) {}

ProcessEntry::~ProcessEntry() { free(name_); }

int ProcessEntry::getPid() const { return pid_; }

const char *ProcessEntry::getName() const { return name_ != nullptr ? name_ : ""; }

ProcessEntry *ProcessEntry::getNext() const { return next_; }

void ProcessEntry::setNext(ProcessEntry *next) { next_ = next; }

void ProcessEntry::setValid(bool valid) { valid_ = valid; }

bool ProcessEntry::isValid() { return valid_; }

ProcessControl::ProcessControl() : head_(nullptr), count_(0) {}

ProcessControl::~ProcessControl() { ProcessControl::cleanup(); }

void ProcessControl::refresh(bool incremental) {
    const vx::DirPtr directory(::opendir(processDirectory));
    ProcessEntry *tail = nullptr;
    if (incremental) {
        tail = markAllInvalid(head_);
    } else {
        cleanup();
    }
    if (directory == nullptr) return;

    Lookup lookup(head_);
    const RefreshScope scope(this, &lookup);
    while (const dirent *found = ::readdir(directory.get())) {
        if (found->d_type != DT_DIR || !isNumeric(found->d_name)) continue;
        const int pid = pidOf(found->d_name);
        if (ProcessEntry *known = incremental ? getProcessEntryByPid(pid) : nullptr) {
            known->setValid(true);
            continue;
        }
        bool counts = false;
        ProcessEntry *added = readProcess(::dirfd(directory.get()), found->d_name, pid, counts);
        if (added == nullptr) continue;
        if (counts) ++count_;
        if (tail != nullptr) {
            tail->setNext(added);
        } else {
            head_ = added;
        }
        tail = added;
        lookup.append(added);
    }
    if (incremental) head_ = deleteInvalid(head_, count_);
}

ProcessEntry *ProcessControl::getNextProcessEntryByName(const char *prefix, const ProcessEntry *after) const {
    ProcessEntry *entry = head_;
    if (after != nullptr) {
        while (entry != nullptr && entry != after) entry = entry->getNext();
        if (entry == nullptr) return nullptr;
        entry = entry->getNext();
    }
    while (entry != nullptr && !beginsWith(entry->getName(), prefix)) entry = entry->getNext();
    return entry;
}

int ProcessControl::getNumberOfProcessesByName(const char *prefix) const {
    int number = 0;
    for (const ProcessEntry *entry = head_; entry != nullptr; entry = entry->getNext()) {
        if (beginsWith(entry->getName(), prefix)) ++number;
    }
    return number;
}

ProcessEntry *ProcessControl::getProcessEntryByPid(int pid) {
    if (runningRefresh.owner == this) return runningRefresh.lookup->find(pid);
    ProcessEntry *entry = head_;
    while (entry != nullptr && entry->getPid() != pid) entry = entry->getNext();
    return entry;
}

// Quirk Q53.
int ProcessControl::getNumberOfProcesses() const { return count_; }

void ProcessControl::cleanup() {
    while (head_ != nullptr) delete std::exchange(head_, head_->getNext());
    count_ = 0;
}

bool ProcessControl::isNumeric(const char *s) const {
    if (s == nullptr) return false;
    for (; *s != '\0'; ++s) {
        if (*s < '0' || *s > '9') return false;
    }
    return true;
}
