// SPDX-License-Identifier: MIT
// An uncontended lock and unlock beside the bare mutex of the same kind.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/csemaphore.h>
#include <vxutils/sem.h>

#include <fstream>

namespace {

// The guard needs the library's own file in its place; the benchmarks run in a box, where it can be put there.
void provideLibraryFile() { std::ofstream("/usr/lib/libvxutils.so.1.0.0", std::ios::app).flush(); }

void lockOurs(benchmark::State &state) {
    provideLibraryFile();
    CRecursiveSemaphore lock("/bench");
    if (lock.lock() != 0 || lock.unlock() != 0) return state.SkipWithError("no lock");
    for (auto _ : state) {
        benchmark::DoNotOptimize(lock.lock());
        benchmark::DoNotOptimize(lock.unlock());
    }
}

void lockPlain(benchmark::State &state) {
    provideLibraryFile();
    sem_handle *const lock = sem_create("/bench");
    if (sem_lock(lock) != 0 || sem_unlock(lock) != 0) return state.SkipWithError("no lock");
    for (auto _ : state) {
        benchmark::DoNotOptimize(sem_lock(lock));
        benchmark::DoNotOptimize(sem_unlock(lock));
    }
    sem_release(lock);
}

void lockBare(benchmark::State &state) {
    void *const page =
        ::mmap(nullptr, sizeof(pthread_mutex_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto *const mutex = static_cast<pthread_mutex_t *>(page);
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(mutex, &attributes);
    for (auto _ : state) {
        benchmark::DoNotOptimize(pthread_mutex_lock(mutex));
        benchmark::DoNotOptimize(pthread_mutex_unlock(mutex));
    }
    ::munmap(page, sizeof(pthread_mutex_t));
}

// Making a lock that exists and dropping it, as a program does that locks once.
void openOurs(benchmark::State &state) {
    provideLibraryFile();
    const CRecursiveSemaphore keeper("/bench");
    for (auto _ : state) {
        CRecursiveSemaphore lock("/bench");
        benchmark::DoNotOptimize(lock);
    }
}

void openBare(benchmark::State &state) {
    provideLibraryFile();
    const CRecursiveSemaphore keeper("/bench");
    for (auto _ : state) {
        const int fd = ::shm_open("/bench", O_RDWR | O_CLOEXEC, 0);
        struct stat info;
        if (::fstat(fd, &info) != 0) state.SkipWithError("no lock");
        void *const page =
            ::mmap(nullptr, static_cast<size_t>(info.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        ::close(fd);
        benchmark::DoNotOptimize(page);
        ::munmap(page, static_cast<size_t>(info.st_size));
    }
}

// The same inside the guard, which keeps two processes from making the lock at once. Before the guard is used, its value,
// its last user and its owner are read, because it may be a stranger's or have lost its maker; so are the shared
// object's status and content.
void openGuarded(benchmark::State &state) {
    provideLibraryFile();
    const CRecursiveSemaphore keeper("/bench");
    for (auto _ : state) {
        const int guard = ::semget(::ftok("/usr/lib/libvxutils.so.1.0.0", 1), 1, 0600);
        semid_ds status;
        sembuf take{0, -1, SEM_UNDO | IPC_NOWAIT}, give{0, 1, SEM_UNDO};
        benchmark::DoNotOptimize(::semctl(guard, 0, GETVAL));
        benchmark::DoNotOptimize(::semctl(guard, 0, GETPID));
        if (::semctl(guard, 0, IPC_STAT, &status) == -1 || ::semop(guard, &take, 1) == -1) {
            return state.SkipWithError("no guard");
        }
        const int fd = ::shm_open("/bench", O_RDWR | O_CLOEXEC, 0);
        struct stat info;
        pthread_mutex_t mutex;
        benchmark::DoNotOptimize(::fstat(fd, &info));
        benchmark::DoNotOptimize(::pread(fd, &mutex, sizeof mutex, 0));
        void *const page = ::mmap(nullptr, sizeof mutex, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        ::close(fd);
        ::semop(guard, &give, 1);
        benchmark::DoNotOptimize(page);
        ::munmap(page, sizeof mutex);
    }
}

BENCHMARK(openOurs)->Name("RecursiveOpenClose/ours");
BENCHMARK(openBare)->Name("RecursiveOpenClose/bare");
BENCHMARK(openGuarded)->Name("RecursiveOpenClose/bare_guarded");
BENCHMARK(lockOurs)->Name("LockUnlock/ours");
BENCHMARK(lockBare)->Name("LockUnlock/mutex");
BENCHMARK(lockPlain)->Name("PlainLockUnlock/ours");
BENCHMARK(lockBare)->Name("PlainLockUnlock/mutex");

}  // namespace
