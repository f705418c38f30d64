// SPDX-License-Identifier: MIT
// Running programs, in the foreground and detached; their output; command lines; restart and power-off.
#include <vxutils/command.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "support/call_hooks.h"
#include "support/command.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

VXTEST_HOOK(int, reboot, (int command), (command))

namespace {

using namespace vxtest::command;

using vxtest::LogLine;
using vxtest::readFile;
using vxtest::writeFile;
using namespace std::string_literals;

using CommandExample = Commands;

TEST_F(CommandExample, RunsCommandsEachWay) {
    const auto example = [](const std::string &how, const std::string &text) {
        return vxtest::run({vxtest::built("examples/command_run"), how, text});
    };
    EXPECT_EQ(example("wait", "exit 3").text, "exit code 3\n");
    EXPECT_EQ(example("read", "echo text").text, "5 characters: text\n\n");
    EXPECT_EQ(example("read", "echo text; exit 1").text, "failed, its output is not trusted\n");
    EXPECT_EQ(example("split", "set key 'a value'").text, "0: set\n1: key\n2: a value\n");
    EXPECT_EQ(example("split", "'").text, "not a command line\n");
    EXPECT_EQ(example("none", "x").status, 2);
    const auto detached = example("detach", "echo $$ >" + path("pid"));
    EXPECT_TRUE(vxtest::eventually(
        [&] { return vxtest::exists(path("pid")) && detached.text == "process " + readFile(path("pid")); }));
}

// ---- _exec_command(): waiting

using ExecCommand = Commands;

TEST_F(ExecCommand, ReturnsTheExitCode) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(_exec_command(0, "/bin/sh", "sh", "-c", "exit 0", noMore), 0);
    EXPECT_EQ(_exec_command(2, "/bin/sh", "sh", "-c", "exit 3", noMore), 3);
    EXPECT_EQ(_exec_command(0, "/bin/sh", "sh", "-c", "exit 255", noMore), 255);
    EXPECT_TRUE(log.take().empty());
}

TEST_F(ExecCommand, AProgramThatCannotBeStartedExitsWithTheErrorNumber) {
    EXPECT_EQ(_exec_command(0, "/none", "none", noMore), ENOENT);
    EXPECT_EQ(_exec_command(0, "/", "none", noMore), EACCES);
    EXPECT_EQ(_exec_command(0, "sh", "sh", noMore), ENOENT) << "a path is not a name to search for";
}

TEST_F(ExecCommand, APathIsNeeded) {
    EXPECT_EQ(_exec_command(0, nullptr, "x", noMore), -1);
    EXPECT_EQ(_exec_command(0, "", "x", noMore), -1);
    EXPECT_EQ(_exec_command(1, "", "x", noMore), -1);
}

TEST_F(ExecCommand, TakesFifteenArgumentsAfterArgumentZero) {
    const std::string list = "printf '%s ' \"$0\" \"$@\" >" + path("words");
    EXPECT_EQ(_exec_command(0, "/bin/sh", "sh", "-c", list.c_str(), "3", "4", "5", "6", "7", "8", "9", "10", "11", "12",
                            "13", "14", "15", noMore),
              0);
    EXPECT_EQ(readFile(path("words")), "3 4 5 6 7 8 9 10 11 12 13 14 15 ");
}

TEST_F(ExecCommand, RefusesSixteen) {
    vxtest::SyslogCapture log;
    for (const int mode : {0, 1}) {
        EXPECT_EQ(_exec_command(mode, "/bin/sh", "sh", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12",
                                "13", "14", "15", "16", noMore),
                  -1);
        EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Too many arguments"}}));
    }
    // They are counted before the path is looked at.
    EXPECT_EQ(_exec_command(0, nullptr, "x", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12", "13", "14",
                            "15", "16", noMore),
              -1);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Too many arguments"}}));
}

TEST_F(ExecCommand, AKilledProgramIsReported) {
    vxtest::SyslogCapture log;
    errno = ENOTTY;
    EXPECT_EQ(_exec_command(0, "/bin/sh", "sh", "-c", "kill -9 $$", noMore), -1);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "child didn't exit. error: Inappropriate ioctl for device"},
                                                {LOG_DEBUG, "child terminated by signal: 9 "}}));
}

