// SPDX-License-Identifier: MIT
// libvxclock: loaded before the programs of a gateway with --clock (LD_PRELOAD). They see the wall clock that the gateway
// has set: the machine's, moved by the offset that the gateway keeps in a file.
//
// It wraps the calls that tell the wall clock, set it, or wait until it shows a time, and moves the times at which the
// kernel says that a packet came. Clocks that cannot be set are not touched.
//
// Uses the C library alone: a program in C has no C++ run-time.
#undef _FILE_OFFSET_BITS  // wraps both sizes by their own names
#undef _TIME_BITS
#undef _FORTIFY_SOURCE
#include <fcntl.h>
#include <mqueue.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "gateway/clock.h"
#include "gateway/core/board.h"
#include "gateway/preload.h"

namespace {

using vxgateway::ClockOffset;
using vxgateway::secondInNs;

// The types with 64-bit times of a C library that has two sizes.
struct WideTimespec {
    int64_t tv_sec;
    int32_t tv_nsec;
    int32_t padding;
};
struct WideTimeval {
    int64_t tv_sec;
    int64_t tv_usec;
};
struct WideTimerspec {
    WideTimespec it_interval;
    WideTimespec it_value;
};

const ClockOffset *shared = nullptr;

__attribute__((constructor)) void begin() {
    const int fd = ::open(vxgateway::clockFile, O_RDONLY | O_CLOEXEC);
    if (fd == -1) return;
    void *const mapped = ::mmap(nullptr, sizeof(ClockOffset), PROT_READ, MAP_SHARED, fd, 0);
    ::close(fd);
    if (mapped != MAP_FAILED) shared = static_cast<const ClockOffset *>(mapped);
}

int64_t offset_ns() { return shared == nullptr ? 0 : __atomic_load_n(&shared->ns, __ATOMIC_ACQUIRE); }

bool isWall(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE || clock == CLOCK_REALTIME_ALARM ||
           clock == CLOCK_TAI;
}

// ---- moving times

int64_t &fractionOf(WideTimeval &time) { return time.tv_usec; }
long &fractionOf(timeval &time) { return time.tv_usec; }
long &fractionOf(timespec &time) { return time.tv_nsec; }
int32_t &fractionOf(WideTimespec &time) { return time.tv_nsec; }

template <typename Time>
constexpr int64_t unitsOfSecond = 1000000000;
template <>
constexpr int64_t unitsOfSecond<timeval> = 1000000;
template <>
constexpr int64_t unitsOfSecond<WideTimeval> = 1000000;

// False when the type cannot hold the result.
template <typename Time>
bool move(Time &time, int64_t by_ns) {
    const int64_t units = unitsOfSecond<Time>;
    int64_t seconds = static_cast<int64_t>(time.tv_sec) + by_ns / secondInNs;
    int64_t fraction = static_cast<int64_t>(fractionOf(time)) + by_ns % secondInNs / (secondInNs / units);
    if (fraction < 0) {
        fraction += units;
        --seconds;
    } else if (fraction >= units) {
        fraction -= units;
        ++seconds;
    }
    using Seconds = decltype(time.tv_sec);
    using Fraction = typename std::remove_reference<decltype(fractionOf(time))>::type;
    if (seconds != static_cast<Seconds>(seconds)) return false;
    time.tv_sec = static_cast<Seconds>(seconds);
    fractionOf(time) = static_cast<Fraction>(fraction);
    return true;
}

template <typename Time>
bool isValid(Time time) {
    return fractionOf(time) >= 0 && fractionOf(time) < unitsOfSecond<Time>;
}

// A time of the programs' clock until which a call waits, on the machine's clock.
template <typename Time>
class Deadline {
public:
    Deadline(const Time *given, bool wall) : passed_(given) {
        if (given == nullptr || !wall || offset_ns() == 0 || !isValid(*given)) return;
        moved_ = *given;
        if (!move(moved_, -offset_ns())) moved_.tv_sec = given->tv_sec < 0 ? 0 : INT32_MAX;
        if (moved_.tv_sec < 0) moved_ = Time{};
        passed_ = &moved_;
    }
    Deadline(const Deadline &) = delete;
    Deadline &operator=(const Deadline &) = delete;

