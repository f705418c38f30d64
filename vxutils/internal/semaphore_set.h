// SPDX-License-Identifier: MIT
// Finds a binary System V semaphore by its key, or makes it, and operates on it within a time limit.
//
// A set is made at 0 and raised to 1 by its maker's first operation. A maker that is killed, stopped or slow between
// the two leaves a semaphore that looks held; so does a stranger who makes the set first.
#pragma once

#include <sys/ipc.h>
#include <sys/types.h>

#include <chrono>

namespace vx {

using SemaphoreClock = std::chrono::steady_clock;
using SemaphoreDeadline = SemaphoreClock::time_point;

enum class SemaphoreProblem {
    unobtainable,  // semget() or semctl() failed, or the set did not become usable in time
    notFreed,      // the set was made here, but its first operation failed
    strangers,     // an ordinary user other than this one made the set, and it cannot be removed
};

// Returns the id of a set that a trusted user made and that has been free once; -1 with errno and `problem` set. A set
// that has never been operated on is given a second and then replaced, a stranger's is replaced at once. Two processes
// that obtain a set of one key never hold different ones at the same time.
int obtainSemaphore(key_t key, SemaphoreDeadline deadline, SemaphoreProblem &problem);

// Adds `by` to semaphore 0: one semop() with these flags.
int changeSemaphore(int id, short by, short flags);

// Does the same, waiting until the deadline at most; -1 with EAGAIN after it. Signals do not end the wait.
int changeSemaphoreBefore(int id, short by, short flags, SemaphoreDeadline deadline);

// Tells whether the set has been removed. Keeps errno.
bool isSemaphoreGone(int id);

}  // namespace vx