TEST_F(ExecCommand, ChangesDirectoryAndMaskOfTheChildOnly) {
    const mode_t before = ::umask(077);
    EXPECT_EQ(run_command(("pwd >" + path("where") + "; umask >>" + path("where")).c_str(), 0), 0);
    EXPECT_EQ(::umask(before), 077u);
    EXPECT_EQ(readFile(path("where")), "/\n0022\n");
    char here[256];
    EXPECT_STREQ(::getcwd(here, sizeof here), dir.c_str());
}

TEST_F(ExecCommand, ClosesTheDescriptors) {
    // No close-on-exec: the call itself has to close them. One is above what most programs ever open.
    const int low = ::open("/dev/null", O_RDONLY);  // NOLINT(android-cloexec-open): inheritance is what is tested
    const int high = ::fcntl(low, F_DUPFD, 900);
    ASSERT_GE(high, 900);
    EXPECT_EQ(openIn(0), "0 1 2 ");
    EXPECT_EQ(openIn(2), "0 1 2 ");
    EXPECT_EQ(openIn(1), "0 1 2 ");
    EXPECT_EQ(openIn(3), "1 ") << "nothing but the file";
    EXPECT_EQ(openIn(-1), "1 ");
    ::close(low);
    ::close(high);
}

// ---- _exec_command(): detached

std::vector<std::string> words(const std::string &text) {
    std::istringstream stream(text);
    std::vector<std::string> all;
    for (std::string word; stream >> word;) all.push_back(word);
    return all;
}

// Field of /proc/PID/stat, counted as in its manual page.
std::string statField(int pid, size_t number) {
    const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = stat.rfind(')');
    return close == std::string::npos ? "" : words(stat.substr(close + 1)).at(number - 3);
}

TEST_F(ExecCommand, DetachedReturnsTheProgramsOwnProcessId) {
    const int pid = _exec_command(1, "/bin/sleep", "sleep", "30", noMore);
    ASSERT_GT(pid, 1);
    EXPECT_TRUE(vxtest::eventually([&] { return readFile("/proc/" + std::to_string(pid) + "/comm") == "sleep\n"; }));
    EXPECT_EQ(statField(pid, 4), "1") << "its parent is the first process";
    EXPECT_NE(statField(pid, 6), std::to_string(::getsid(0))) << "its session";
    EXPECT_EQ(vxtest::zombieChildren(), 0);
    std::error_code error;
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/cwd", error), "/") << error.message();
    EXPECT_THAT(readFile("/proc/" + std::to_string(pid) + "/status"), testing::HasSubstr("\nUmask:\t0022\n"));
    struct stat nullDevice {};
    ASSERT_EQ(::stat("/dev/null", &nullDevice), 0);
    for (const std::string stream : {"0", "1", "2"}) {
        struct stat status {};
        ASSERT_EQ(::stat(("/proc/" + std::to_string(pid) + "/fd/" + stream).c_str(), &status), 0);
        EXPECT_EQ(status.st_rdev, nullDevice.st_rdev) << stream;
        const std::string flags = readFile("/proc/" + std::to_string(pid) + "/fdinfo/" + stream);
        EXPECT_EQ(std::stoi(flags.substr(flags.find("flags:") + 6), nullptr, 8) & O_ACCMODE, O_RDWR) << stream;
    }
    ::kill(pid, SIGKILL);
}

TEST_F(ExecCommand, ADetachedProgramThatCannotBeStartedStillHasAnId) {
    EXPECT_GT(_exec_command(1, "/none", "none", noMore), 1);
}

TEST_F(ExecCommand, ManyDetachedStartsAtOnceAllSucceed) {
    std::vector<pid_t> starters;
    for (int i = 0; i < 4; ++i) {
        starters.push_back(vxtest::startChild(
            [i] { return run_command(("echo x >" + path("done" + std::to_string(i))).c_str(), 1) > 1 ? 0 : 1; }));
    }
    for (const pid_t starter : starters) EXPECT_EQ(vxtest::waitChild(starter), 0);
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(vxtest::eventually([i] { return vxtest::exists(path("done" + std::to_string(i))); }));
    }
}

