// SPDX-License-Identifier: MIT
#include <vxutils/csemaphore.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>

#include "vxutils/csemaphore_mutex_mapping.h"
#include "vxutils/internal/fd.h"
#include "vxutils/internal/log.h"
#include "vxutils/internal/retry.h"
#include "vxutils/internal/safe_open.h"
#include "vxutils/internal/semaphore_set.h"

namespace {

constexpr mode_t ownerOnly = 0600;
constexpr const char *libraryFile = "/usr/lib/libvxutils.so.";
// Quirk Q55.
constexpr const char *libraryVersion = "1.0.0";
constexpr int guardProject = 1;
constexpr size_t sharedSize = sizeof(pthread_mutex_t);
static_assert(sizeof(void *) != 4 || sharedSize == 24, "the boards' processes share 24 bytes");

constexpr std::chrono::seconds initLimit{5};
constexpr std::chrono::seconds guardLimit{10};

// The guard needs a file that exists on every gateway: the library's own. Runs when the library is loaded, so short of
// memory it gives an empty path, which the first lock then reports.
std::string libraryPath() noexcept {
    try {
        return std::string(libraryFile) + libraryVersion;
    } catch (const std::exception &) {  // GCOVR_EXCL_LINE: before a test can begin
        return {};                      // GCOVR_EXCL_LINE: the same
    }
}

int initMutexAttributes(pthread_mutexattr_t &attributes) {
    if (pthread_mutexattr_init(&attributes) != 0) {
        vx::log(LOG_ERR, "recursive-semaphore: unable initialize attributes");
        return -1;
    }
    if (pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST) != 0) {
        vx::log(LOG_ERR, "recursive semaphore: unable to set attribute \"robust\"");
        return -1;
    }
    // Quirk Q57.
    if (pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED) != 0 ||
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE) != 0) {
        vx::log(LOG_ERR, "recursive-semaphore: unable to set attribute \"recursive\"");
        return -1;
    }
    return 0;
}

// Returns the error of pthread_mutex_init(), or -1 after a message about the attributes.
int makeMutex(pthread_mutex_t &mutex) {
    pthread_mutexattr_t attributes;
    if (initMutexAttributes(attributes) == -1) return -1;
    const int error = pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    return error;
}

// pthread_mutex_trylock() of the C library leaves a mutex that is lost for good locked when it says ENOTRECOVERABLE:
// every later lock() of another process would hang instead of failing. pthread_mutex_timedlock() with an expired
// deadline has the same effect without that bug.
int tryLock(pthread_mutex_t *mutex) {
    constexpr timespec longPast{-1, 0};
    const int result = pthread_mutex_timedlock(mutex, &longPast);
    return result == ETIMEDOUT ? EBUSY : result;
}

// Recognises what a killed creator leaves: an object that is too short, or zeros where no mutex has any.
bool unfinished(const vx::Fd &fd) {
    std::array<char, sharedSize> content{};
    const ssize_t got = ::pread(fd.get(), content.data(), content.size(), 0);
    if (got == -1) return false;
    return static_cast<size_t>(got) < content.size() ||
           std::all_of(content.begin(), content.end(), [](char byte) { return byte == 0; });
}

// Where the kernel allows it (fs.protected_hardlinks=0), a stranger can give another program's object a lock's name. An
// object with a second name is therefore used only if it is a finished mutex and nothing else. It is not refused for
// its second name alone, because a stranger could give one to every lock.
bool isLockOnly(const vx::Fd &fd, const struct stat &status) {
    if (status.st_nlink <= 1) return true;
    pthread_mutex_t expected;
    pthread_mutex_t found;
    if (status.st_size != static_cast<off_t>(sharedSize) || makeMutex(expected) != 0) return false;
    return ::pread(fd.get(), &found, sizeof found, 0) == static_cast<ssize_t>(sizeof found) &&
           found.__data.__kind == expected.__data.__kind;
}

