// SPDX-License-Identifier: MIT
// Shared mutexes in this process's memory: each shared object is mapped once, however many locks use it.
//
// A thread keeps the robust mutexes that it holds in a list of addresses. Taken through one mapping and given back
// through another, a mutex is not found in that list, and on 32-bit machines the C library then searches without end.
#pragma once

#include <pthread.h>
#include <sys/stat.h>

namespace vx {

// Returns the mutex at the start of the object open as `fd`, whose status is `status`; null with errno set when it
// cannot be mapped. Throws std::bad_alloc. Every result is given back by one releaseMutex().
pthread_mutex_t *mapMutex(int fd, const struct stat &status);

// The last release unmaps the object, unless a thread of this process still holds the mutex: then it stays, so that the
// thread's list remains valid and its death is seen.
void releaseMutex(pthread_mutex_t *mutex) noexcept;

// Wakes all who wait for the mutex, in all processes.
void wakeWaiters(pthread_mutex_t *mutex) noexcept;

}  // namespace vx