// ---- run_command()

using RunCommand = Commands;

TEST_F(RunCommand, RunsTheShell) {
    EXPECT_EQ(run_command("exit 3", 0), 3);
    EXPECT_EQ(run_command("true && exit $((3 + 4))", 0), 7);
    EXPECT_EQ(run_command("/none 2>/dev/null", 0), 127);
    EXPECT_EQ(run_command("", 0), 0);
    EXPECT_GT(run_command(nullptr, 0), 0) << "the shell misses its argument";
}

// What procname() and lists of processes show.
TEST_F(RunCommand, TheShellHasItsPathAsArgumentZero) {
    for (const int background : {0, 1}) {
        ::unlink(path("line").c_str());
        const std::string command =
            "cat /proc/$$/cmdline >" + path("line.tmp") + "; mv " + path("line.tmp") + " " + path("line") + "; true";
        EXPECT_GE(run_command(command.c_str(), background), 0);
        ASSERT_TRUE(vxtest::eventually([] { return vxtest::exists(path("line")); }));
        EXPECT_EQ(readFile(path("line")), "/bin/sh\0-c\0"s + command + '\0');
    }
}

TEST_F(RunCommand, AndEvaluatedCommandsInheritEnvironmentAndSignals) {
    EXPECT_EQ(vxtest::inChild([] {
                  ::setenv("INHERITED", "yes", 1);
                  std::signal(SIGUSR2, SIG_IGN);
                  sigset_t user1;
                  sigemptyset(&user1);
                  sigaddset(&user1, SIGUSR1);
                  ::pthread_sigmask(SIG_BLOCK, &user1, nullptr);
                  const std::string command = "kill -USR1 $$; kill -USR2 $$; echo $INHERITED";
                  if (eval(command, 100) != Evaluated{4, "yes\n"}) return 1;
                  return run_command(("[ \"$(" + command + ")\" = yes ]").c_str(), 0) == 0 ? 0 : 2;
              }),
              0);
}

TEST_F(RunCommand, DoesNotWaitInTheBackground) {
    ASSERT_EQ(::mkfifo(path("go").c_str(), 0600), 0);
    const int pid = run_command(("read line <" + path("go") + "; echo $$ >" + path("pid")).c_str(), -1);
    ASSERT_GT(pid, 1);
    EXPECT_FALSE(vxtest::exists(path("pid")));
    writeFile(path("go"), "go\n");
    EXPECT_TRUE(vxtest::eventually([&] { return readFile(path("pid")) == std::to_string(pid) + "\n"; }));
}

// ---- eval_command()

using EvalCommand = Commands;

TEST_F(EvalCommand, CollectsTheOutput) {
    EXPECT_EQ(eval("echo one; echo two", 100), (Evaluated{8, "one\ntwo\n"}));
    EXPECT_EQ(eval("printf 'no end'", 100), (Evaluated{6, "no end"}));
    EXPECT_EQ(eval("true", 100), (Evaluated{0, ""}));
}

TEST_F(EvalCommand, TrustsOnlyExitCodeZero) {
    EXPECT_EQ(eval("echo text; exit 1", 100), (Evaluated{-1, "text\n"}));
    EXPECT_EQ(eval("/none 2>/dev/null", 100).result, -1);
    EXPECT_EQ(eval("echo text; kill -9 $$", 100), (Evaluated{5, "text\n"}));
}

TEST_F(EvalCommand, StopsTwoShortOfTheBuffer) {
    EXPECT_EQ(eval("printf 12345678", 10), (Evaluated{8, "12345678"}));
    EXPECT_EQ(eval("printf 123456789", 10), (Evaluated{9, "12345678"})) << "a piece that is cut counts whole";
    EXPECT_EQ(eval("echo 1234; echo 5678; echo 9", 10), (Evaluated{10, "1234\n567"}));
    EXPECT_EQ(eval("echo 1234567; echo 8; echo 9", 10), (Evaluated{10, "1234567\n"}));
    EXPECT_EQ(eval("printf 123", 2), (Evaluated{3, ""}));
    EXPECT_EQ(eval("printf 123", 1), (Evaluated{0, ""}));
}

