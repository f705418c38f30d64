// SPDX-License-Identifier: MIT
#include "vxutils/csemaphore_mutex_mapping.h"

#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <memory>
#include <mutex>

namespace vx {
namespace {

struct Mapping {
    dev_t device;
    ino_t inode;
    pthread_mutex_t *mutex;
    size_t users;
    Mapping *next;
};

// Neither has a destructor: objects that a program destroys while it ends come here too.
constinit std::mutex access;
constinit Mapping *mappings = nullptr;

// A child of fork() gets the list whole and unlocked.
void survivesFork() {
    [[maybe_unused]] static const int registered =
        ::pthread_atfork([] { access.lock(); }, [] { access.unlock(); }, [] { access.unlock(); });
}

// The word on which waiters sleep; its low 30 bits are the thread that holds a robust mutex.
int *futexWord(pthread_mutex_t *mutex) noexcept { return &mutex->__data.__lock; }

bool heldByThisProcess(pthread_mutex_t *mutex) noexcept {
    const int owner = __atomic_load_n(futexWord(mutex), __ATOMIC_RELAXED) & FUTEX_TID_MASK;
    return owner != 0 && ::syscall(SYS_tgkill, ::getpid(), owner, 0) == 0;
}

Mapping **placeOf(pthread_mutex_t *mutex) noexcept {
    Mapping **place = &mappings;
    while ((*place)->mutex != mutex) place = &(*place)->next;
    return place;
}

Mapping *find(const struct stat &status) noexcept {
    Mapping *mapping = mappings;
    while (mapping != nullptr && (mapping->device != status.st_dev || mapping->inode != status.st_ino)) {
        mapping = mapping->next;
    }
    return mapping;
}

Mapping *add(int fd, const struct stat &status) {
    auto mapping = std::make_unique<Mapping>(Mapping{status.st_dev, status.st_ino, nullptr, 0, mappings});
    void *const address = ::mmap(nullptr, sizeof(pthread_mutex_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (address == MAP_FAILED) return nullptr;
    mapping->mutex = static_cast<pthread_mutex_t *>(address);
    return mappings = mapping.release();
}

}  // namespace

pthread_mutex_t *mapMutex(int fd, const struct stat &status) {
    survivesFork();
    const std::lock_guard lock(access);
    // The mapping keeps its object alive, so the numbers are not given to another one.
    Mapping *mapping = find(status);
    if (mapping == nullptr) mapping = add(fd, status);
    if (mapping == nullptr) return nullptr;
    ++mapping->users;
    return mapping->mutex;
}

void releaseMutex(pthread_mutex_t *mutex) noexcept {
    const std::lock_guard lock(access);
    Mapping **const place = placeOf(mutex);
    Mapping *const mapping = *place;
    if (--mapping->users > 0 || heldByThisProcess(mutex)) return;
    ::munmap(mutex, sizeof(pthread_mutex_t));
    *place = mapping->next;
    delete mapping;
}

void wakeWaiters(pthread_mutex_t *mutex) noexcept {
    (void)::syscall(SYS_futex, futexWord(mutex), FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

}  // namespace vx
