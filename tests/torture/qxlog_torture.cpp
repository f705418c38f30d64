// SPDX-License-Identifier: MIT
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>
#include <vxutils/qxlog.h>

#include <string>

#include "support/files.h"
#include "torture/faults.h"

using torture::Run;

namespace {

void removeSemaphore() {
    const int set = ::semget(::ftok("/etc/fstab", 69), 1, 0);
    if (set != -1) ::semctl(set, 0, IPC_RMID);
}

void writeAndRead(Run &run) {
    vxtest::writeFile("/var/log/qxlog", "1: 2024-01-01 00:00 older\n");
    const int written = run([] { return qxlog(2, "newer"); });
    const std::string content = vxtest::readFile("/var/log/qxlog");
    const bool added = content.find("newer") != std::string::npos;
    run.outcome("qxlog", written == 0 && added, written == -1 || added);
    run.always("the log is whole", content.empty() || content.back() == '\n');
    run.always("no entry is lost", content.find("older") != std::string::npos);
    char text[4096];
    const int read = run([&] { return qxlog_read(text, sizeof text); });
    run.outcome("qxlog_read", read == 0 && content == text, read == -1 || content.rfind(text, 0) == 0);
    const int cleared = run([] { return qxlog_clear(); });
    run.outcome("qxlog_clear", cleared == 0 && vxtest::readFile("/var/log/qxlog").empty(), true);
    ::unlink("/var/log/qxlog");
    ::unlink("/var/log/qxlog.tmp");
    removeSemaphore();
}

}  // namespace

int main(int argc, char **argv) {
    vxtest::writeFile("/etc/fstab", "");
    if (std::freopen("/dev/null", "w", stderr) == nullptr) return 2;  // what failed is reported there, documented
    return torture::torment(argc, argv, {{"qxlog: write and read", writeAndRead, {"/var/log"}}});
}