TEST_F(EvalCommand, ReadsDroppedOutputToItsEnd) {
    EXPECT_EQ(eval("i=0; while [ $i -lt 3000 ]; do echo line $i; i=$((i+1)); done; echo done >" + path("done"), 20),
              (Evaluated{21, "line 0\nline 1\nline"}));
    EXPECT_EQ(readFile(path("done")), "done\n");
}

TEST_F(EvalCommand, TakesLongLinesInPieces) {
    const std::string line = "head -c 3000 /dev/zero | tr '\\0' x; echo";
    EXPECT_EQ(eval(line, 4000), (Evaluated{3001, std::string(3000, 'x') + "\n"}));
    EXPECT_EQ(eval(line, 1500), (Evaluated{2044, std::string(1498, 'x')}));
}

TEST_F(EvalCommand, KeepsDirectoryMaskAndDescriptorsOfTheCaller) {
    const mode_t before = ::umask(077);
    EXPECT_EQ(eval("pwd; umask", 100).text, dir + "\n0077\n");
    ::umask(before);
    const int inherited = ::open("/dev/null", O_RDONLY);  // NOLINT(android-cloexec-open): as the test is about
    const int closing = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const std::string isOpen = "[ -e /proc/self/fd/" + std::to_string(inherited) + " ]";
    const std::string isClosed = "[ ! -e /proc/self/fd/" + std::to_string(closing) + " ]";
    EXPECT_EQ(eval(isOpen + " && " + isClosed, 100).result, 0);
    ::close(inherited);
    ::close(closing);
}

