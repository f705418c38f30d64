// SPDX-License-Identifier: MIT
// The fault injection's own test: scenarios with one defect each, every one of which must be found, and one without.
// Prints what was not found; exit status 1 then.
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <utility>

#include "torture/faults.h"

using torture::Run;

namespace {

const char *const path = "/tmp/torture/file";

// Makes a second allocation after a first one; `afterFailure` is what a careless caller does when there is no memory.
template <typename AfterFailure>
void allocateTwice(Run &run, AfterFailure afterFailure) {
    const int result = run([&] {
        char *first = static_cast<char *>(std::malloc(8));
        if (first == nullptr) return -1;
        void *second = std::malloc(8);
        if (second == nullptr) return afterFailure(first);
        std::free(first);
        std::free(second);
        return 0;
    });
    run.outcome("allocate", result == 0, result == -1);
}

void correct(Run &run) {
    allocateTwice(run, [](char *first) {
        std::free(first);
        return -1;
    });
}

void leaksMemory(Run &run) {
    allocateTwice(run, [](char *) { return -1; });
}

void freesTwice(Run &run) {
    allocateTwice(run, [](char *first) {
        std::free(first);
        std::free(first);
        return -1;
    });
}

void hidesTheFailure(Run &run) {
    allocateTwice(run, [](char *first) {
        std::free(first);
        return 5;
    });
}

void leavesADescriptor(Run &run) {
    run([] {
        const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        char byte;
        if (::read(fd, &byte, 1) == -1) return;
        ::close(fd);
    });
}

void leavesAFile(Run &run) {
    run([] {
        const int fd = ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (fd != -1 && ::write(fd, "x", 1) == -1) {
            ::close(fd);
            return;
        }
        if (fd != -1) ::close(fd);
        ::unlink(path);
    });
    if (!run.hit()) ::unlink(path);
}

void leavesAChild(Run &run) {
    run([] {
        const pid_t child = ::fork();
        if (child == 0) ::_exit(0);
        if (child > 0) ::waitpid(child, nullptr, 0);
    });
}

void leavesASegment(Run &run) {
    run([] {
        const int segment = ::shmget(IPC_PRIVATE, 8, 0600);
        void *address = ::shmat(segment, nullptr, 0);
        if (address == reinterpret_cast<void *>(-1)) return;
        ::shmdt(address);
        ::shmctl(segment, IPC_RMID, nullptr);
    });
}

// Each failure leaves one more mapping of the same file.
void leavesAMapping(Run &run) {
    run([] {
        const int fd = ::open("/etc/torture", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd == -1) return;
        void *address = ::mmap(nullptr, 1, PROT_READ, MAP_SHARED, fd, 0);
        ::close(fd);
        char byte;
        const int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (null != -1 && ::read(null, &byte, 1) != -1) ::munmap(address, 1);
        if (null != -1) ::close(null);
    });
}

void leavesASemaphore(Run &run) {
    run([] {
        const int set = ::semget(IPC_PRIVATE, 1, 0600);
        sembuf take{0, -1, IPC_NOWAIT};
        if (::semop(set, &take, 1) == -1 && errno == EINTR) return;
        ::semctl(set, 0, IPC_RMID);
    });
}

void leavesAThread(Run &run) {
    run([] {
        const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        char byte;
        if (fd != -1 && ::read(fd, &byte, 1) == -1) std::thread([] { ::pause(); }).detach();
        if (fd != -1) ::close(fd);
    });
}

void leavesAFileElsewhere(Run &run) {
    run([] {
        const char *const elsewhere = "/var/tmp/left";
        const int fd = ::open(elsewhere, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (fd != -1 && ::write(fd, "x", 1) == -1) {
            ::close(fd);
            return;
        }
        if (fd != -1) ::close(fd);
        ::unlink(elsewhere);
    });
}

void leavesADirectory(Run &run) {
    run([] {
        const char *const made = "/tmp/torture/made";
        char byte;
        const bool exists = ::mkdir(made, 0700) == 0;
        const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        const bool read = fd != -1 && ::read(fd, &byte, 1) != -1;
        if (fd != -1) ::close(fd);
        if (read && exists) ::rmdir(made);
    });
    if (!run.hit()) ::rmdir("/tmp/torture/made");
}

// The virtual clock does not know the wait: it is a real one.
void waitsTooLongForReal(Run &run) {
    static bool waited = false;  // once is enough to be seen
    run([] {
        const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        char byte;
        if (fd != -1 && ::read(fd, &byte, 1) == -1 && !std::exchange(waited, true)) {
            const timespec pause{13, 0};
            ::syscall(SYS_clock_nanosleep, CLOCK_MONOTONIC, 0, &pause, nullptr);
        }
        if (fd != -1) ::close(fd);
    });
}

void waitsTooLong(Run &run) {
    run([] {
        pollfd nothing{-1, 0, 0};
        for (int i = 0; i < 5; ++i) {
            if (::poll(&nothing, 1, 100) == -1) ::sleep(10);
        }
    });
}

void doesNotLog(Run &run) {
    const bool opened = run([] {
        const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (fd != -1) ::close(fd);
        return fd != -1;
    });
    run.outcome("open", opened, !opened, "cannot open");
}

void failsAfterwards(Run &run) {
    static bool broken = false;
    const bool opened = run([] {
        const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (fd != -1) ::close(fd);
        return fd != -1;
    });
    broken = broken || !opened;
    run.outcome("open", !broken, true);
}

void keepsASignalIgnored(Run &run) {
    run([] {
        std::signal(SIGPIPE, SIG_IGN);
        const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (fd == -1) return;
        ::close(fd);
        std::signal(SIGPIPE, SIG_DFL);
    });
}

void crashes(Run &run) {
    run([] {
        auto *text = static_cast<char *>(std::malloc(8));
        text[0] = 'x';
        std::free(text);
    });
}

struct Case {
    void (*scenario)(Run &);
    const char *finding;  // part of the line; null: there is none
};
const Case cases[] = {
    {correct, nullptr},
    {leaksMemory, "memory is not freed"},
    {freesTwice, "the process ends with"},
    {hidesTheFailure, "not the documented failure after malloc"},
    {leavesADescriptor, "left: descriptor"},
    {leavesAFile, "left: file /tmp/torture/file"},
    {leavesAChild, "left: child"},
    {leavesASegment, "left: System V shm"},
    {leavesASemaphore, "left: System V sem"},
    {leavesAMapping, "left: mapping /etc/torture"},
    {leavesAThread, "left: thread"},
    {leavesAFileElsewhere, "left: file /var/tmp/left"},
    {leavesADirectory, "left: file /tmp/torture/made"},
    {waitsTooLongForReal, "longer than documented"},
    {waitsTooLong, "longer than documented"},
    {doesNotLog, "not logged: \"cannot open\""},
    {failsAfterwards, "the scenario fails afterwards"},
    {keepsASignalIgnored, "left: SIGPIPE changed"},
    {crashes, "the process ends with"},
};

// Runs one case in a child and returns what it prints.
std::string outputOf(const Case &one) {
    int ends[2];
    if (::pipe(ends) == -1) std::abort();
    (void)std::fflush(stdout);
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(ends[1], 1);
        ::close(ends[0]);
        ::close(ends[1]);
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 2);  // the sanitizer's reports
        char program[] = "selftest";
        char *arguments[] = {program, nullptr};
        const int status = torture::torment(1, arguments, {{"case", one.scenario}});
        (void)std::fflush(stdout);
        ::_exit(status);
    }
    ::close(ends[1]);
    std::string output;
    std::array<char, 4096> piece;
    for (ssize_t got = 0; (got = ::read(ends[0], piece.data(), piece.size())) > 0;) {
        output.append(piece.data(), static_cast<size_t>(got));
    }
    ::close(ends[0]);
    (void)::waitpid(child, nullptr, 0);
    return output;
}

}  // namespace

int main() {
    int wrong = 0;
    for (const Case &one : cases) {
        const std::string output = outputOf(one);
        const bool clean = output.find(" 0 findings") != std::string::npos;
        const bool right = one.finding == nullptr ? clean : !clean && output.find(one.finding) != std::string::npos;
        if (right) continue;
        ++wrong;
        std::printf("not found: %s; printed:\n%s", one.finding != nullptr ? one.finding : "(nothing)", output.c_str());
    }
    std::printf("%zu cases, %d wrong\n", std::size(cases), wrong);
    return wrong == 0 ? 0 : 1;
}
