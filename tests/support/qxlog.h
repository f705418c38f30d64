// SPDX-License-Identifier: MIT
// What the tests of the device log share: the log's files, its semaphore, what a call prints, a clock that stands still.
// To be included by one source file of a test program.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/qxlog.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "support/call_hooks.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"

VXTEST_HOOK_AS(time_t, time, "__time64", (time_t * result), (result))

namespace vxtest::devicelog {

inline const std::string logFile = "/var/log/qxlog";
inline const std::string temporary = "/var/log/qxlog.tmp";

inline std::vector<std::string> linesOf(const std::string &text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

inline std::vector<std::string> logLines() { return linesOf(readFile(logFile)); }

inline mode_t modeOf(const std::string &name) {
    struct stat status {};
    return ::stat(name.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

inline key_t key() { return ::ftok("/etc/fstab", 69); }
inline int semaphore() { return ::semget(key(), 1, 0); }
inline int semaphoreValue() { return ::semctl(semaphore(), 0, GETVAL); }

class DeviceLog : public testing::Test {
protected:
    void SetUp() override {
        makeDirs("/var/log");
        if (key() == -1) run({"touch", "/etc/fstab"});
        for (const std::string &name : {logFile, temporary}) ::unlink(name.c_str());
        if (semaphore() != -1) ::semctl(semaphore(), 0, IPC_RMID);
        ::setenv("TZ", "UTC", 1);
        hooks::time = [this](time_t *result) -> std::optional<time_t> {
            if (result != nullptr) *result = now_;
            return now_;
        };
    }
    void TearDown() override { hooks::time = nullptr; }

    time_t now_ = 1794732000;  // 2026-11-15 08:40 UTC
    NoLeaks noLeaks_;
};

// Result of the call and what it printed on standard error, in a child that SIGALRM ends after 4 s.
struct Reported {
    int result;
    std::string text;
    bool operator==(const Reported &) const = default;
};
inline std::ostream &operator<<(std::ostream &out, const Reported &r) {
    return out << r.result << " \"" << r.text << '"';
}

inline Reported reported(const std::function<int()> &call) {
    const std::string file = "/tmp/stderr";
    const int result = inChild([&] {
        const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        ::dup2(fd, 2);
        ::alarm(4);
        return call();
    });
    Reported all{result == 255 ? -1 : result, readFile(file)};
    ::unlink(file.c_str());
    return all;
}

inline int append() { return qxlog(1, "entry"); }
inline int readLog() {
    char buffer[300];
    return qxlog_read(buffer, sizeof buffer);
}

inline std::string readInto(size_t size, int *result = nullptr) {
    GuardedBuffer buffer(size);
    std::memset(buffer.data(), '?', size);
    const int got = qxlog_read(buffer.data(), size);
    if (result != nullptr) *result = got;
    const std::string all(buffer.data(), size);
    const std::string text = all.c_str();
    if (got == 0) EXPECT_EQ(all.find_first_not_of('\0', text.size()), std::string::npos) << "the rest is zero";
    return text;
}

// "NUMBER: TIME NUMBER-xxxx...": the text repeats the number, and its length follows from it.
inline std::string message(int number) {
    return std::to_string(number) + "-" + std::string(static_cast<size_t>(number * 37 % 900), 'x');
}

inline bool isWhole(const std::string &line) {
    const int number = std::atoi(line.c_str());
    return line == std::to_string(number) + ": 2026-11-15 08:40 " + message(number);
}

inline void expectWholeLines(const std::string &text) {
    if (!text.empty()) EXPECT_EQ(text.back(), '\n');
    for (const std::string &line : linesOf(text)) EXPECT_TRUE(isWhole(line)) << line;
}

}  // namespace vxtest::devicelog