    operator const Time *() const { return passed_; }

private:
    Time moved_{};
    const Time *passed_;
};

// ---- the wall clock

template <typename Time>
int told(int result, bool wall, Time *time) {
    if (result != 0 || !wall || time == nullptr || move(*time, offset_ns())) return result;
    errno = EOVERFLOW;
    return -1;
}

timespec machineTime(clockid_t clock) {
    timespec now{};
    REAL("clock_gettime", int (*)(clockid_t, timespec *));
    real(clock, &now);
    return now;
}

// Says an order to the gateway as gw does; false when it was not obeyed.
bool order(const char *words, size_t length) {
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd == -1) return false;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, vxgateway::controlSocket);
    char packet[512] = "";
    ssize_t got = -1;
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
        ::send(fd, words, length, MSG_NOSIGNAL) != -1) {
        do got = ::recv(fd, packet, sizeof packet, 0);
        while ((got == -1 && errno == EINTR) || (got > 0 && packet[0] != 'x'));
    }
    ::close(fd);
    return got >= 2 && packet[1] == 0;
}

// As the kernel, which lets root alone set the clock.
template <typename Time>
int setWall(const Time *time) {
    if (time == nullptr) {
        errno = EFAULT;
        return -1;
    }
    if (!isValid(*time) || time->tv_sec < 0) {
        errno = EINVAL;
        return -1;
    }
    if (::geteuid() != 0) {
        errno = EPERM;
        return -1;
    }
    Time copy = *time;
    const auto fraction_ns = static_cast<long>(fractionOf(copy) * (secondInNs / unitsOfSecond<Time>));
    char words[64] = "clock";
    constexpr size_t first = sizeof "clock";
    const int length = std::snprintf(words + first, sizeof words - first, "@%lld.%09ld",
                                     static_cast<long long>(time->tv_sec), fraction_ns);
    const int before = errno;
    const bool obeyed = order(words, first + static_cast<size_t>(length) + 1);
    errno = obeyed ? before : EINVAL;
    return obeyed ? 0 : -1;
}

// ---- when packets came

template <typename Time>
void moveStamp(unsigned char *data, int64_t by_ns) {
    Time time;
    std::memcpy(&time, data, sizeof time);
    if (move(time, by_ns)) std::memcpy(data, &time, sizeof time);
}

// The kernel's numbers of both sizes; headers have those of one.
constexpr int stampNarrow = 29;
constexpr int stampNsNarrow = 35;
constexpr int stampWide = 63;
constexpr int stampNsWide = 64;

void moveStamps(msghdr &message) {
    const int64_t by_ns = offset_ns();
    if (by_ns == 0 || message.msg_control == nullptr) return;
    for (cmsghdr *part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_SOCKET) continue;
        switch (part->cmsg_type) {
            case stampNarrow:
                moveStamp<timeval>(CMSG_DATA(part), by_ns);
                break;
            case stampNsNarrow:
                moveStamp<timespec>(CMSG_DATA(part), by_ns);
                break;
            case stampWide:
                moveStamp<WideTimeval>(CMSG_DATA(part), by_ns);
                break;
            case stampNsWide:
                moveStamp<WideTimespec>(CMSG_DATA(part), by_ns);
                break;
            default:
                break;
        }
    }
}

// The clock of a timer's descriptor is written where the kernel describes the descriptor.
bool isWallTimer(int fd) {
    char path[48];
    char text[256] = "";
    std::snprintf(path, sizeof path, "/proc/self/fdinfo/%d", fd);
    const int info = ::open(path, O_RDONLY | O_CLOEXEC);
    if (info == -1) return false;
    const ssize_t got = ::read(info, text, sizeof text - 1);
    ::close(info);
    const char *const clock = got <= 0 ? nullptr : std::strstr(text, "clockid:");
    return clock != nullptr && isWall(static_cast<clockid_t>(std::strtol(clock + 8, nullptr, 10)));
}

