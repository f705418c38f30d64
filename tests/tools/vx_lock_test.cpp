// SPDX-License-Identifier: MIT
// vx lock, run and proc with real processes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/lock.h>
#include <vxutils/sem.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>

#include "support/emulation.h"
#include "support/files.h"
#include "support/vx.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using vxtest::Process;
using vxtest::vx;
using vxtest::vxCommand;
using vxtest::vxJson;
using vxtest::vxScript;

// Whether another could take the lock.
bool isFree(const char *name) {
    sem_handle *handle = sem_create(name);
    const int result = sem_trylock(handle);
    if (result == 0 || result == EOWNERDEAD) sem_unlock(handle);
    sem_release(handle);
    return result == 0;
}

// ---- lock

class VxLock : public testing::Test {
protected:
    VxLock() {
        const std::string libraryFile = "/usr/lib/libvxutils.so.1.0.0";  // named locks are guarded by it
        if (!vxtest::exists(libraryFile)) vxtest::writeFile(libraryFile, "");
        vxtest::makeDirs("/var/lock");
    }
};

TEST_F(VxLock, RunsTheCommandWhileTheLockIsHeld) {
    Process holder(vxCommand({"lock", "modem0", "--", "sh", "-c", "echo locked; read line; exit 7"}));
    EXPECT_EQ(holder.readLine(), "locked");
    EXPECT_FALSE(isFree("/modem0"));
    holder.send("go\n");
    EXPECT_EQ(holder.wait(), 7);
    EXPECT_TRUE(isFree("/modem0"));
}

TEST_F(VxLock, PassesTheStatusThrough) {
    EXPECT_EQ(vx({"lock", "a", "--", "true"}).status, 0);
    EXPECT_EQ(vx({"lock", "a", "--", "sh", "-c", "exit 255"}).status, 255);
    EXPECT_EQ(vxScript("vx lock a -- sh -c 'kill -KILL $$'; echo $?").out, "137\n");
    EXPECT_EQ(vx({"lock", "a", "--", "/nonexistent"}).status, 127);
    EXPECT_EQ(vx({"lock", "a", "--", "no-such-program"}).err, "vx: lock: no-such-program: No such file or directory\n");
    EXPECT_EQ(vx({"lock", "a", "--", "/etc"}).status, 126);
    vxtest::writeFile("/tmp/not-executable", "");
    EXPECT_EQ(vx({"lock", "a", "--", "/tmp/not-executable"}).status, 126);
    EXPECT_TRUE(isFree("/a"));
}

TEST_F(VxLock, WordsReachTheCommandAsTheyAre) {
    EXPECT_EQ(vx({"lock", "a", "--", "printf", "<%s>", "[a-z]", "{}", "--", "-j", "", "a b\n"}).out,
              "<[a-z]><{}><--><-j><><a b\n>");
}

TEST_F(VxLock, TryAndWaitEndWithStatus124) {
    Process holder(vxCommand({"lock", "busy", "--", "sh", "-c", "echo locked; read line"}));
    EXPECT_EQ(holder.readLine(), "locked");
    auto result = vx({"lock", "--try", "busy", "--", "echo", "never"});
    EXPECT_EQ(result.status, 124);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "vx: lock: busy: locked by another\n");
    const auto begin = std::chrono::steady_clock::now();
    result = vx({"lock", "--wait", "0.3", "busy", "--", "echo", "never"});
    EXPECT_EQ(result.status, 124);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(300));
    Process waiter(vxCommand({"lock", "busy", "--", "echo", "mine"}));
    Process limited(vxCommand({"lock", "--wait", "20", "busy", "--", "echo", "mine"}));
    holder.send("go\n");
    EXPECT_EQ(waiter.readLine(), "mine");
    EXPECT_EQ(limited.readLine(), "mine");
    EXPECT_EQ(waiter.wait() + limited.wait(), 0);
    EXPECT_EQ(vx({"lock", "--try", "busy", "--", "echo", "now"}).out, "now\n");
}

