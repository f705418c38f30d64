// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vxutils/process.h>

#include <climits>
#include <csignal>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"

namespace {

// What the kernel calls this process; under emulation that is the emulator's name.
std::string ownName() {
    std::string name = vxtest::readFile("/proc/self/comm");
    if (!name.empty() && name.back() == '\n') name.pop_back();
    return name;
}

void rename(const char *name) { ::prctl(PR_SET_NAME, name); }

// Runs `body` at the end of a chain of processes with these names, each the parent of the next, and returns its result.
int below(const std::vector<const char *> &names, const std::function<int()> &body) {
    return vxtest::inChild([&] {
        if (names.empty()) return body();
        rename(names.front());
        return below({names.begin() + 1, names.end()}, body);
    });
}

// The first 1000 characters of what get_caller() says in such a place, "-1" when it fails.
std::string callerBelow(const std::vector<const char *> &names, size_t size = 1000) {
    int pipes[2];
    if (::pipe(pipes) == -1) throw std::runtime_error("pipe");
    below(names, [&] {
        std::string caller(size, 'x');
        if (get_caller(caller.data(), size) == -1) return static_cast<int>(::write(pipes[1], "-1", 2));
        return static_cast<int>(::write(pipes[1], caller.data(), strlen(caller.data())) == 0);
    });
    ::close(pipes[1]);
    char text[1024] = {};
    const ssize_t got = ::read(pipes[0], text, sizeof text);
    ::close(pipes[0]);
    return {text, got > 0 ? static_cast<size_t>(got) : 0};
}

// Runs `body` in a child whose /proc holds nothing but these files. Made-up processes have numbers that no real one
// has: an emulator answers itself for its own.
int withProc(const std::vector<std::pair<std::string, std::string>> &files, const std::function<int()> &body) {
    return vxtest::inChild([&] {
        if (::unshare(CLONE_NEWNS) == -1) return 101;
        if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == -1) return 102;
        if (::mount("none", "/proc", "tmpfs", 0, nullptr) == -1) return 103;
        for (const auto &[name, text] : files) vxtest::writeFile("/proc/" + name, text);
        return body();
    });
}

// ------------------------------------------------------------------------------------------------ pid_alive

TEST(PidAlive, IsOneForRunningProcesses) {
    EXPECT_EQ(pid_alive(::getpid()), 1);
    EXPECT_EQ(pid_alive(1), 1);
}

TEST(PidAlive, IsZeroForOtherNumbers) {
    for (const int pid : {-1, INT32_MAX, INT32_MIN, 4194304}) EXPECT_EQ(pid_alive(pid), 0) << pid;
}

TEST(PidAlive, EndsWhenAProcessHasEndedAndWasWaitedFor) {
    const pid_t pid = vxtest::startChild([] { return 0; });
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(pid_alive(pid), 1);  // a zombie
    vxtest::waitChild(pid);
    EXPECT_EQ(pid_alive(pid), 0);
}

// ------------------------------------------------------------------------------------------- get_parent_pid

TEST(PidAlive, IsOneForTheNumberOfAThread) {
    int alive = 0;
    pid_t thread = 0;
    std::thread([&] {
        thread = static_cast<pid_t>(::syscall(SYS_gettid));
        alive = pid_alive(thread);
    }).join();
    EXPECT_NE(thread, ::getpid());
    EXPECT_EQ(alive, 1);
}

TEST(GetParentPid, IsTheFourthWordOfTheStatusLine) {
    EXPECT_EQ(vxtest::inChild([] { return get_parent_pid(::getpid()) == ::getppid() ? 0 : 1; }), 0);
    vxtest::Process sleeper({"sleep", "300"});
    EXPECT_EQ(get_parent_pid(sleeper.pid()), ::getpid());
}

TEST(GetParentPid, IsMinusOneForNoProcess) {
    EXPECT_EQ(get_parent_pid(-1), -1);
    EXPECT_EQ(get_parent_pid(INT32_MAX), -1);
}

TEST(GetParentPid, IsShiftedByABlankInTheProgramsName) {
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = vxtest::startChild([&] {
        rename("two 77 words");
        return ::write(ready[1], "x", 1) == 1 ? ::pause() : 1;
    });
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    // "815 (two 77 words) S 1 ...": the fourth word is the last of the name
    EXPECT_EQ(get_parent_pid(child), 0);
    ::kill(child, SIGKILL);
    vxtest::waitChild(child);
    ::close(ready[0]);
    ::close(ready[1]);
}