template <typename Timerspec>
int setTimer(int fd, int flags, const Timerspec *wanted, Timerspec *old,
             int (*real)(int, int, const Timerspec *, Timerspec *)) {
    // A zero time disarms the timer.
    const bool absolute = (flags & TFD_TIMER_ABSTIME) != 0 && wanted != nullptr && offset_ns() != 0 &&
                          (wanted->it_value.tv_sec != 0 || wanted->it_value.tv_nsec != 0);
    if (!absolute || !isWallTimer(fd)) return real(fd, flags, wanted, old);
    Timerspec moved = *wanted;
    moved.it_value = *Deadline(&wanted->it_value, true);
    if (moved.it_value.tv_sec == 0 && moved.it_value.tv_nsec == 0) moved.it_value.tv_nsec = 1;
    return real(fd, flags, &moved, old);
}

// Whether a condition variable waits by the wall clock; the C library keeps that in this bit.
bool isWallCondition(const pthread_cond_t *condition) { return (condition->__data.__wrefs & 2) == 0; }

}  // namespace

// ---- the wrappers

// NOLINTBEGIN(bugprone-macro-parentheses): these are types and parameter lists
#define WRAP(result, function, name, parameters)       \
    extern "C" result function parameters NAMED(name); \
    result function parameters

// Each for the C library's own time, and under its second name for the wide one.
#define WRAP_CLOCK(suffix, gettime, settime, gettimeofday, settimeofday, gettimespec, Timespec, Timeval) \
    WRAP(int, clockGettime##suffix, gettime, (clockid_t clock, Timespec * now)) {                        \
        REAL(gettime, int (*)(clockid_t, Timespec *));                                                   \
        return told(real(clock, now), isWall(clock), now);                                               \
    }                                                                                                    \
    WRAP(int, clockSettime##suffix, settime, (clockid_t clock, const Timespec *time)) {                  \
        REAL(settime, int (*)(clockid_t, const Timespec *));                                             \
        return clock == CLOCK_REALTIME ? setWall(time) : real(clock, time);                              \
    }                                                                                                    \
    WRAP(int, getTimeOfDay##suffix, gettimeofday, (Timeval * now, void *zone)) {                         \
        REAL(gettimeofday, int (*)(Timeval *, void *));                                                  \
        return told(real(now, zone), true, now);                                                         \
    }                                                                                                    \
    WRAP(int, setTimeOfDay##suffix, settimeofday, (const Timeval *time, const void *zone)) {             \
        REAL(settimeofday, int (*)(const Timeval *, const void *));                                      \
        return time != nullptr ? setWall(time) : real(time, zone);                                       \
    }                                                                                                    \
    WRAP(int, timespecGet##suffix, gettimespec, (Timespec * now, int base)) {                            \
        REAL(gettimespec, int (*)(Timespec *, int));                                                     \
        const int result = real(now, base);                                                              \
        return result != TIME_UTC || move(*now, offset_ns()) ? result : 0;                               \
    }

#define WRAP_WAIT(function, name, Timespec, parameters, types, wall, ...) \
    WRAP(int, function, name, parameters) {                               \
        REAL(name, int(*) types);                                         \
        const Deadline<Timespec> deadline(until, wall);                   \
        return real(__VA_ARGS__);                                         \
    }

