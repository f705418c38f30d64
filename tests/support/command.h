// SPDX-License-Identifier: MIT
// What the tests of commands share: a directory of their own, the System V segments that a detached
// start makes, descriptors and output of what is run.
#pragma once

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>
#include <vxutils/command.h>

#include <cstring>
#include <ctime>
#include <fstream>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "support/call_hooks.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"

VXTEST_HOOK_AS(int, clock_nanosleep, "__clock_nanosleep_time64",
               (clockid_t clock, int flags, const timespec *request, timespec *left), (clock, flags, request, left))

namespace vxtest::command {

inline const char *const noMore = nullptr;

inline const std::string dir = "/tmp/command";

inline std::string path(const std::string &name) { return dir + "/" + name; }

// Segments of this IPC namespace; a detached start must not leave one.
inline int segments() {
    std::ifstream table("/proc/sysvipc/shm");
    int lines = -1;
    for (std::string line; std::getline(table, line);) ++lines;
    return lines;
}

class Commands : public testing::Test {
protected:
    void SetUp() override {
        run({"rm", "-rf", dir});
        makeDirs(dir);
        ASSERT_EQ(::chdir(dir.c_str()), 0);
        ASSERT_EQ(segments(), 0);
    }
    // One that is removed lives on until the detached program, still attached, has been started.
    void TearDown() override {
        EXPECT_TRUE(eventually([] { return segments() == 0; }));
    }

    NoLeaks noLeaks_;
};

// Descriptors that a program started in this mode finds open; its standard output becomes a file.
inline std::string openIn(int mode) {
    ::unlink(path("open").c_str());
    const std::string list = "exec >" + path("open.tmp") +
                             "; for f in /proc/self/fd/*; do [ -e $f ] && echo -n \"${f##*/} \"; done; exec mv " +
                             path("open.tmp") + " " + path("open");
    EXPECT_GE(_exec_command(mode, "/bin/sh", "sh", "-c", list.c_str(), noMore), 0);
    EXPECT_TRUE(eventually([] { return exists(path("open")); }));
    return readFile(path("open"));
}

inline int makeToken() { return ::shmget(::ftok(".", 52), 4, IPC_CREAT | IPC_EXCL | 0600); }

// Lets every pause end at once and keeps its length.
struct WithoutPauses {
    std::vector<long> lengths_ns;
    vxtest::Hooked<decltype(vxtest::hooks::clock_nanosleep)> hook{
        vxtest::hooks::clock_nanosleep,
        [this](clockid_t clock, int flags, const timespec *request, timespec *) -> std::optional<int> {
            EXPECT_EQ(clock, CLOCK_MONOTONIC);
            EXPECT_EQ(flags, 0);
            EXPECT_EQ(request->tv_sec, 0);
            lengths_ns.push_back(request->tv_nsec);
            return 0;
        }};
};

struct Evaluated {
    int result;
    std::string text;
    bool operator==(const Evaluated &) const = default;
};
inline std::ostream &operator<<(std::ostream &out, const Evaluated &e) {
    return out << e.result << " \"" << e.text << '"';
}

inline Evaluated eval(const std::string &command, size_t size) {
    GuardedBuffer out(size);
    std::memset(out.data(), '?', size);
    const int result = eval_command(command.c_str(), out.data(), size);
    return {result, out.data()};
}

}  // namespace vxtest::command
