// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/lock.h>

#include "support/files.h"
#include "torture/faults.h"

using torture::Run;
using namespace std::chrono_literals;

namespace {

void directoryLock(Run &run) {
    const char *const path = "/tmp/torture/lock";
    const int got = run([&] { return acquire_lock(path, 3); }, 4s);
    run.outcome("acquire_lock", got == 0, got == -1);
    const int second = run([&] { return acquire_lock(path, 2); }, 3s);
    run.always("a lock has one holder", second == -1 || got != 0);
    const int released = run([&] { return release_lock(path); });
    run.outcome("release_lock", released == 0 && !vxtest::exists(path), released == 0);
    ::rmdir(path);
}

bool isFree() {
    const int fd = ::open("/var/lock/iptables_flock_file", O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
    const bool got = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
    ::close(fd);
    return got;
}

void firewallLock(Run &run) {
    firewall_lock_handle *lock = run([] { return firewall_lock(); });
    if (run.outcome("firewall_lock", lock != nullptr, lock == nullptr, "firewall_lock: ")) {
        run.always("a held lock is not free", !isFree());
    }
    const int released = run([&] { return firewall_unlock(lock); });
    run.outcome("firewall_unlock", released == 0, released == 0);
    run.always("the lock is free afterwards", isFree());
}

}  // namespace

int main(int argc, char **argv) {
    vxtest::makeDirs("/var/lock");
    return torture::torment(argc, argv, {{"lock: directory", directoryLock}, {"lock: packet filter", firewallLock}});
}