#define WRAP_WAITS(suffix, Timespec, mutexTimed, mutexClock, readTimed, readClock, writeTimed, writeClock,          \
                   conditionTimed, conditionClock, semaphoreTimed, semaphoreClock, joinTimed, joinClock, mtxTimed,  \
                   cndTimed)                                                                                        \
    WRAP_WAIT(mutexTimedlock##suffix, mutexTimed, Timespec, (pthread_mutex_t * lock, const Timespec *until),        \
              (pthread_mutex_t *, const Timespec *), true, lock, deadline)                                          \
    WRAP_WAIT(mutexClocklock##suffix, mutexClock, Timespec,                                                         \
              (pthread_mutex_t * lock, clockid_t clock, const Timespec *until),                                     \
              (pthread_mutex_t *, clockid_t, const Timespec *), isWall(clock), lock, clock, deadline)               \
    WRAP_WAIT(readTimedlock##suffix, readTimed, Timespec, (pthread_rwlock_t * lock, const Timespec *until),         \
              (pthread_rwlock_t *, const Timespec *), true, lock, deadline)                                         \
    WRAP_WAIT(readClocklock##suffix, readClock, Timespec,                                                           \
              (pthread_rwlock_t * lock, clockid_t clock, const Timespec *until),                                    \
              (pthread_rwlock_t *, clockid_t, const Timespec *), isWall(clock), lock, clock, deadline)              \
    WRAP_WAIT(writeTimedlock##suffix, writeTimed, Timespec, (pthread_rwlock_t * lock, const Timespec *until),       \
              (pthread_rwlock_t *, const Timespec *), true, lock, deadline)                                         \
    WRAP_WAIT(writeClocklock##suffix, writeClock, Timespec,                                                         \
              (pthread_rwlock_t * lock, clockid_t clock, const Timespec *until),                                    \
              (pthread_rwlock_t *, clockid_t, const Timespec *), isWall(clock), lock, clock, deadline)              \
    WRAP_WAIT(conditionTimedwait##suffix, conditionTimed, Timespec,                                                 \
              (pthread_cond_t * condition, pthread_mutex_t * lock, const Timespec *until),                          \
              (pthread_cond_t *, pthread_mutex_t *, const Timespec *), isWallCondition(condition), condition, lock, \
              deadline)                                                                                             \
    WRAP_WAIT(conditionClockwait##suffix, conditionClock, Timespec,                                                 \
              (pthread_cond_t * condition, pthread_mutex_t * lock, clockid_t clock, const Timespec *until),         \
              (pthread_cond_t *, pthread_mutex_t *, clockid_t, const Timespec *), isWall(clock), condition, lock,   \
              clock, deadline)                                                                                      \
    WRAP_WAIT(semaphoreTimedwait##suffix, semaphoreTimed, Timespec, (sem_t * semaphore, const Timespec *until),     \
              (sem_t *, const Timespec *), true, semaphore, deadline)                                               \
    WRAP_WAIT(semaphoreClockwait##suffix, semaphoreClock, Timespec,                                                 \
              (sem_t * semaphore, clockid_t clock, const Timespec *until), (sem_t *, clockid_t, const Timespec *),  \
              isWall(clock), semaphore, clock, deadline)                                                            \
    WRAP_WAIT(timedJoin##suffix, joinTimed, Timespec, (pthread_t thread, void **status, const Timespec *until),     \
              (pthread_t, void **, const Timespec *), true, thread, status, deadline)                               \
    WRAP_WAIT(clockJoin##suffix, joinClock, Timespec,                                                               \
              (pthread_t thread, void **status, clockid_t clock, const Timespec *until),                            \
              (pthread_t, void **, clockid_t, const Timespec *), isWall(clock), thread, status, clock, deadline)    \
    /* Of threads.h, whose types are those of pthreads in the C library: they call nothing that is wrapped. */      \
    WRAP_WAIT(mtxTimedlock##suffix, mtxTimed, Timespec, (void *lock, const Timespec *until),                        \
              (void *, const Timespec *), true, lock, deadline)                                                     \
    WRAP_WAIT(cndTimedwait##suffix, cndTimed, Timespec, (void *condition, void *lock, const Timespec *until),       \
              (void *, void *, const Timespec *), true, condition, lock, deadline)

#define WRAP_SLEEP(function, name, Timespec)                                                                        \
    WRAP_WAIT(function, name, Timespec, (clockid_t clock, int flags, const Timespec *until, Timespec *rest),        \
              (clockid_t, int, const Timespec *, Timespec *), isWall(clock) && (flags & TIMER_ABSTIME) != 0, clock, \
              flags, deadline, rest)

#define WRAP_TIMER(function, name, Timerspec)                                                 \
    WRAP(int, function, name, (int fd, int flags, const Timerspec *wanted, Timerspec *old)) { \
        REAL(name, int (*)(int, int, const Timerspec *, Timerspec *));                        \
        return setTimer(fd, flags, wanted, old, real);                                        \
    }