TEST_F(EvalCommand, WaitsForEveryProcessThatHasTheOutput) {
    EXPECT_EQ(eval("(sleep 0.3; echo late) & echo early", 100), (Evaluated{11, "early\nlate\n"}));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(eval("sleep 30 >/dev/null & echo early", 100), (Evaluated{6, "early\n"}));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST_F(EvalCommand, FailsWhereItsExitCodeIsLost) {
    std::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(eval("echo text", 100), (Evaluated{-1, "text\n"}));
    std::signal(SIGCHLD, SIG_DFL);
}

TEST_F(EvalCommand, RefusesMissingArguments) {
    char out[4] = "abc";
    EXPECT_EQ(eval_command(nullptr, out, sizeof out), -1);
    EXPECT_EQ(eval_command("", out, sizeof out), -1);
    EXPECT_EQ(eval_command("true", out, 0), -1);
    EXPECT_EQ(eval_command("true", nullptr, 4), -1);
    EXPECT_STREQ(out, "abc");
}

// ---- makeargv(), freeargv()

// "2: [a] [b c]", or "error"
std::string split(const std::string &line) {
    char **argv = nullptr;
    int argc = -7;
    if (makeargv(line.c_str(), &argv, &argc) != 0) {
        EXPECT_EQ(argv, nullptr);
        EXPECT_EQ(argc, -7);
        return "error";
    }
    std::string text = std::to_string(argc) + ":";
    for (int i = 0; i < argc; ++i) text += " [" + std::string(argv[i]) + "]";
    for (int i = argc; i < 255; ++i) EXPECT_EQ(argv[i], nullptr);
    freeargv(argv);
    return text;
}

TEST(Makeargv, SplitsAtBlanks) {
    EXPECT_EQ(split("a b c"), "3: [a] [b] [c]");
    EXPECT_EQ(split(" \t\na\t\n b  "), "2: [a] [b]");
    EXPECT_EQ(split(""), "0:");
    EXPECT_EQ(split(" \n\t "), "0:");
    EXPECT_EQ(split("a\rb\vc"), "1: [a\rb\vc]");
}

TEST(Makeargv, QuotesAtTheStartKeepTogether) {
    EXPECT_EQ(split("a \"b c\" 'd'"), "3: [a] [b c] [d]");
    EXPECT_EQ(split("\"it's\" 'say \"no\"'"), "2: [it's] [say \"no\"]");
    EXPECT_EQ(split("'a\n\tb'"), "1: [a\n\tb]");
    EXPECT_EQ(split("\"\" ''"), "2: [] []");
}

TEST(Makeargv, AClosingQuoteEndsTheArgument) {
    EXPECT_EQ(split("\"a\"b"), "2: [a] [b]");
    EXPECT_EQ(split("'a''b'"), "2: [a] [b]");
    EXPECT_EQ(split("'a'\"b c\"d"), "3: [a] [b c] [d]");
    EXPECT_EQ(split("\"\"\"\""), "2: [] []");
}

TEST(Makeargv, ElsewhereQuotesAndBackslashesAreText) {
    EXPECT_EQ(split("a\"b c\"d"), "2: [a\"b] [c\"d]");
    EXPECT_EQ(split("it's"), "1: [it's]");
    EXPECT_EQ(split("a\\ b \\\"c"), "3: [a\\] [b] [\\\"c]");
    EXPECT_EQ(split("\"a\\\" b"), "2: [a\\] [b]");
    EXPECT_EQ(split("a\\\" b"), "2: [a\\\"] [b]");
}

TEST(Makeargv, AnOpenQuoteIsAnError) {
    EXPECT_EQ(split("\"a"), "error");
    EXPECT_EQ(split("'"), "error");
    EXPECT_EQ(split("a 'b\""), "error");
    EXPECT_EQ(split("\"a\" b \"c"), "error");
}

std::string repeated(const std::string &word, int count) {
    std::string line;
    for (int i = 0; i < count; ++i) line += word;
    return line;
}

TEST(Makeargv, HoldsTwoHundredFiftyFiveArguments) {
    char **argv = nullptr;
    int argc = 0;
    ASSERT_EQ(makeargv(repeated("w ", 255).c_str(), &argv, &argc), 0);
    EXPECT_EQ(argc, 255);
    EXPECT_STREQ(argv[254], "w");
    freeargv(argv);
    EXPECT_EQ(split(repeated("w ", 254)).substr(0, 4), "254:");
    EXPECT_EQ(split(repeated("w ", 256)), "error");
    EXPECT_EQ(split(repeated("w ", 255) + "\"\""), "error");
    EXPECT_EQ(split(repeated("w ", 255) + "x"), "error");
    EXPECT_EQ(split(repeated("w ", 255) + "   ").substr(0, 4), "255:");
}

TEST(Makeargv, GivesEachArgumentRoomForTheWholeLine) {
    const char *line = "ab cd";
    char **argv = nullptr;
    int argc = 0;
    ASSERT_EQ(makeargv(line, &argv, &argc), 0);
    for (int i = 0; i < argc; ++i) {
        EXPECT_EQ(argv[i][5], '\0');
        std::strcpy(argv[i], line);  // the address sanitizer watches
    }
    freeargv(argv);
}

TEST(Makeargv, TakesALineOfAnyLength) {
    const std::string word(1000000, 'w');
    EXPECT_EQ(split(word + " x"), "2: [" + word + "] [x]");
}

TEST(Makeargv, RefusesNullAndFreesNull) {
    char **argv = nullptr;
    int argc = 0;
    EXPECT_EQ(makeargv(nullptr, &argv, &argc), -1);
    EXPECT_EQ(makeargv("a", nullptr, &argc), -1);
    EXPECT_EQ(makeargv("a", &argv, nullptr), -1);
    freeargv(nullptr);
}

// ---- system_reboot(), system_poweroff()

struct Action {
    void (*call)(int, int);
    std::string script;
    std::string marker;
    std::string vetoed;
    int kernelCommand;
};

void PrintTo(const Action &action, std::ostream *out) { *out << action.script; }

class Power : public Commands, public testing::WithParamInterface<Action> {
protected:
    void SetUp() override {
        Commands::SetUp();
        // Neither the library nor a script of the machine below the box gets through to a real restart: the box has no
        // capability for it, and the library's request comes here.
        ASSERT_EQ(::dlsym(RTLD_DEFAULT, "reboot"), reinterpret_cast<void *>(&::reboot));
        ASSERT_EQ(::prctl(PR_CAPBSET_READ, CAP_SYS_BOOT), 0);
        vxtest::hooks::reboot = [this](int command) -> std::optional<int> {
            rebootCommands.push_back(command);
            return 0;
        };
        for (const std::string &file : {GetParam().script, GetParam().marker}) ::unlink(file.c_str());
        vxtest::makeDirs("/nvstatus");
    }
    void TearDown() override {
        for (const std::string &file : {GetParam().script, GetParam().marker}) ::unlink(file.c_str());
        vxtest::hooks::reboot = nullptr;
        Commands::TearDown();
    }

    void installRecorder() {
        writeFile(GetParam().script, "#!/bin/sh\necho \"$0 $*\" >" + path("recorded.tmp") + "\nmv " +
                                         path("recorded.tmp") + " " + path("recorded") + "\n");
        ::chmod(GetParam().script.c_str(), 0755);
    }

    std::vector<int> rebootCommands;
};

TEST_P(Power, StartsTheScriptWithBothNumbers) {
    installRecorder();
    vxtest::SyslogCapture log;
    WithoutPauses pauses;
    GetParam().call(1, -2147483647 - 1);
    EXPECT_EQ(pauses.lengths_ns, std::vector<long>{100000000}) << "the script gets a moment";
    EXPECT_TRUE(vxtest::eventually([] { return vxtest::exists(path("recorded")); }));
    EXPECT_EQ(readFile(path("recorded")), GetParam().script + " 1 -2147483648\n");
    EXPECT_TRUE(rebootCommands.empty());
    EXPECT_TRUE(log.take().empty());
}

TEST_P(Power, TheMarkerIsAVeto) {
    installRecorder();
    writeFile(GetParam().marker, "");
    vxtest::SyslogCapture log;
    GetParam().call(0, 0);
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, GetParam().vetoed}}));
    ::usleep(100000);
    EXPECT_FALSE(vxtest::exists(path("recorded")));
    ::unlink(GetParam().script.c_str());
    GetParam().call(0, 0);
    EXPECT_TRUE(rebootCommands.empty());
}