TEST_F(VxLock, SaysThatTheOwnerBeforeHadDied) {
    if (vxtest::emulated()) GTEST_SKIP() << "no robust mutexes under user-mode emulation";
    Process holder(vxCommand({"lock", "left", "--", "sh", "-c", "echo $PPID; echo $$; exec sleep 60"}));
    const pid_t owner = std::stoi(holder.readLine());
    const pid_t command = std::stoi(holder.readLine());
    ::kill(owner, SIGKILL);
    holder.wait();
    ::kill(command, SIGKILL);
    auto result = vx({"lock", "left", "--", "echo", "mine"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "mine\n");
    EXPECT_EQ(result.err, "vx: lock: left: the owner before died while it held the lock\n");
    EXPECT_EQ(vx({"lock", "left", "--", "true"}).err, "");
}

TEST_F(VxLock, SignalsGoToTheCommandAndTheLockIsGivenBack) {
    Process holder(vxCommand(
        {"lock", "sig", "--", "sh", "-c", "trap 'echo term; exit 3' TERM; echo up; while :; do sleep 0.05; done"}));
    EXPECT_EQ(holder.readLine(), "up");
    holder.signal(SIGTERM);
    EXPECT_EQ(holder.readLine(), "term");
    EXPECT_EQ(holder.wait(), 3);
    EXPECT_TRUE(isFree("/sig"));
}

// vx would end and give the lock back while the command goes on.
TEST_F(VxLock, EverySignalThatWouldEndVxGoesToTheCommand) {
    for (const int number : {SIGHUP, SIGUSR1, SIGUSR2, SIGPIPE, SIGALRM, SIGVTALRM, SIGPROF, SIGXCPU, SIGRTMIN}) {
        if (vxtest::emulated() && number == SIGRTMIN) continue;  // another number for the shell
        Process holder(
            vxCommand({"lock", "every", "--", "sh", "-c",
                       "trap 'exit 3' " + std::to_string(number) + "; echo up; while :; do sleep 0.05; done"}));
        EXPECT_EQ(holder.readLine(), "up") << number;
        holder.signal(number);
        EXPECT_EQ(holder.wait(), 3) << number;
        EXPECT_TRUE(isFree("/every")) << number;
    }
}

// As the only program of a remote session: the kernel tells no other process that the terminal has gone.
TEST_F(VxLock, AHangUpOfTheTerminalEndsTheCommand) {
    int terminal = -1;
    const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
    if (pid == 0) ::_exit(vxtest::becomeVx({"lock", "remote", "--", "sh", "-c", "echo up; exec sleep 60"}));
    char first = 0;
    EXPECT_EQ(::read(terminal, &first, 1), 1);
    ::close(terminal);
    EXPECT_EQ(vxtest::waitChild(pid), 128 + SIGHUP);
    EXPECT_TRUE(isFree("/remote"));
}

TEST_F(VxLock, FirewallTakesThePacketFiltersLock) {
    firewall_lock_handle *held = firewall_lock();
    ASSERT_NE(held, nullptr);
    const auto result = vx({"lock", "--firewall", "--wait", "0.2", "--", "echo", "never"});
    EXPECT_EQ(result.status, 124);
    EXPECT_EQ(result.err, "vx: lock: packet filter: locked by another\n");
    EXPECT_EQ(vx({"lock", "--firewall", "--wait", "0", "--", "true"}).status, 124);
    EXPECT_EQ(vx({"lock", "--firewall", "--try", "--", "true"}).status, 124);
    Process waiter(vxCommand({"lock", "--firewall", "--", "echo", "mine"}));
    firewall_unlock(held);
    EXPECT_EQ(waiter.readLine(), "mine");
    EXPECT_EQ(vx({"lock", "--wait", "1", "--firewall", "--", "sh", "-c", "exit 9"}).status, 9);
    // A free lock is to be had without any waiting.
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(vx({"lock", "--wait", "0", "--firewall", "--", "true"}).status, 0);
        EXPECT_EQ(vx({"lock", "--try", "--firewall", "--", "true"}).status, 0);
    }
}

// The thread that has taken the lock may still be there when the command runs, and must not be the one to get a signal.
TEST_F(VxLock, OnlyTheFirstThreadGetsSignals) {
    if (vxtest::emulated()) GTEST_SKIP() << "the process table is the emulator's";
    firewall_lock_handle *held = firewall_lock();
    ASSERT_NE(held, nullptr);
    Process waiter(vxCommand({"lock", "--firewall", "--wait", "60", "--", "true"}));
    const std::string process = std::to_string(waiter.pid());
    const auto otherThread = [&] {
        for (const auto &entry : std::filesystem::directory_iterator("/proc/" + process + "/task")) {
            if (entry.path().filename() != process) return vxtest::readFile(entry.path() / "status");
        }
        return std::string();
    };
    EXPECT_TRUE(vxtest::eventually([&] {
        const std::string status = otherThread();
        const size_t at = status.find("SigBlk:\t");
        if (at == std::string::npos) return false;
        return (std::stoull(status.substr(at + 8), nullptr, 16) >> (SIGTERM - 1) & 1) != 0;
    }));
    firewall_unlock(held);
    EXPECT_EQ(waiter.wait(), 0);
}

