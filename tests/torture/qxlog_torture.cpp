// SPDX-License-Identifier: MIT
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>
#include <vxutils/qxlog.h>

#include <string>

#include "support/files.h"
#include "support/stranger.h"
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
    // Only the semaphore counts: Quirk Q93.
    const bool semaphore = run.failed("ftok") || run.failed("semget") || run.failed("semctl") || run.failed("semop") ||
                           run.failed("semtimedop");
    run.outcome("qxlog_clear", cleared == 0 && vxtest::readFile("/var/log/qxlog").empty(), cleared == 0 || semaphore);
    ::unlink("/var/log/qxlog");
    ::unlink("/var/log/qxlog.tmp");
    removeSemaphore();
}

// Most bytes of the message are escaped, in memory of their own.
void writeLongMessage(Run &run) {
    const std::string message(600, '\x01');
    std::string shown;
    for (size_t i = 0; i < message.size(); ++i) shown += "\\x01";
    const int written = run([&] { return qxlog(2, message.c_str()); });
    const std::string content = vxtest::readFile("/var/log/qxlog");
    const bool whole = content.find(shown) != std::string::npos;
    run.outcome("qxlog", written == 0 && whole, written == -1 || run.failed("malloc"));
    run.always("the log holds no control character", content.find('\x01') == std::string::npos);
    ::unlink("/var/log/qxlog");
    ::unlink("/var/log/qxlog.tmp");
    removeSemaphore();
}

// A set that another user made is replaced.
void replaceAStrangersSemaphore(Run &run) {
    run.always("a stranger makes the set", vxtest::asUser(vxtest::stranger, [] {
                                               return ::semget(::ftok("/etc/fstab", 69), 1, IPC_CREAT | 0666) != -1 ? 0
                                                                                                                    : 1;
                                           }) == 0);
    const int written = run([] { return qxlog(2, "text"); });
    const bool added = vxtest::readFile("/var/log/qxlog").find("text") != std::string::npos;
    run.outcome("qxlog", written == 0 && added, written == -1 || added);
    ::unlink("/var/log/qxlog");
    ::unlink("/var/log/qxlog.tmp");
    removeSemaphore();
}

}  // namespace

int main(int argc, char **argv) {
    vxtest::writeFile("/etc/fstab", "");
    if (std::freopen("/dev/null", "w", stderr) == nullptr) return 2;  // what failed is reported there, documented
    return torture::torment(argc, argv,
                            {{"qxlog: write and read", writeAndRead},
                             {"qxlog: long message", writeLongMessage},
                             {"qxlog: semaphore of a stranger", replaceAStrangersSemaphore}});
}