// Opens the shared object, made where it is missing; `status` receives its status and `create` whether its mutex is
// still to be made. A process that can write the object can make its users write anywhere in their memory, and one that
// can shorten it can end them: a stranger's object is refused. O_NONBLOCK keeps a stranger's lease from delaying the
// call.
vx::Fd openShared(const std::string &name, struct stat &status, bool &create) {
    vx::Fd fd(::shm_open(name.c_str(), O_RDWR | O_NONBLOCK, 0));
    create = !fd.valid() && errno == ENOENT;
    if (create) fd.reset(::shm_open(name.c_str(), O_RDWR | O_CREAT | O_NONBLOCK, ownerOnly));
    if (!fd.valid() || ::fstat(fd.get(), &status) == -1) {
        vx::log(LOG_ERR, "recursive-semaphore: unable to open shared memory - errno=%s", std::strerror(errno));
        return vx::Fd();
    }
    if (!vx::isSafe(status) || !isLockOnly(fd, status)) {
        vx::log(LOG_ERR, "recursive-semaphore: refusing shared memory \"%s\" - owner=%u, mode=%o", name.c_str(),
                status.st_uid, status.st_mode);
        return vx::Fd();
    }
    create = create || unfinished(fd);
    return fd;
}

bool resizeShared(const vx::Fd &fd, const std::string &name) {
    if (::ftruncate(fd.get(), static_cast<off_t>(sharedSize)) == 0) return true;
    const char *const reason = std::strerror(errno);
    vx::log(LOG_ERR, "recursive-semaphore: unable to ftruncate shared memory - errno=%s", reason);
    ::shm_unlink(name.c_str());
    vx::log(LOG_ERR, "recursive-semaphore: unable to open shared memory - errno=%s", reason);
    return false;
}

// The mutex, which holds no address before it is locked, is made aside and written in one call: a process that is
// killed meanwhile leaves zeros or a whole mutex, and where memory for the object is short the write says so, while
// touching the mapping would be fatal.
int writeMutex(const vx::Fd &fd, const std::string &name) {
    pthread_mutex_t mutex;
    int error = makeMutex(mutex);
    if (error == -1) return -1;
    if (error == 0) {
        const ssize_t written = ::pwrite(fd.get(), &mutex, sizeof mutex, 0);
        if (written != static_cast<ssize_t>(sizeof mutex)) error = written == -1 ? errno : ENOSPC;
    }
    if (error != 0) {
        vx::log(LOG_ERR, "recursive-semaphore: unable to initialize mutex - errno=%s", std::strerror(error));
        return -1;
    }
    vx::log(LOG_DEBUG, "created recursive semaphore \"%s\"", name.c_str());
    return 0;
}

}  // namespace

CSemaphore::CSemaphore(const std::string &pathname, int projectID)
    : pathname_(pathname), projectId_(projectID), key_(-1), semId_(-1) {
    if (pathname_.empty()) vx::log(LOG_ERR, "CSemaphore - constructed with empty pathname!");
    if (projectId_ == 0) vx::log(LOG_ERR, "CSemaphore - constructed with invalid projectID!");
}

CSemaphore::~CSemaphore() = default;

int CSemaphore::init() {
    key_ = ::ftok(pathname_.c_str(), projectId_);
    if (key_ == -1) {
        vx::log(LOG_ERR, "CSemaphore::init() - ftok failed (errno=%i) for file %s", errno, pathname_.c_str());
        return -1;
    }
    vx::SemaphoreProblem problem;
    const int id = vx::obtainSemaphore(key_, vx::SemaphoreClock::now() + initLimit, problem);
    if (id != -1) {
        semId_ = id;
        return 0;
    }
    switch (problem) {
        case vx::SemaphoreProblem::notFreed:
            vx::log(LOG_ERR, "CSemaphore::init() - semop() failed - unable to initialize semaphore - errno=%i", errno);
            break;
        case vx::SemaphoreProblem::strangers:
            vx::log(LOG_ERR, "CSemaphore::init() - refusing the semaphore-set of another user - errno=%i", errno);
            break;
        case vx::SemaphoreProblem::unobtainable:
            vx::log(LOG_ERR, "CSemaphore::init() - unable to obtain semaphore-set - errno=%i", errno);
            break;
    }
    return -1;
}

int CSemaphore::lock() {
    if (semId_ == -1) {
        vx::log(LOG_ERR, "CSemaphore::lock() - invalid semId!");
        return -1;
    }
    if (vx::retryEintr([this] { return vx::changeSemaphore(semId_, -1, SEM_UNDO); }) == -1) {
        vx::log(LOG_ERR, "CSemaphore::lock() - semop failed, errno=%i", errno);
        return -1;
    }
    return 0;
}

int CSemaphore::unlock() {
    if (semId_ == -1) {
        vx::log(LOG_ERR, "CSemaphore::unlock() - invalid semId!");
        return -1;
    }
    if (vx::changeSemaphore(semId_, 1, SEM_UNDO) == -1) {
        vx::log(LOG_ERR, "CSemaphore::unlock() - semop() failed errno=%i", errno);
        return -1;
    }
    return 0;
}

