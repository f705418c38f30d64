// SPDX-License-Identifier: MIT
// The System V sets of CSemaphore and of the guard: time limits, calls that fail, and sets that other processes remove
// in between.
#include <vxutils/csemaphore.h>

#include <sched.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <syslog.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <functional>
#include <optional>
#include <vector>

#include "support/call_hooks.h"
#include "support/clock_hook.h"
#include "support/csemaphore.h"
#include "support/process.h"
#include "support/semctl_hook.h"
#include "support/text.h"

VXTEST_HOOK(int, semget, (key_t key, int count, int flags), (key, count, flags))
VXTEST_HOOK(int, semop, (int id, sembuf *operations, size_t count), (id, operations, count))
VXTEST_HOOK_AS(int, semtimedop, "__semtimedop64", (int id, sembuf *operations, size_t count, const timespec *limit),
               (id, operations, count, limit))

namespace {

namespace hooks = vxtest::hooks;

using vxtest::failingWith;
using vxtest::Hooked;
using vxtest::libraryFile;
using vxtest::textf;

using SemctlHook = std::function<std::optional<int>(int id, int command, semid_ds *status)>;

struct Operation {
    short by;
    short flags;
    bool operator==(const Operation &) const = default;
};

constexpr const char *file = "/etc/hostname";
constexpr int project = 40;

key_t key() { return ::ftok(file, project); }

int setOfKey() { return ::semget(key(), 1, 0); }

int remove(int id) { return vxtest::real::semctl(id, 0, IPC_RMID, nullptr); }

int fails(int error) {
    errno = error;
    return -1;
}

// Ends every wait for a semaphore as at the end of its time, and checks what was waited for and how long at most.
class WaitsEnded {
public:
    WaitsEnded(std::chrono::seconds limit, const std::vector<Operation> &operations)
        : limit_(limit), operations_(operations) {}
    ~WaitsEnded() { EXPECT_GT(count_, 0); }

private:
    using Clock = std::chrono::steady_clock;

    int end(const sembuf *operations, size_t count, const timespec &limit) {
        ++count_;
        std::vector<Operation> asked;
        for (size_t i = 0; i < count; ++i) {
            EXPECT_EQ(operations[i].sem_num, 0);
            asked.push_back({operations[i].sem_op, operations[i].sem_flg});
        }
        EXPECT_EQ(asked, operations_);
        const auto given = std::chrono::seconds(limit.tv_sec) + std::chrono::nanoseconds(limit.tv_nsec);
        EXPECT_LE(given, limit_);
        EXPECT_GE(given, limit_ - (Clock::now() - start_));
        EXPECT_LT(limit.tv_nsec, 1000000000);
        return fails(EAGAIN);
    }

    const std::chrono::nanoseconds limit_;
    const std::vector<Operation> operations_;
    const Clock::time_point start_ = Clock::now();
    int count_ = 0;
    Hooked<decltype(hooks::semtimedop)> hook_{
        hooks::semtimedop, [this](int, sembuf *operations, size_t count, const timespec *limit) -> std::optional<int> {
            return end(operations, count, *limit);
        }};
};

const std::vector<Operation> take{{-1, SEM_UNDO}};
const std::vector<Operation> takeAndGive{{-1, 0}, {1, 0}};

class Sets : public vxtest::SemaphoreTest {
protected:
    Sets() { remove(setOfKey()); }
    ~Sets() override { remove(setOfKey()); }

    // A set as its maker leaves it that dies before the first operation.
    static int makeUnfinished(int mode = 0600) {
        const int id = ::semget(key(), 1, IPC_CREAT | IPC_EXCL | mode);
        EXPECT_NE(id, -1);
        return id;
    }
    static int makeUsable(int mode = 0600) {
        const int id = makeUnfinished(mode);
        sembuf free{0, 1, 0};
        EXPECT_EQ(vxtest::real::semop(id, &free, 1), 0);
        return id;
    }
    // One that is to be removed by its next holder.
    static int makeMarked() { return makeUsable(0700); }