TEST(GetParentPid, TakesOddStatusLinesAsTheyAre) {
    EXPECT_EQ(withProc({{"700005/stat", "5 (x) S 815 4\n"},
                        {"700006/stat", "6 (x) S"},
                        {"700007/stat", ""},
                        {"700008/stat", "8  (x)   S   42\n"},
                        {"700009/stat", "9 (x) S\n12 13 14\n"},
                        {"700010/stat", "1 2 3 99999999999999999999"},
                        {"700011/stat", std::string(253, '1') + " 2 3 4"},
                        {"700012/stat", "1 2 3 " + std::string(300, '0') + "7"},
                        {"700013/stat", "1 2 " + std::string(248, '3') + " 456"},
                        {"700014/stat", "1 2 3 \t+42x\n"},
                        {"700015/stat", "15 (a#b) S 42\n"},
                        {"700016/stat", "1 2 3 2147483647"},
                        {"700017/stat", "1 2 3 2147483648"},
                        {"700018/stat", "1 2 3 -2147483648"},
                        {"700019/stat", "1 2 3 -2147483649"}},
                       [] {
                           EXPECT_EQ(get_parent_pid(700005), 815);
                           EXPECT_EQ(get_parent_pid(700006), -1);
                           EXPECT_EQ(get_parent_pid(700007), -1);
                           EXPECT_EQ(get_parent_pid(700008), 42);
                           EXPECT_EQ(get_parent_pid(700009), -1);  // only the first line counts
                           EXPECT_EQ(get_parent_pid(700010), 0);   // no number that a process could have
                           EXPECT_EQ(get_parent_pid(700011), -1);  // only 254 characters of it do
                           EXPECT_EQ(get_parent_pid(700012), 0);
                           EXPECT_EQ(get_parent_pid(700013), 4);
                           EXPECT_EQ(get_parent_pid(700014), 42);  // read as atoi() reads it
                           EXPECT_EQ(get_parent_pid(700015), 42);
                           EXPECT_EQ(get_parent_pid(700016), INT_MAX);
                           EXPECT_EQ(get_parent_pid(700017), 0);
                           EXPECT_EQ(get_parent_pid(700018), INT_MIN);
                           EXPECT_EQ(get_parent_pid(700019), 0);
                           return testing::Test::HasFailure() ? 1 : 0;
                       }),
              0);
}

// ----------------------------------------------------------------------------------------------- get_caller

TEST(GetCaller, IsTheParentsName) {
    EXPECT_EQ(callerBelow({"daemon"}), "daemon");
    EXPECT_EQ(callerBelow({}), ownName());
}

TEST(GetCaller, SkipsUpToTwoShells) {
    EXPECT_EQ(callerBelow({"daemon", "sh"}), "daemon");
    EXPECT_EQ(callerBelow({"daemon", "sh", "sh"}), "daemon");
}

TEST(GetCaller, GivesUpAfterThreeShells) { EXPECT_EQ(callerBelow({"daemon", "sh", "sh", "sh"}), "-1"); }

TEST(GetCaller, SkipsNamelessProcesses) {
    EXPECT_EQ(callerBelow({"daemon", ""}), "daemon");
    EXPECT_EQ(callerBelow({"daemon", "\t"}), "daemon");
}

TEST(GetCaller, StripsWhiteSpaceFromTheName) { EXPECT_EQ(callerBelow({" my daemon\t"}), "my daemon"); }

TEST(GetCaller, SkipsNothingButPlainSh) {
    for (const char *name : {"bash", "shd", "dash", "s", "SH"}) EXPECT_EQ(callerBelow({name}), name);
    EXPECT_EQ(callerBelow({"daemon", "\tsh"}), "daemon");
}

TEST(GetCaller, StopsAtAShellWhoseNameHidesItsParent) {
    EXPECT_THAT(callerBelow({"daemon", " sh"}), testing::StartsWith("pid"));  // the blank moves the words of its status
}

TEST(GetCaller, CutsTheNameToItsRoom) {
    EXPECT_EQ(callerBelow({"fifteen-letters"}, 16), "fifteen-letters");
    EXPECT_EQ(callerBelow({"fifteen-letters"}, 15), "fifteen-letter");
    EXPECT_EQ(callerBelow({"daemon"}, 2), "d");
}