CRecursiveSemaphore::CSemaphoreOptions::CSemaphoreOptions() : automatic_(true) {}

void CRecursiveSemaphore::CSemaphoreOptions::SetConsistentMode(eConsistentMode mode) {
    automatic_ = mode == eConsistentAutomatic;
}

CRecursiveSemaphore::CSemaphoreOptions::eConsistentMode CRecursiveSemaphore::CSemaphoreOptions::GetConsistentMode()
    const {
    return automatic_ ? eConsistentAutomatic : eConsistentManual;
}

const std::string CRecursiveSemaphore::private_impl::SEM_PATHNAME = libraryPath();

CRecursiveSemaphore::private_impl::private_impl(const std::string &name, const CSemaphoreOptions &options)
    : address_(MAP_FAILED), mutex_(nullptr), guard_(SEM_PATHNAME, guardProject), options_(options) {
    if (!lockGuard()) return;
    struct Unlock {
        CSemaphore &guard;
        ~Unlock() { guard.unlock(); }
    } unlock{guard_};
    createOrOpen(name);
}

// A guard that was replaced between init() and the operation is looked for again.
bool CRecursiveSemaphore::private_impl::lockGuard() {
    const vx::SemaphoreDeadline deadline = vx::SemaphoreClock::now() + guardLimit;
    do {
        if (guard_.init() == -1) {
            vx::log(LOG_ERR, "recursive-semaphore: unable to init guarding semaphore");
            return false;
        }
        if (vx::changeSemaphoreBefore(guard_.semId_, -1, SEM_UNDO, deadline) == 0) return true;
    } while (vx::isSemaphoreGone(guard_.semId_) && vx::SemaphoreClock::now() < deadline);
    vx::log(LOG_ERR, "CSemaphore::lock() - semop failed, errno=%i", errno);
    vx::log(LOG_ERR, "recursive-semaphore: unable to lock guarding semaphore");
    return false;
}

// One process at a time is in here, so that no process maps a mutex that is not initialised yet.
void CRecursiveSemaphore::private_impl::createOrOpen(const std::string &name) {
    struct stat status;
    bool create = false;
    const vx::Fd fd = openShared(name, status, create);
    if (!fd.valid() || (create && !resizeShared(fd, name))) return;

    mutex_ = vx::mapMutex(fd.get(), status);
    if (mutex_ == nullptr) {
        vx::log(LOG_ERR, "recursive-semaphore: mmap failed - errno=%s", std::strerror(errno));
        return;
    }
    address_ = mutex_;
    // What could not be initialised is all zero still: the next user has another go.
    if (create && writeMutex(fd, name) == -1) unmap();
}

void CRecursiveSemaphore::private_impl::unmap() {
    if (mutex_ != nullptr) vx::releaseMutex(mutex_);
    address_ = MAP_FAILED;
    mutex_ = nullptr;
}

CRecursiveSemaphore::CRecursiveSemaphore(const std::string &name) : CRecursiveSemaphore(name, CSemaphoreOptions()) {}

CRecursiveSemaphore::CRecursiveSemaphore(const std::string &name, const CSemaphoreOptions &options)
    : impl_(std::make_unique<private_impl>(name, options)) {}

// Quirk Q58.
CRecursiveSemaphore::~CRecursiveSemaphore() = default;

int CRecursiveSemaphore::trylock() {
    if (impl_->mutex_ == nullptr) return -1;
    const int result = tryLock(impl_->mutex_);
    if (result == EOWNERDEAD) return ownerDied();
    if (result == ENOTRECOVERABLE) lockLost();
    return result;
}

int CRecursiveSemaphore::makeConsistent() {
    return impl_->mutex_ == nullptr ? -1 : pthread_mutex_consistent(impl_->mutex_);
}

// EOWNERDEAD is returned in either mode: the caller has the lock, and may want to look at what it protects.
int CRecursiveSemaphore::ownerDied() {
    if (impl_->options_.GetConsistentMode() == CSemaphoreOptions::eConsistentAutomatic) {
        const int error = pthread_mutex_consistent(impl_->mutex_);
        if (error != 0) {
            vx::log(LOG_ERR, "recursive-semaphore: make consistent failed - errno=%s", std::strerror(error));
        }
    }
    return EOWNERDEAD;
}

// The C library wakes one waiter when a lock is lost, and that one does not wake the next: all others would sleep
// without end. The thread that sees the loss wakes them all, and each of them sees it in turn.
void CRecursiveSemaphore::lockLost() { vx::wakeWaiters(impl_->mutex_); }