TEST_F(VxLock, WrongUsage) {
    for (const auto &words : {std::vector<std::string>{},
                              {"a"},
                              {"a", "--"},
                              {"a", "true"},
                              {"--", "true"},
                              {"a/b", "--", "true"},
                              {"", "--", "true"},
                              {std::string(255, 'n'), "--", "true"},
                              {"--firewall", "a", "--", "true"},
                              {"a", "b", "--", "true"},
                              {"--wait", "x", "a", "--", "true"}}) {
        std::vector<std::string> all{"lock"};
        all.insert(all.end(), words.begin(), words.end());
        EXPECT_EQ(vx(all).status, 2);
    }
    EXPECT_EQ(vx({"lock", std::string(254, 'n'), "--", "true"}).status, 0) << "the longest name";
}

TEST_F(VxLock, ALockThatCannotBeSetUpIsStatus125) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    EXPECT_EQ(vx({"lock", "roots", "--", "true"}).status, 0);
    const auto result = vx({"lock", "roots", "--", "echo", "never"}, {.user = 65534});
    EXPECT_EQ(result.status, 125);
    EXPECT_THAT(result.err, HasSubstr("vx: lock: roots: the lock cannot be set up"));
}

// ---- run

TEST(VxRun, PassesTheStatusThroughOrEndsTheCommand) {
    EXPECT_EQ(vx({"run", "--", "sh", "-c", "echo x; exit 4"}).status, 4);
    EXPECT_EQ(vx({"run", "--timeout", "20", "--", "sh", "-c", "exit 5"}).status, 5);
    EXPECT_EQ(vx({"run", "--timeout", "0.2", "--", "sleep", "60"}).status, 124);
    // What the command started ends too.
    const auto result = vx({"run", "--timeout", "2", "--", "sh", "-c", "sleep 61 & echo $!; wait"});
    EXPECT_EQ(result.status, 124);
    ASSERT_NE(result.out, "");
    EXPECT_TRUE(vxtest::eventually([&] { return ::kill(std::stoi(result.out), 0) != 0; }));
    EXPECT_EQ(vx({"run", "--", "no-such-program"}).status, 127);
    EXPECT_EQ(vx({"run", "true"}).status, 2);
    EXPECT_EQ(vx({"run"}).status, 2);
}

TEST(VxRun, ACommandThatIgnoresSigtermIsKilled) {
    EXPECT_EQ(vx({"run", "--timeout", "0.1", "--", "sh", "-c", "trap '' TERM; while :; do sleep 0.1; done"}).status,
              124);
}

TEST(VxRun, WhatOutlivesTheCommandIsKilledAsWell) {
    const auto result = vx({"run", "--timeout", "1", "--", "sh", "-c",
                            "sh -c \"trap '' TERM; echo \\$\\$; exec sleep 600 >/dev/null 2>&1\" & wait"});
    EXPECT_EQ(result.status, 124);
    ASSERT_NE(result.out, "");
    EXPECT_TRUE(vxtest::eventually([&] { return ::kill(std::stoi(result.out), 0) != 0; }));
}

TEST(VxRun, ACallerThatIgnoresTheEndsOfItsChildrenGetsTheStatus) {
    for (const auto &words : {std::vector<std::string>{"run", "--", "sh", "-c", "exit 7"},
                              {"run", "--timeout", "60", "--", "sh", "-c", "exit 7"},
                              {"lock", "ignoring", "--", "sh", "-c", "exit 7"}}) {
        EXPECT_EQ(vxtest::inChild([&] {
                      ::signal(SIGCHLD, SIG_IGN);
                      return vxtest::becomeVx(words);
                  }),
                  7);
    }
}

TEST(VxRun, ATimeIsNotNegative) {
    for (const char *time : {"--timeout=-1", "--timeout=-0.5", "--timeout=-0"}) {
        EXPECT_EQ(vx({"run", time, "--", "true"}).status, 2) << time;
    }
}

TEST(VxRun, SignalsThatTheCallerIgnoresAreIgnoredByTheCommand) {
    if (vxtest::emulated()) GTEST_SKIP() << "the process table is the emulator's";
    const std::string ignored =
        "sh -c 'while read -r name mask; do [ $name = SigIgn: ] && echo $mask; done </proc/$$/status'";
    const std::string plain = vxScript("trap '' XFSZ HUP PIPE; " + ignored).out;
    EXPECT_NE(plain, "");
    EXPECT_EQ(vxScript("trap '' XFSZ HUP PIPE; vx run -- " + ignored).out, plain);
}