TEST(GetCaller, ClearsTheWholeBuffer) {
    EXPECT_EQ(below({"daemon"},
                    [] {
                        char caller[32];
                        memset(caller, 'x', sizeof caller);
                        if (get_caller(caller, sizeof caller) != 0) return 1;
                        return memcmp(caller + 7, std::string(25, '\0').data(), 25) == 0 ? 0 : 2;
                    }),
              0);
}

TEST(GetCaller, LeavesTheBufferEmptyWhenItFails) {
    EXPECT_EQ(below({"sh", "sh", "sh"},
                    [] {
                        char caller[32];
                        memset(caller, 'x', sizeof caller);
                        return get_caller(caller, sizeof caller) == -1 && caller[0] == '\0' ? 0 : 1;
                    }),
              0);
}

TEST(GetCaller, RefusesNullAndTooLittleRoom) {
    char room[2] = {'x', 'y'};
    EXPECT_EQ(get_caller(nullptr, 100), -1);
    EXPECT_EQ(get_caller(room, 0), -1);
    EXPECT_EQ(get_caller(room, 1), -1);
    EXPECT_EQ(room[0], 'x');
}

TEST(GetCaller, OfAnOrphanedShellsChildIsTheShellsNumber) {
    int pipes[2];
    ASSERT_EQ(::pipe(pipes), 0);
    // The shell's parent ends at once, so that init becomes its parent; only then does the shell go on.
    vxtest::inChild([&] {
        const pid_t middle = ::getpid();
        if (::fork() != 0) return 0;
        rename("sh");
        while (::getppid() == middle) ::usleep(1000);
        const pid_t shell = ::getpid();
        if (::fork() == 0) {
            char caller[32];
            const std::string expected = "pid" + std::to_string(shell);
            const bool right = get_caller(caller, sizeof caller) == 0 && expected == caller;
            ::_exit(::write(pipes[1], right ? "y" : caller, 1) == 1 ? 0 : 1);
        }
        int status = 0;
        ::wait(&status);
        ::_exit(0);
    });
    ::close(pipes[1]);
    char answer = 0;
    EXPECT_EQ(::read(pipes[0], &answer, 1), 1);
    EXPECT_EQ(answer, 'y');
    ::close(pipes[0]);
}

TEST(GetCaller, OfAThirdShellThatInitStartedIsThatShellsNumber) {
    const std::string parent = std::to_string(::getpid());
    EXPECT_EQ(withProc({{parent + "/comm", "sh\n"},
                        {parent + "/stat", "1 (sh) S 700001\n"},
                        {"700001/comm", "sh\n"},
                        {"700001/stat", "700001 (sh) S 700002\n"},
                        {"700002/comm", "sh\n"},
                        {"700002/stat", "700002 (sh) S 1\n"}},
                       [] {
                           char caller[32];
                           return get_caller(caller, sizeof caller) == 0 && caller == std::string("pid700002") ? 0 : 1;
                       }),
              0);
}

TEST(GetCaller, FailsWhenAProcessOnTheWayIsNotThere) {
    const std::string parent = std::to_string(::getpid());
    EXPECT_EQ(withProc({},
                       [] {
                           char caller[32];
                           return get_caller(caller, sizeof caller) == -1 ? 0 : 1;
                       }),
              0);
    EXPECT_EQ(withProc({{parent + "/comm", "sh\n"}, {parent + "/stat", "1 (sh) S 815\n"}},
                       [] {
                           char caller[32];
                           return get_caller(caller, sizeof caller) == -1 ? 0 : 1;
                       }),
              0);
    EXPECT_EQ(withProc({{parent + "/comm", "sh\n"}},
                       [&] {
                           char caller[32];
                           return get_caller(caller, sizeof caller) == 0 && caller == "pid" + parent ? 0 : 1;
                       }),
              0);
}

TEST(GetCaller, FailsWhenTheParentIsInAnotherPidNamespace) {
    EXPECT_EQ(vxtest::inChild([] {
                  if (::unshare(CLONE_NEWPID) != 0) return 100;
                  return vxtest::inChild([] {
                      char caller[8] = "old";
                      return get_caller(caller, sizeof caller) == -1 && *caller == '\0' ? 0 : 1;
                  });
              }),
              0);
}

TEST(GetCaller, SeesTheDaemonThroughARealShell) {
    const std::string program = vxtest::built("examples/process_whoami");
    EXPECT_THAT(vxtest::run({program}).text, testing::HasSubstr("called by " + ownName() + "\n"));
    const std::string command = vxtest::shellCommand("examples/process_whoami");
    EXPECT_THAT(vxtest::run({"sh", "-c", command + "; true"}).text,
                testing::HasSubstr("called by " + ownName() + "\n"));
}

