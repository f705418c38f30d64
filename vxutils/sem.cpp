// SPDX-License-Identifier: MIT
#include <vxutils/sem.h>

#include <vxutils/csemaphore.h>

#include <memory>
#include <new>

struct sem_options {
    CRecursiveSemaphore::CSemaphoreOptions values;
};

struct sem_handle {
    std::unique_ptr<CRecursiveSemaphore> lock;
};

namespace {

using Options = CRecursiveSemaphore::CSemaphoreOptions;

CRecursiveSemaphore *lockOf(sem_handle *handle) { return handle == nullptr ? nullptr : handle->lock.get(); }

void setMode(sem_options *options, Options::eConsistentMode mode) {
    if (options != nullptr) options->values.SetConsistentMode(mode);
}

}  // namespace

sem_options *sem_options_create(void) { return new (std::nothrow) sem_options; }

void semopt_set_consistent_mode_automatic(sem_options *options) { setMode(options, Options::eConsistentAutomatic); }

void semopt_set_consistent_mode_manual(sem_options *options) { setMode(options, Options::eConsistentManual); }

void semopts_release(sem_options *options) { delete options; }

// Quirk Q56. A null name raises the standard library's logic error. Of all plain functions this one and sem_create()
// alone let it out.
sem_handle *sem_create_with_options(const char *name, const sem_options *options) {
    try {
        auto handle = std::make_unique<sem_handle>();
        handle->lock = std::make_unique<CRecursiveSemaphore>(name, options == nullptr ? Options() : options->values);
        return handle.release();
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

sem_handle *sem_create(const char *name) { return sem_create_with_options(name, nullptr); }

int sem_lock(sem_handle *handle) {
    CRecursiveSemaphore *const lock = lockOf(handle);
    return lock == nullptr ? -1 : lock->lock();
}

int sem_unlock(sem_handle *handle) {
    CRecursiveSemaphore *const lock = lockOf(handle);
    return lock == nullptr ? -1 : lock->unlock();
}

int sem_trylock(sem_handle *handle) {
    CRecursiveSemaphore *const lock = lockOf(handle);
    return lock == nullptr ? -1 : lock->trylock();
}

void sem_release(sem_handle *handle) { delete handle; }