#define WRAP_RECVMSG(function, name)                                      \
    WRAP(ssize_t, function, name, (int fd, msghdr *message, int flags)) { \
        REAL(name, ssize_t (*)(int, msghdr *, int));                      \
        const ssize_t got = real(fd, message, flags);                     \
        if (got != -1) moveStamps(*message);                              \
        return got;                                                       \
    }

#define WRAP_RECVMMSG(function, name, Timespec)                                                                 \
    WRAP(int, function, name, (int fd, mmsghdr *messages, unsigned int count, int flags, Timespec *patience)) { \
        REAL(name, int (*)(int, mmsghdr *, unsigned int, int, Timespec *));                                     \
        const int got = real(fd, messages, count, flags, patience);                                             \
        for (int i = 0; i < got; ++i) moveStamps(messages[i].msg_hdr);                                          \
        return got;                                                                                             \
    }

// NOLINTEND(bugprone-macro-parentheses)

// Like the C library's, from the clock that moves in steps of the kernel's.
WRAP(time_t, wallTime, "time", (time_t * result)) {
    timespec now = machineTime(CLOCK_REALTIME_COARSE);
    if (!move(now, offset_ns())) {
        errno = EOVERFLOW;
        return -1;
    }
    if (result != nullptr) *result = now.tv_sec;
    return now.tv_sec;
}

WRAP_CLOCK(, "clock_gettime", "clock_settime", "gettimeofday", "settimeofday", "timespec_get", timespec, timeval)
WRAP_WAITS(, timespec, "pthread_mutex_timedlock", "pthread_mutex_clocklock", "pthread_rwlock_timedrdlock",
           "pthread_rwlock_clockrdlock", "pthread_rwlock_timedwrlock", "pthread_rwlock_clockwrlock",
           "pthread_cond_timedwait", "pthread_cond_clockwait", "sem_timedwait", "sem_clockwait", "pthread_timedjoin_np",
           "pthread_clockjoin_np", "mtx_timedlock", "cnd_timedwait")
WRAP_SLEEP(sleepUntil, "clock_nanosleep", timespec)
WRAP_TIMER(setTimerTime, "timerfd_settime", itimerspec)
WRAP_RECVMSG(receive, "recvmsg")
WRAP_RECVMMSG(receiveMany, "recvmmsg", timespec)

#if __TIMESIZE == 32
WRAP(int64_t, wallTimeWide, "__time64", (int64_t * result)) {
    REAL("__clock_gettime64", int (*)(clockid_t, WideTimespec *));
    WideTimespec now{};
    real(CLOCK_REALTIME_COARSE, &now);
    move(now, offset_ns());
    if (result != nullptr) *result = now.tv_sec;
    return now.tv_sec;
}
WRAP_CLOCK(Wide, "__clock_gettime64", "__clock_settime64", "__gettimeofday64", "__settimeofday64", "__timespec_get64",
           WideTimespec, WideTimeval)
WRAP_WAITS(Wide, WideTimespec, "__pthread_mutex_timedlock64", "__pthread_mutex_clocklock64",
           "__pthread_rwlock_timedrdlock64", "__pthread_rwlock_clockrdlock64", "__pthread_rwlock_timedwrlock64",
           "__pthread_rwlock_clockwrlock64", "__pthread_cond_timedwait64", "__pthread_cond_clockwait64",
           "__sem_timedwait64", "__sem_clockwait64", "__pthread_timedjoin_np64", "__pthread_clockjoin_np64",
           "__mtx_timedlock64", "__cnd_timedwait64")
WRAP_SLEEP(sleepUntilWide, "__clock_nanosleep_time64", WideTimespec)
WRAP_TIMER(setTimerTimeWide, "__timerfd_settime64", WideTimerspec)
WRAP_RECVMSG(receiveWide, "__recvmsg64")
WRAP_RECVMMSG(receiveManyWide, "__recvmmsg64", WideTimespec)
#endif
