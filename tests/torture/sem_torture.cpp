// SPDX-License-Identifier: MIT
#include <sys/mman.h>
#include <vxutils/sem.h>

#include <cerrno>

#include "support/files.h"
#include "torture/faults.h"

using torture::Run;

namespace {

const char *const name = "/torture-sem";

void plainFace(Run &run) {
    ::shm_unlink(name);
    sem_options *options = run([] { return sem_options_create(); });
    run.outcome("sem_options_create", options != nullptr, options == nullptr);
    semopt_set_consistent_mode_manual(options);
    sem_handle *handle = run([&] { return sem_create_with_options(name, options); });
    // A lock that could not be set up gives a handle whose calls fail.
    const bool usable = run.outcome("sem_create_with_options", handle != nullptr && !run.hit(), true);
    const int locked = run([&] { return sem_lock(handle); });
    if (usable) run.outcome("sem_lock", locked == 0, locked != 0);
    run.always("an unusable lock is refused", locked == 0 || locked == -1);
    if (locked == 0) run.always("sem_unlock", run([&] { return sem_unlock(handle); }) == 0);
    sem_handle *second = run([&] { return sem_create(name); });
    const bool also = run.outcome("sem_create", second != nullptr && !run.hit(), true);
    const int tried = run([&] { return sem_trylock(second); });
    if (also) run.outcome("sem_trylock", tried == 0, tried != 0);
    const bool held = run.failed("pthread_mutex_timedlock") && tried == EBUSY;
    run.always("an unusable lock is refused", tried == 0 || tried == -1 || held);
    if (tried == 0) run.always("sem_unlock", run([&] { return sem_unlock(second); }) == 0);
    run([&] {
        sem_release(second);
        sem_release(handle);
        semopts_release(options);
    });
    ::shm_unlink(name);
}

}  // namespace

int main(int argc, char **argv) {
    vxtest::writeFile("/usr/lib/libvxutils.so.1.0.0", "");
    return torture::torment(argc, argv, {{"sem: plain face", plainFace}});
}