TEST_P(Power, AMarkerThatCannotBeReadIsNoVeto) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    writeFile(GetParam().marker, "");
    ASSERT_EQ(::chmod(GetParam().marker.c_str(), 0600), 0);
    vxtest::SyslogCapture log;
    EXPECT_EQ(vxtest::inChild([this] {
                  if (::setresuid(12345, 12345, 12345) != 0) return 1;
                  GetParam().call(0, 0);
                  return rebootCommands == std::vector{GetParam().kernelCommand} ? 0 : 2;
              }),
              0);
    EXPECT_TRUE(log.take().empty());
}

TEST_P(Power, WithoutTheScriptTheKernelIsAsked) {
    vxtest::SyslogCapture log;
    GetParam().call(1, 2);
    EXPECT_EQ(rebootCommands, std::vector{GetParam().kernelCommand});
    writeFile(GetParam().script, "not executable");
    GetParam().call(1, 2);
    EXPECT_EQ(rebootCommands.size(), 2u);
    EXPECT_TRUE(log.take().empty());
}

TEST_P(Power, AnAbandonedTokenIsNotInItsWay) {
    installRecorder();
    ASSERT_EQ(vxtest::inChild([] { return makeToken() == -1 ? 1 : 0; }), 0);
    GetParam().call(1, 2);
    EXPECT_TRUE(vxtest::eventually([] { return vxtest::exists(path("recorded")); }));
}

INSTANTIATE_TEST_SUITE_P(, Power,
                         testing::Values(Action{system_reboot, "/usr/local/sbin/system-reboot", "/nvstatus/skip-reboot",
                                                "skipping reboot", 0x01234567},
                                         Action{system_poweroff, "/usr/local/sbin/system-poweroff",
                                                "/nvstatus/skip-poweroff", "skipping poweroff", 0x4321FEDC}),
                         [](const auto &param) { return param.param.call == system_reboot ? "Reboot" : "Poweroff"; });

}  // namespace