    // init() gives up: the set stays, and as free as it was.
    void expectFailure(int id, int error, const char *text = "unable to obtain semaphore-set") {
        const int value = vxtest::real::semctl(id, 0, GETVAL, nullptr);
        CSemaphore lock(file, project);
        EXPECT_EQ(lock.init(), -1);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(log.take(), (Lines{{LOG_ERR, textf("CSemaphore::init() - %s - errno=%i", text, error)}}));
        EXPECT_EQ(setOfKey(), id);
        EXPECT_EQ(vxtest::real::semctl(id, 0, GETVAL, nullptr), value);
        remove(id);
    }
    // init() makes another set.
    static void expectReplacement(int id) {
        CSemaphore lock(file, project);
        EXPECT_EQ(lock.init(), 0);
        EXPECT_NE(setOfKey(), id);
        EXPECT_EQ(lock.lock(), 0);
        EXPECT_EQ(lock.unlock(), 0);
        EXPECT_EQ(vxtest::real::semctl(setOfKey(), 0, GETVAL, nullptr), 1);
        remove(setOfKey());
    }

    // A hook for the nth call with this command.
    static SemctlHook at(int command, int nth, const std::function<std::optional<int>(int id)> &answer) {
        return [=, count = 0](int id, int asked, semid_ds *) mutable -> std::optional<int> {
            return asked == command && ++count == nth ? answer(id) : std::nullopt;
        };
    }
    // Another process removes the set before the call.
    static std::optional<int> removedFirst(int id) {
        remove(id);
        return std::nullopt;
    }
};

// ---- time limits

TEST_F(Sets, TheGuardIsWaitedForTenSeconds) {
    CSemaphore guard(libraryFile, 1);
    ASSERT_EQ(guard.init(), 0);
    ASSERT_EQ(guard.lock(), 0);
    {
        const WaitsEnded waits(std::chrono::seconds(10), take);
        EXPECT_EQ(CRecursiveSemaphore(fresh()).lock(), -1);
    }
    EXPECT_EQ(log.take(), (Lines{{LOG_ERR, textf("CSemaphore::lock() - semop failed, errno=%i", EAGAIN)},
                                 {LOG_ERR, "recursive-semaphore: unable to lock guarding semaphore"}}));
    EXPECT_EQ(guard.unlock(), 0);
}

TEST_F(Sets, InitWaitsFiveSecondsForTheHolderOfAMarkedSet) {
    const int id = makeMarked();
    sembuf hold{0, -1, SEM_UNDO};
    ASSERT_EQ(::semop(id, &hold, 1), 0);
    const WaitsEnded waits(std::chrono::seconds(5), take);
    expectFailure(id, EAGAIN);
}

TEST_F(Sets, InitWaitsOneSecondForTheMakerOfAnUnfinishedSet) {
    const int id = makeUnfinished();
    const WaitsEnded waits(std::chrono::seconds(1), takeAndGive);
    expectReplacement(id);
}

TEST_F(Sets, InitEndsAfterFiveSecondsWhenEverySetDisappears) {
    int looks = 0;
    const Hooked clock(hooks::clock_gettime, [&](clockid_t id, timespec *time) -> std::optional<int> {
        const int result = vxtest::real::clock_gettime(id, time);
        time->tv_sec += looks;
        return result;
    });
    const int id = makeUsable();
    const Hooked disappears(hooks::semctl, [&](int, int command, semid_ds *) -> std::optional<int> {
        if (command != GETVAL) return std::nullopt;
        ++looks;
        return fails(EIDRM);
    });
    expectFailure(id, ETIMEDOUT);
    EXPECT_GE(looks, 5);
}

// ---- calls that fail

TEST_F(Sets, ASetThatCannotBeLookedAtIsNotUsed) {
    for (const int command : {GETVAL, GETPID, IPC_STAT}) {
        const int id = makeUsable();
        const Hooked refuses(hooks::semctl, at(command, 1, [](int) { return fails(EACCES); }));
        expectFailure(id, EACCES);
    }
}

TEST_F(Sets, ASetThatDisappearsWhileItIsLookedAtIsMadeAnew) {
    for (const int command : {GETVAL, GETPID, IPC_STAT}) {
        for (const int error : {EIDRM, EINVAL}) {
            const int id = makeUsable();
            const Hooked removed(hooks::semctl, at(command, 1, [error](int gone) {
                                     remove(gone);
                                     return fails(error);
                                 }));
            expectReplacement(id);
        }
    }
}

TEST_F(Sets, AFullKernelIsReportedThoughTheSetMayExist) {
    const int id = makeUsable();
    const Hooked full(hooks::semget, [](key_t, int, int flags) -> std::optional<int> {
        if ((flags & IPC_EXCL) == 0) return std::nullopt;
        return fails(ENOSPC);
    });
    expectFailure(id, ENOSPC);
}

TEST_F(Sets, ASetThatIsRemovedWhileItIsOpenedIsMadeAnew) {
    const int id = makeUsable();
    const Hooked remover(hooks::semget, [id](key_t, int, int flags) -> std::optional<int> {
        if (flags == 0600) remove(id);
        return std::nullopt;
    });
    expectReplacement(id);
}

TEST_F(Sets, ASetThatIsRemovedBeforeItIsFreedIsMadeAgain) {
    std::vector<Operation> operations;
    const Hooked remover(hooks::semop, [&](int id, sembuf *operation, size_t) -> std::optional<int> {
        operations.push_back({operation->sem_op, operation->sem_flg});
        if (operations.size() == 1) remove(id);
        return std::nullopt;
    });
    expectReplacement(-1);
    EXPECT_EQ(operations, (std::vector<Operation>{{1, 0}, {1, 0}, {-1, SEM_UNDO}, {1, SEM_UNDO}}));
}

TEST_F(Sets, TheGuardIsLookedForAgainWhenItWasReplaced) {
    { const CRecursiveSemaphore makesTheGuard(fresh()); }
    log.take();
    bool removed = false;
    const Hooked remover(hooks::semop, [&](int id, sembuf *operation, size_t) -> std::optional<int> {
        if (operation->sem_op == -1 && !removed) removed = remove(id) == 0;
        return std::nullopt;
    });
    const std::string name = fresh();
    CRecursiveSemaphore lock(name);
    EXPECT_TRUE(removed);
    EXPECT_EQ(log.take(), Lines{created(name)});
    EXPECT_EQ(lock.lock(), 0);
    EXPECT_EQ(lock.unlock(), 0);
}

// ---- sets whose maker died

// The calls that a replacement makes: status for the mark, which comes after two looks; the mark; the removal.
struct Step {
    int command;
    int nth;
};
constexpr Step replacement[] = {{IPC_STAT, 3}, {IPC_SET, 1}, {IPC_RMID, 1}};

TEST_F(Sets, AnUnfinishedSetThatCannotBeReplacedIsReported) {
    for (const auto &[command, nth] : replacement) {
        const int id = makeUnfinished();
        const WaitsEnded waits(std::chrono::seconds(1), takeAndGive);
        const Hooked refuses(hooks::semctl, at(command, nth, [](int) { return fails(EPERM); }));
        expectFailure(id, EPERM);
    }
}

TEST_F(Sets, AnUnfinishedSetThatAnotherReplacesIsLookedForAgain) {
    for (const auto &[command, nth] : replacement) {
        const int id = makeUnfinished();
        const WaitsEnded waits(std::chrono::seconds(1), takeAndGive);
        const Hooked removed(hooks::semctl, at(command, nth, removedFirst));
        expectReplacement(id);
    }
    const int id = makeUnfinished();
    const Hooked removed(hooks::semtimedop, [](int gone, sembuf *, size_t, const timespec *) -> std::optional<int> {
        remove(gone);
        return fails(EIDRM);
    });
    expectReplacement(id);
}

TEST_F(Sets, AMarkedSetThatCannotBeTakenIsReported) {
    const int id = makeMarked();
    const Hooked refuses(hooks::semop, failingWith(EACCES));
    expectFailure(id, EACCES);
}

TEST_F(Sets, AMarkedSetThatCannotBeRemovedIsGivenBack) {
    const int id = makeMarked();
    const Hooked refuses(hooks::semctl, at(IPC_RMID, 1, [](int) { return fails(EPERM); }));
    expectFailure(id, EPERM);
}

TEST_F(Sets, AMarkedSetThatAnotherRemovesIsMadeAnew) {
    {
        const int id = makeMarked();
        const Hooked removed(hooks::semctl, at(IPC_RMID, 1, removedFirst));
        expectReplacement(id);
    }
    const int id = makeMarked();
    int operations = 0;
    const Hooked removed(hooks::semop, [&](int marked, sembuf *, size_t) -> std::optional<int> {
        if (++operations == 1) remove(marked);
        return std::nullopt;
    });
    expectReplacement(id);
}

// ---- sets of other users, and of other namespaces

// Says that another user made the set of this id, or owns it.
SemctlHook strangers(int id, uid_t ipc_perm::*user, const SemctlHook &otherwise) {
    return [=](int asked, int command, semid_ds *status) -> std::optional<int> {
        if (asked != id || command != IPC_STAT) return otherwise(asked, command, status);
        const int result = vxtest::real::semctl(id, 0, command, status);
        status->sem_perm.*user = 12345;
        return result;
    };
}

TEST_F(Sets, ASetThatAStrangerMadeOrOwnsIsReplaced) {
    const auto removable = [](int, int, semid_ds *) -> std::optional<int> { return std::nullopt; };
    for (uid_t ipc_perm::*const user : {&ipc_perm::cuid, &ipc_perm::uid}) {
        {
            const int id = makeUsable();
            const Hooked owned(hooks::semctl, strangers(id, user, removable));
            expectReplacement(id);
        }
        {
            const int id = makeUsable();
            const Hooked owned(hooks::semctl, strangers(id, user, at(IPC_RMID, 1, removedFirst)));
            expectReplacement(id);
        }
        const int id = makeUsable();
        const auto refuse = at(IPC_RMID, 1, [](int) { return fails(EPERM); });
        const Hooked owned(hooks::semctl, strangers(id, user, refuse));
        expectFailure(id, EPERM, "refusing the semaphore-set of another user");
    }
}

// The process number of an operation is 0 for processes of another PID namespace.
TEST_F(Sets, ASetThatAnotherPidNamespaceHoldsIsNotTakenForUnfinished) {
    CSemaphore lock(file, project);
    ASSERT_EQ(lock.init(), 0);
    ASSERT_EQ(lock.lock(), 0);
    const int id = setOfKey();
    EXPECT_EQ(vxtest::inChild([] {
                  if (::unshare(CLONE_NEWPID) != 0) return 100;
                  return vxtest::inChild([] { return CSemaphore(file, project).init() == 0 ? 0 : 1; });
              }),
              0);
    EXPECT_EQ(setOfKey(), id);
    EXPECT_EQ(lock.unlock(), 0);
}

// Others may have set the value instead of operating on it.
TEST_F(Sets, ASetWhoseValueWasSetToZeroCountsAsHeld) {
    const int id = makeUnfinished();
    ASSERT_EQ(::semctl(id, 0, SETVAL, 0), 0);
    CSemaphore lock(file, project);
    EXPECT_EQ(lock.init(), 0);
    EXPECT_EQ(setOfKey(), id);
}

}  // namespace