// It is started from the directory "/".
TEST(VxRun, DetachFindsAProgramFromTheWorkingDirectory) {
    vxtest::writeFile("/tmp/relative/bin/program", "#!/bin/sh\n: >/tmp/relative/$1\n");
    EXPECT_EQ(::chmod("/tmp/relative/bin/program", 0755), 0);
    EXPECT_EQ(vx({"run", "--detach", "--", "bin/program", "one"}, {.directory = "/tmp/relative"}).status, 0);
    EXPECT_TRUE(vxtest::eventually([] { return vxtest::exists("/tmp/relative/one"); }));
    EXPECT_EQ(vxJson("run", {"run", "--detach", "--", "program", "two"},
                     {.directory = "/tmp/relative", .environment = {{"PATH", "bin:/usr/bin:/bin"}}})
                  .substr(0, 43),
              R"({"program":"/tmp/relative/bin/program","pid)");
    EXPECT_TRUE(vxtest::eventually([] { return vxtest::exists("/tmp/relative/two"); }));
}

TEST(VxRun, DetachesAndPrintsTheProcess) {
    const auto result = vx({"run", "--detach", "--", "sh", "-c", "echo $$ >/tmp/detached; exec sleep 62"});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(vxtest::eventually([] { return !vxtest::readFile("/tmp/detached").empty(); }));
    EXPECT_EQ(vxtest::readFile("/tmp/detached"), result.out);
    EXPECT_EQ(::kill(std::stoi(result.out), SIGKILL), 0);
    vxJson("run", {"run", "--detach", "--", "true"});
    EXPECT_EQ(vx({"run", "--detach", "--", "no-such-program"}).status, 127);
    EXPECT_EQ(vx({"run", "--detach", "--timeout", "1", "--", "true"}).status, 2);
    std::vector<std::string> many{"run", "--detach", "--", "true"};
    many.insert(many.end(), 15, "x");
    EXPECT_EQ(vx(many).status, 0);
    many.emplace_back("x");
    EXPECT_EQ(vx(many).status, 2);
}

// ---- proc

// A process with this name in its command line.
std::string sleeper() { return "/tmp/vx-sleeper"; }

class VxProc : public testing::Test {
protected:
    VxProc() { EXPECT_EQ(vxScript("cp $(command -v sleep) " + sleeper()).status, 0); }
};

TEST_F(VxProc, FindsCountsAndTells) {
    EXPECT_EQ(vx({"proc", "find", sleeper()}).err, "vx: proc find: " + sleeper() + ": no such process\n");
    EXPECT_EQ(vx({"proc", "count", sleeper()}).out, "0\n");
    Process one({sleeper(), "63"});
    Process two({sleeper(), "64"});
    const std::string first = std::to_string(one.pid());
    const std::string second = std::to_string(two.pid());
    EXPECT_TRUE(vxtest::eventually([] { return vx({"proc", "count", sleeper()}).out == "2\n"; }));
    EXPECT_EQ(vx({"proc", "find", sleeper()}).out, first + "\n" + second + "\n");
    EXPECT_EQ(vx({"proc", "find", "--names", sleeper() + " 64"}).out, second + " " + sleeper() + " 64\n");
    EXPECT_EQ(vxJson("proc-find", {"proc", "find", sleeper() + " 63"}),
              "[{\"pid\":" + first + ",\"name\":\"" + sleeper() + " 63\"}]\n");
    EXPECT_EQ(vxJson("proc-count", {"proc", "count", sleeper()}), "{\"prefix\":\"" + sleeper() + "\",\"count\":2}\n");
    EXPECT_EQ(vx({"proc", "alive", first}).status, 0);
    vxJson("proc-alive", {"proc", "alive", first});
    two.signal(SIGKILL);
    two.wait();
    EXPECT_EQ(vx({"proc", "alive", second}).err, "vx: proc alive: " + second + ": no such process\n");
    EXPECT_EQ(vx({"-q", "proc", "alive", second}).err, "");
    for (const char *bad : {"0", "-1", "x", "", "2147483648"})
        EXPECT_EQ(vx({"proc", "alive", "--", bad}).status, 2) << bad;
}

TEST_F(VxProc, WatchTellsOfStartsAndEnds) {
    Process watch(vxCommand({"proc", "watch", "--interval", "20", sleeper()}));
    Process one({sleeper(), "65"});
    const std::string rest = std::to_string(one.pid()) + " " + sleeper() + " 65";
    EXPECT_EQ(watch.readLine(), "running " + rest);
    one.signal(SIGKILL);
    one.wait();
    EXPECT_EQ(watch.readLine(), "ended " + rest);
    watch.signal(SIGTERM);
    EXPECT_EQ(watch.wait(), 0);
    const auto result = vx({"proc", "watch", "/no-such-program", "--for", "0.05"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out + result.err, "");
    Process two({sleeper(), "66"});
    vxtest::eventually([] { return vx({"proc", "count", sleeper()}).out == "1\n"; });
    const std::string line = vx({"-j", "proc", "watch", "--count", "1", sleeper()}).out;
    EXPECT_EQ(vxtest::schemaErrors("proc-watch", line), "");
}

}  // namespace
