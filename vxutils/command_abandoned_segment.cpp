// SPDX-License-Identifier: MIT
#include "vxutils/command_abandoned_segment.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>

#include "vxutils/internal/errno_keeper.h"
#include "vxutils/internal/fd.h"
#include "vxutils/internal/line_buffer.h"
#include "vxutils/internal/log.h"
#include "vxutils/internal/retry.h"
#include "vxutils/internal/safe_open.h"

namespace vx {
namespace {

constexpr const char *segmentTable = "/proc/sysvipc/shm";
constexpr size_t longestLine = 512;

struct Segment {
    int id;
    pid_t makerPid;          // 0 when it belongs to another PID namespace
    unsigned long attached;  // how many processes have it in their memory
    uid_t makerUser;
    long long made_s;  // wall-clock time
};

// Reads the kernel's table, because shmget() and shmctl() do not tell about segments of other users.
std::optional<Segment> findSegment(key_t key) {
    const Fd table(retryEintr([] { return ::open(segmentTable, O_RDONLY | O_CLOEXEC); }));
    LineBuffer lines;
    for (auto line = lines.next(table.get(), longestLine); !line.empty(); line = lines.next(table.get(), longestLine)) {
        line.back() = '\0';
        int lineKey = 0;
        Segment segment{};
        constexpr const char *fields = "%d %d %*o %*u %d %*d %lu %*u %*u %u %*u %*u %*u %lld";
        const int found = std::sscanf(line.data(), fields, &lineKey, &segment.id, &segment.makerPid, &segment.attached,
                                      &segment.makerUser, &segment.made_s);
        if (found == 6 && lineKey == key) return segment;
    }
    return std::nullopt;  // it was removed since the caller saw it, or the table cannot be read
}

double seconds(clockid_t clock) {
    timespec time{};
    ::clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// The part of /proc/PID/stat that is needed here.
struct Status {
    char state;
    int threads;
    double age_s;
};

std::optional<Status> readStatus(pid_t pid) {
    std::array<char, 32> path;
    std::snprintf(path.data(), path.size(), "/proc/%d/stat", pid);
    const Fd file(retryEintr([&] { return ::open(path.data(), O_RDONLY | O_CLOEXEC); }));
    std::array<char, 1024> text;
    const ssize_t got = retryEintr([&] { return ::read(file.get(), text.data(), text.size() - 1); });
    if (got == -1) return std::nullopt;
    text[static_cast<size_t>(got)] = '\0';
    const char *afterName = std::strrchr(text.data(), ')');  // the name may hold anything
    Status status{};
    unsigned long long startTicks = 0;
    constexpr const char *fields = ") %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %d %*d %llu";
    if (afterName == nullptr) return std::nullopt;
    const int found = std::sscanf(afterName, fields, &status.state, &status.threads, &startTicks);
    if (found != 3) return std::nullopt;
    const auto ticksPerSecond = static_cast<double>(::sysconf(_SC_CLK_TCK));
    status.age_s = seconds(CLOCK_BOOTTIME) - static_cast<double>(startTicks) / ticksPerSecond;
    return status;
}

// A process that is younger than the segment is not its maker but has got the same number. The ages prove nothing when
// the clock was set in between, as on a board that learns the time after its start; but then the maker, or its child,
// still has the segment in its memory.
bool hasEnded(const Segment &segment) {
    if (segment.makerPid <= 0) return false;
    const std::optional<Status> status = readStatus(segment.makerPid);
    if (!status) return ::kill(segment.makerPid, 0) == -1 && errno == ESRCH;
    // The state is that of the first thread, which other threads can outlive.
    if ((status->state == 'Z' || status->state == 'X') && status->threads <= 1) return true;
    if (segment.attached > 0) return false;
    constexpr double coarseness_s = 2;  // the segment's time is in whole seconds
    const double segmentAge_s = seconds(CLOCK_REALTIME) - static_cast<double>(segment.made_s);
    return status->age_s + coarseness_s < segmentAge_s;
}

}  // namespace

bool removeAbandonedSegment(key_t key) noexcept {
    const ErrnoKeeper keeper;
    const std::optional<Segment> segment = findSegment(key);
    if (!segment || (isTrustedUser(segment->makerUser) && !hasEnded(*segment))) return false;
    if (::shmctl(segment->id, IPC_RMID, nullptr) == -1) return errno == EINVAL || errno == EIDRM;
    log(LOG_INFO, "Shared memory of process %d, user %u removed", segment->makerPid,
        static_cast<unsigned int>(segment->makerUser));
    return true;
}

}  // namespace vx