TEST(ProcessExample, TellsWhatRunsAsAProcess) {
    const std::string program = vxtest::built("examples/process_whoami");
    vxtest::Process sleeper({"/bin/sleep", "300"});
    const std::string pid = std::to_string(sleeper.pid());
    const std::string expected =
        "process " + pid + " is /bin/sleep, its parent is " + std::to_string(::getpid()) + "\n";
    EXPECT_TRUE(vxtest::eventually([&] { return strcmp(procname(sleeper.pid()), "/bin/sleep") == 0; }));
    EXPECT_THAT(vxtest::run({program, pid}).text, testing::EndsWith(expected));
    EXPECT_EQ(vxtest::run({program, "4194304"}).status, 1);
}

// ------------------------------------------------------------------------------------------------- procname

TEST(ProcName, IsTheProgramsPath) {
    vxtest::Process sleeper({"/bin/sleep", "300"});
    EXPECT_TRUE(vxtest::eventually([&] { return strcmp(procname(sleeper.pid()), "/bin/sleep") == 0; }));
}

TEST(ProcName, IsEmptyForNoProcessAndForZombies) {
    EXPECT_STREQ(procname(-1), "");
    EXPECT_STREQ(procname(INT32_MAX), "");
    const pid_t pid = vxtest::startChild([] { return 0; });
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    EXPECT_STREQ(procname(pid), "");
    vxtest::waitChild(pid);
}

// The kernel shows the command line of the first thread's memory, which that thread has given back.
TEST(ProcName, IsEmptyForAProcessWhoseFirstThreadHasEnded) {
    const pid_t pid = vxtest::startChild([]() -> int {
        std::thread([] {
            for (;;) ::pause();
        }).detach();
        ::syscall(SYS_exit, 0);  // this thread alone
        return 1;
    });
    const std::string status = "/proc/" + std::to_string(pid) + "/status";
    EXPECT_TRUE(vxtest::eventually([&] { return vxtest::readFile(status).find("State:\tZ") != std::string::npos; }));
    EXPECT_STREQ(procname(pid), "");
    EXPECT_EQ(pid_alive(pid), 1);
    ::kill(pid, SIGKILL);
    vxtest::waitChild(pid);
}

TEST(ProcName, LeavesOutALeadingSh) {
    EXPECT_EQ(withProc({{"700005/cmdline", std::string("sh\0-c\0true\0", 11)},
                        {"700006/cmdline", std::string("shutdown\0now\0", 13)},
                        {"700007/cmdline", std::string("/bin/sh\0-c\0", 11)},
                        {"700008/cmdline", "s"}},
                       [] {
                           EXPECT_STREQ(procname(700005), "");
                           EXPECT_STREQ(procname(700005) + 1, "-c");  // the buffer goes on after the two letters
                           EXPECT_STREQ(procname(700006), "utdown");
                           EXPECT_STREQ(procname(700007), "/bin/sh");
                           EXPECT_STREQ(procname(700008), "s");
                           return testing::Test::HasFailure() ? 1 : 0;
                       }),
              0);
}

TEST(ProcName, ReadsAtMost255BytesIntoAClearedBuffer) {
    EXPECT_EQ(withProc({{"700005/cmdline", std::string(255, 'a')},
                        {"700006/cmdline", std::string(256, 'b')},
                        {"700007/cmdline", std::string(100000, 'c')},
                        {"700008/cmdline", "d"}},
                       [] {
                           EXPECT_EQ(procname(700005), std::string(255, 'a'));
                           EXPECT_EQ(procname(700006), std::string(255, 'b'));
                           EXPECT_EQ(procname(700007), std::string(255, 'c'));
                           const char *name = procname(700008);
                           EXPECT_EQ(std::string(name, 256), "d" + std::string(255, '\0'));
                           EXPECT_STREQ(procname(700009), "");
                           EXPECT_STREQ(name, "d");  // a failure leaves the result before alone
                           return testing::Test::HasFailure() ? 1 : 0;
                       }),
              0);
}

TEST(Process, FunctionsLeaveNoDescriptorOpen) {
    const vxtest::NoLeaks leaks;
    char caller[32];
    for (int i = 0; i < 50; ++i) {
        (void)pid_alive(1);
        (void)get_parent_pid(::getpid());
        (void)get_caller(caller, sizeof caller);
        (void)procname(1);
    }
}

}  // namespace
