// SPDX-License-Identifier: MIT
#include "vxutils/internal/semaphore_set.h"

#include <sys/sem.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "vxutils/internal/errno_keeper.h"
#include "vxutils/internal/retry.h"
#include "vxutils/internal/safe_open.h"

namespace vx {
namespace {

constexpr int ownerOnly = 0600;
constexpr std::chrono::seconds makersTime{1};

// Marks a set that is to be removed. The kernel stores execute permissions of a set, but gives them no meaning.
constexpr mode_t removalMark = S_IXUSR;

// The argument of semctl() is the caller's to declare.
union Argument {
    int value;
    semid_ds *status;
};

enum class State { gone, unreadable, strangers, unfinished, marked, usable };

bool readStatus(int id, semid_ds &status) {
    Argument argument{};
    argument.status = &status;
    return ::semctl(id, 0, IPC_STAT, argument) != -1;
}

// Returns false with errno when this process may not remove the set.
bool removeSet(int id) {
    (void)::semctl(id, 0, IPC_RMID);
    return isSemaphoreGone(id);
}

// Why replacing a set never lets two processes in at once, one through the old set and one through the new. A set is
// finished once an operation on it has succeeded, and stays finished. It is marked before it is removed, and stays
// marked.
//
// - A process uses a set only when it has seen first that the set is finished and then that it is not marked.
// - A process removes a set only when it holds the semaphore, so that no other process is inside, or when it has seen
//   first that the set is marked and then that it is not finished.
//
// Assume that P uses a set that R removes as not finished. P saw no mark after it saw the set finished, R saw the mark
// before it saw the set unfinished. A mark stays, so P's last look came before R's first one. Then P saw the set
// finished before R saw it unfinished, which cannot be. What P has looked at in this order is what this function looks
// at.
State stateOf(int id) {
    const int value = ::semctl(id, 0, GETVAL);
    const int lastUser = ::semctl(id, 0, GETPID);
    semid_ds status{};
    if (value == -1 || lastUser == -1 || !readStatus(id, status)) {
        return errno == EIDRM || errno == EINVAL ? State::gone : State::unreadable;
    }
    const ipc_perm &owner = status.sem_perm;
    if (!isTrustedUser(owner.cuid) || !isTrustedUser(owner.uid)) return State::strangers;
    if (value == 0 && lastUser == 0 && status.sem_otime == 0) return State::unfinished;
    return (owner.mode & removalMark) != 0 ? State::marked : State::usable;
}

timespec untilDeadline(SemaphoreDeadline deadline) {
    using Seconds = std::chrono::duration<time_t>;
    using Nanoseconds = std::chrono::duration<long, std::nano>;
    const auto left = std::max(deadline - SemaphoreClock::now(), SemaphoreClock::duration::zero());
    const auto seconds = std::chrono::duration_cast<Seconds>(left);
    timespec time{};
    time.tv_sec = seconds.count();
    time.tv_nsec = std::chrono::duration_cast<Nanoseconds>(left - seconds).count();
    return time;
}

int operateBefore(int id, sembuf *operations, size_t count, SemaphoreDeadline deadline) {
    return retryEintr([&] {
        const timespec left = untilDeadline(deadline);
        return ::semtimedop(id, operations, count, &left);
    });
}

// Waits until the semaphore is free, and leaves it so: taken and given back in one step.
void awaitMaker(int id, SemaphoreDeadline deadline) {
    std::array<sembuf, 2> takeAndGive{sembuf{0, -1, 0}, sembuf{0, +1, 0}};
    (void)operateBefore(id, takeAndGive.data(), takeAndGive.size(), deadline);
}

bool mark(int id) {
    semid_ds status{};
    if (!readStatus(id, status)) return false;
    status.sem_perm.mode |= removalMark;
    Argument argument{};
    argument.status = &status;
    return ::semctl(id, 0, IPC_SET, argument) != -1;
}

// Gives the maker its time, then removes the set. False with errno when this process may not remove it.
bool replaceUnfinished(int id, SemaphoreDeadline deadline) {
    awaitMaker(id, std::min(deadline, SemaphoreClock::now() + makersTime));
    if (stateOf(id) != State::unfinished) return true;
    if (!mark(id)) return isSemaphoreGone(id);
    return stateOf(id) != State::unfinished || removeSet(id);
}

// The maker finished the set after all, when it had been marked.
bool replaceMarked(int id, SemaphoreDeadline deadline) {
    if (changeSemaphoreBefore(id, -1, SEM_UNDO, deadline) == -1) return isSemaphoreGone(id);
    if (removeSet(id)) return true;
    (void)changeSemaphore(id, +1, SEM_UNDO);  // else other processes wait until this one ends
    return false;
}

// Brings the set nearer to being usable: the caller looks again. False with errno when nothing more can be done.
bool repair(int id, State state, SemaphoreDeadline deadline, SemaphoreProblem &problem) {
    switch (state) {
        case State::unfinished:
            return replaceUnfinished(id, deadline);
        case State::marked:
            return replaceMarked(id, deadline);
        case State::strangers:
            problem = SemaphoreProblem::strangers;
            return removeSet(id);
        case State::gone:
            return true;
        default:
            return false;
    }
}

}  // namespace

int changeSemaphore(int id, short by, short flags) {
    sembuf operation{0, by, flags};
    return ::semop(id, &operation, 1);
}

int changeSemaphoreBefore(int id, short by, short flags, SemaphoreDeadline deadline) {
    const auto atOnce = static_cast<short>(flags | IPC_NOWAIT);
    if (changeSemaphore(id, by, atOnce) == 0) return 0;
    if (errno != EAGAIN) return -1;
    sembuf operation{0, by, flags};
    return operateBefore(id, &operation, 1, deadline);
}

bool isSemaphoreGone(int id) {
    const ErrnoKeeper keeper;
    return ::semctl(id, 0, GETVAL) == -1 && (errno == EIDRM || errno == EINVAL);
}

int obtainSemaphore(key_t key, SemaphoreDeadline deadline, SemaphoreProblem &problem) {
    do {
        problem = SemaphoreProblem::unobtainable;
        int id = ::semget(key, 1, IPC_CREAT | IPC_EXCL | ownerOnly);
        if (id != -1) {
            if (changeSemaphore(id, +1, 0) == -1 && !isSemaphoreGone(id)) {
                problem = SemaphoreProblem::notFreed;
                return -1;
            }
        } else if (errno == EEXIST) {
            id = ::semget(key, 1, ownerOnly);
            if (id == -1 && errno == ENOENT) continue;
        }
        if (id == -1) return -1;
        const State state = stateOf(id);
        if (state == State::usable) return id;
        if (!repair(id, state, deadline, problem)) return -1;
    } while (SemaphoreClock::now() < deadline);
    errno = ETIMEDOUT;  // GCOVR_EXCL_LINE: a stranger makes one set after the other all the time
    return -1;          // GCOVR_EXCL_LINE: the same
}

}  // namespace vx
