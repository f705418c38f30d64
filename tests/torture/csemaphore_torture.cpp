// SPDX-License-Identifier: MIT
#include <sys/mman.h>
#include <sys/sem.h>
#include <vxutils/csemaphore.h>

#include <memory>
#include <new>
#include <string>

#include "support/files.h"
#include "torture/faults.h"

using torture::Run;

namespace {

const std::string keyFile = "/tmp/torture.key";
const std::string name = "/torture";

void removeSet() {
    const int set = ::semget(::ftok(keyFile.c_str(), 7), 1, 0);
    if (set != -1) ::semctl(set, 0, IPC_RMID);
}

void systemV(Run &run) {
    CSemaphore lock(keyFile, 7);
    const int made = run([&] { return lock.init(); });
    run.outcome("init", made == 0, made == -1, "CSemaphore::init()");
    // A set that was made and not initialised is left, locked: its maker was told.
    if (made == 0) {
        const int locked = run([&] { return lock.lock(); });
        run.outcome("lock", locked == 0, locked == -1, "CSemaphore::lock()");
        if (locked == 0) {
            const int unlocked = run([&] { return lock.unlock(); });
            run.outcome("unlock", unlocked == 0, unlocked == -1, "CSemaphore::unlock()");
        }
    }
    removeSet();
}

void shared(Run &run) {
    ::shm_unlink(name.c_str());
    std::unique_ptr<CRecursiveSemaphore> lock;
    const bool thrown = run([&] {
        try {
            lock = std::make_unique<CRecursiveSemaphore>(name);
            return false;
        } catch (const std::bad_alloc &) {  // documented for the constructors
            return true;
        }
    });
    // The object's file may be there already, all zero: the next user initialises it.
    if (thrown) ::shm_unlink(name.c_str());
    if (!run.outcome("CRecursiveSemaphore", lock != nullptr, thrown)) return;
    const bool usable = !run.hit();
    const int locked = run([&] { return lock->lock(); });
    const int again = run([&] { return lock->trylock(); });
    if (usable) run.outcome("trylock", locked == 0 && again == 0, locked == -1 || again != 0);
    run.always("locked twice or not at all", locked == 0 || again == -1);
    if (again == 0) run([&] { return lock->unlock(); });
    if (locked == 0) {
        const int unlocked = run([&] { return lock->unlock(); });
        run.always("unlock", unlocked == 0);
    }
    run([&] { lock.reset(); });
    ::shm_unlink(name.c_str());
}

}  // namespace

int main(int argc, char **argv) {
    vxtest::writeFile(keyFile, "");
    vxtest::writeFile("/usr/lib/libvxutils.so.1.0.0", "");
    return torture::torment(argc, argv, {{"csemaphore: System V", systemV}, {"csemaphore: shared", shared}});
}
