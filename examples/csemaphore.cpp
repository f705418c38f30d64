// SPDX-License-Identifier: MIT
// A lock whose owner is killed, and who notices.
#include <sys/wait.h>
#include <unistd.h>
#include <vxutils/csemaphore.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

namespace {

void use(CRecursiveSemaphore &lock) {
    const int result = lock.lock();
    if (result != 0 && result != EOWNERDEAD) return;
    // What the lock protects may be half done after a death: here is the place to look.
    std::puts(result == EOWNERDEAD ? "parent: locked, the owner before died" : "parent: locked");
    lock.unlock();
}

}  // namespace

int main() {
    CRecursiveSemaphore lock("/example-lock");
    int ready[2];
    if (::pipe(ready) != 0) return 1;
    const pid_t child = ::fork();
    if (child == -1) return 1;
    if (child == 0) {
        if (lock.lock() == -1) ::_exit(1);
        static const char text[] = "child: locked, busy\n";
        if (::write(1, text, sizeof text - 1) == -1 || ::write(ready[1], "x", 1) == -1) ::_exit(1);
        for (;;) ::pause();
    }
    ::close(ready[1]);
    char byte;
    if (::read(ready[0], &byte, 1) != 1) return 1;
    std::puts("parent: kills the child");
    ::kill(child, SIGKILL);
    use(lock);
    ::waitpid(child, nullptr, 0);
    use(lock);
    return 0;
}
