// SPDX-License-Identifier: MIT
// Recordings: what a program exchanges is written down, and a replay finds the first thing that it does in another way.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "gateway/core/mask.h"
#include "gateway/core/recording.h"
#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using vxgateway::readRecording;

constexpr const char *file = "/tmp/recording.vxr";

// The environment variable VXTEST_SOURCE_DIR names another place where the source tree's files lie (a board).
std::string sourceDirectory() {
    const char *given = std::getenv("VXTEST_SOURCE_DIR");
    return given != nullptr ? given : VXTEST_SOURCE_DIR;
}

// Words of a command, the emulator's before them where the tests run under one.
std::vector<std::string> command(const std::string &program, const std::vector<std::string> &arguments) {
    std::istringstream emulator(vxtest::emulatorCommand());
    std::vector<std::string> words{std::istream_iterator<std::string>(emulator), {}};
    words.push_back(vxtest::built(program));
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

vxtest::Output record(const std::vector<std::string> &program, std::vector<std::string> options = {}) {
    options.insert(options.begin(), {vxtest::built("gateway/vxgateway"), "record", "-o", file});
    if (vxtest::emulated()) options.insert(options.end(), {"--tap", vxtest::built("gateway/libvxtap.so")});
    options.emplace_back("--");
    options.insert(options.end(), program.begin(), program.end());
    auto output = vxtest::run(options);
    // The tap was built for the emulated machine, so the loader of the emulator itself refuses it.
    static const std::regex notice("^ERROR: ld\\.so: .*libvxtap.*\n");
    if (vxtest::emulated()) output.text = std::regex_replace(output.text, notice, "");
    return output;
}

// Lines of the recording without their times, from what the program did on.
std::vector<std::string> recorded() {
    std::vector<std::string> lines;
    for (const auto &line : readRecording(file, vxtest::readFile(file))) {
        if (line.word != "mask" && line.word != "program") lines.push_back(line.source + " " + line.what());
    }
    return lines;
}

class Daemons {
public:
    explicit Daemons(const std::vector<std::string> &values)
        : config_([&] {
              std::vector<std::string> words{vxtest::built("gateway/configd"), "--store", "/tmp/store"};
              words.insert(words.end(), values.begin(), values.end());
              return words;
          }()) {
        while (config_.readLine() != "ready") continue;
    }

private:
    vxtest::Process config_;
};

vxtest::Output replay(const std::vector<std::string> &program) {
    std::vector<std::string> words{
        vxtest::built("gateway/vxgateway"), "replay", "--net", "none", "--with-directory", file};
    words.insert(words.end(), program.begin(), program.end());
    return vxtest::run(words);
}

// ---- recording

TEST(Recorder, WritesDownRequestsAndAnswersWithoutPasswords) {
    const Daemons daemons({"wan.gateway=192.0.2.1", "wan.password=hunter22"});
    const auto output = record(command("examples/configd_reader", {"wan.gateway", "wan.password"}));
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_THAT(output.text, HasSubstr("wan.password = hunter22"));
    EXPECT_THAT(
        recorded(),
        ElementsAre(R"(1 send config.1 "?wan.gateway\n\x00" ok)", R"(1 receive config.1 "192.0.2.1\n\x00")",
                    R"(1 send config.1 "?wan.password\n\x00" ok)", R"(1 receive config.1 "masked\n\x00")", "1 exit 0"));
    EXPECT_THAT(vxtest::readFile(file), Not(HasSubstr("hunter")));
}

// Does a little of everything; its status directory and a file to read are made first.
std::vector<std::string> busy(const std::vector<std::string> &arguments = {}) {
    vxtest::makeDirs("/tmp/status/busy");
    vxtest::writeFile("/tmp/status/busy/given", "as given");
    return command("tests/busy", arguments);
}

TEST(Recorder, WritesDownFilesProcessesThreadsAndLog) {
    const auto output = record(busy({"--password", "verysecret"}));
    EXPECT_EQ(output.status, 4) << output.text;
    EXPECT_THAT(output.text, HasSubstr("as given\nnone\n"));
    const auto lines = recorded();
    for (const char *line :
         {R"(1 make directory "/tmp/status/busy" EEXIST)", R"(1 write "/tmp/status/busy/empty" "" ok)",
          R"(1 write "/tmp/status/busy/password" "masked" ok)",
          R"(1 write "/tmp/status/busy/note" "it is masked, you know" ok)",
          R"(1.1 write "/tmp/status/busy/one" "thread" ok)", R"(1.2 write "/tmp/status/busy/two" "thread" ok)",
          R"(1/1 write "/tmp/status/busy/child" "child" ok)", R"(1 write "/tmp/status/busy/value_XXXXXX" "whole" ok)",
          R"(1 rename "/tmp/status/busy/value_XXXXXX" "/tmp/status/busy/value" ok)",
          R"(1 write "/tmp/status/busy/stream" "streamed" ok)", R"(1 read "/tmp/status/busy/given" "as given" ok)",
          R"(1 access "/tmp/status/busy/none" ENOENT)", R"(1 run "exit 3")", "1 exit 4"}) {
        EXPECT_THAT(lines, testing::Contains(line));
    }
    EXPECT_THAT(lines, testing::Contains(testing::MatchesRegex(
                           R"re(1 log 3 "busy [0-9]+ with masked: No such file or directory")re")));
    EXPECT_THAT(vxtest::readFile(file), HasSubstr(R"("\x00\x01\x02)"));
    EXPECT_THAT(vxtest::readFile(file), Not(HasSubstr("verysecret")));
}

TEST(Recorder, HidesValuesOfKeysThatItIsToldTo) {
    EXPECT_EQ(record(busy(), {"--mask", "given", "--mask", "STREAM"}).status, 4);
    EXPECT_THAT(vxtest::readFile(file), Not(HasSubstr("as given")));
    EXPECT_THAT(vxtest::readFile(file), Not(HasSubstr("streamed")));
}

TEST(Recorder, KeepsWhatWasToldBeforeTheProgramDied) {
    EXPECT_EQ(record(busy({"--die"})).status, 137);
    EXPECT_THAT(recorded(), testing::Contains(testing::StartsWith(R"(1 make directory "/tmp/status/busy")")));
    EXPECT_THAT(recorded(), testing::Contains("1 exit 137"));
    const auto missing = record({"/nowhere/program"});
    EXPECT_EQ(missing.status, 127);
    EXPECT_EQ(missing.text, "vxgateway: /nowhere/program: No such file or directory\n");
}

TEST(Recorder, LeavesAProgramThatCancelsItsThreadsAlone) {
    const auto output = record(command("tests/rough", {"cancel"}));
    EXPECT_EQ(output.text, "done\n");
    EXPECT_EQ(output.status, 0);
}

TEST(Recorder, LeavesAProgramThatForksUnderSignalsAlone) {
    const auto output = record(command("tests/rough", {"signal"}));
    EXPECT_EQ(output.text, "done\n");
    EXPECT_EQ(output.status, 0);
}

TEST(Recorder, ReadsNoMoreOfAnAnswerThanTheProgramGot) {
    const Daemons daemons({"long=" + std::string(20000, 'x')});
    const auto output = record(command("tests/rough", {"longer"}));
    EXPECT_EQ(output.text, "20002 bytes\ndone\n");
    EXPECT_EQ(output.status, 0);
    EXPECT_THAT(recorded(), testing::Contains(R"(1 receive config.1 "xxxx")"));
}

TEST(Recorder, ReadsNoMoreOfAnAddressThanTheProgramGave) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator itself reads one byte more";
    const auto output = record(command("tests/rough", {"exact"}));
    EXPECT_EQ(output.text, "done\n");
    EXPECT_THAT(recorded(), ElementsAre("1 connect modem0.1 ENOENT", "1 exit 0"));
}

TEST(Recorder, LeavesAProgramAloneThatClosesWhatAnotherThreadReads) {
    vxtest::makeDirs("/tmp/status");
    const auto output = record(command("tests/rough", {"close"}));
    EXPECT_EQ(output.text, "read x\ndone\n");
    EXPECT_THAT(recorded(), testing::Contains(R"(1.1 fifo "/tmp/status/rough-fifo" "x")"));
}

TEST(Recorder, LeavesOutWordsForWhichALineHasNoRoom) {
    const auto output = record(command("tests/rough", {"words"}));
    EXPECT_EQ(output.text, "done\n");
    EXPECT_EQ(output.status, 0);
    EXPECT_THAT(recorded(), testing::Contains(testing::StartsWith(R"(1/1 run "true" "\x01)")));
    if (!vxtest::emulated()) EXPECT_EQ(replay(command("tests/rough", {"words"})).text, "done\n");
}

// Without the C++ run-time a guard of a static variable is set before the variable: another thread would call a null
// pointer.
TEST(Recorder, TheLoadedLibrariesHaveNoGuardedVariables) {
    for (const char *library : {"gateway/libvxtap.so", "gateway/libvxclock.so"}) {
        const auto symbols = vxtest::run({"nm", vxtest::built(library)});
        if (symbols.status != 0 || symbols.text.find(" _ZZ") == std::string::npos)
            GTEST_SKIP() << "no nm, or a library without local symbols";
        EXPECT_THAT(symbols.text, Not(HasSubstr(" _ZGV"))) << library;
    }
}

TEST(Recorder, TellsTheStatusWhenTheCallerIgnoresItsChildren) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator is the caller";
    EXPECT_EQ(vxtest::run({"timeout", "20", "env", "--ignore-signal=CHLD", vxtest::built("gateway/vxgateway"), "record",
                           "-o", file, "--", "sh", "-c", "exit 7"})
                  .status,
              7);
}

// Without standard error the file would take its number, and get the message.
TEST(Recorder, WritesNoMessageIntoTheFile) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator opens files of its own";
    EXPECT_EQ(vxtest::run({"sh", "-c", "exec \"$@\" 2>&-", "sh", vxtest::built("gateway/vxgateway"), "record", "-o",
                           file, "--", vxtest::built("tests/silent")})
                  .status,
              0);
    EXPECT_THAT(recorded(), ElementsAre("1 exit 0"));
}

TEST(Recorder, EndsWithTheProgramWhateverItLeftDoes) {
    if (vxtest::emulated()) GTEST_SKIP() << "40 busy emulators are too many";
    const auto output = record(command("tests/rough", {"leave"}));
    EXPECT_EQ(vxtest::run({"pgrep", "-f", "rough leave$"}).status, 0) << "ended before the recorder";
    vxtest::writeFile("/tmp/rough-ends", "");
    EXPECT_EQ(output.text, "done\n");
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(recorded().back(), "1 exit 0");
    EXPECT_TRUE(vxtest::eventually([] { return vxtest::run({"pgrep", "-f", "rough leave$"}).status != 0; }));
}

std::vector<std::string> placesLeft() {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator("/tmp")) {
        const std::string name = entry.path().filename();
        if (name.rfind("vxgateway.", 0) == 0) names.push_back(name);
    }
    return names;
}

TEST(Recorder, LeavesNothingInTheDirectoryForTemporaryFiles) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator's signals come later";
    const std::string gateway = vxtest::built("gateway/vxgateway");
    {
        vxtest::Process killed({gateway, "record", "-o", file, "--", "sh", "-c", "echo runs; exec sleep 100"});
        EXPECT_EQ(killed.readLine(), "runs");
        EXPECT_THAT(placesLeft(), testing::SizeIs(1));
        killed.signal(SIGKILL);
        EXPECT_EQ(killed.wait(), 137);
        EXPECT_TRUE(vxtest::eventually([] { return placesLeft().empty(); }));
    }
    vxtest::run({"mkfifo", "/tmp/waits-for-a-reader"});
    vxtest::Process waiting({gateway, "record", "-o", "/tmp/waits-for-a-reader", "true"});
    ::usleep(100000);
    waiting.signal(SIGINT);
    EXPECT_EQ(waiting.wait(), 130);
    EXPECT_THAT(placesLeft(), IsEmpty());
    const auto piped = vxtest::run({"bash", "-c",
                                    gateway + " record -o /dev/stdout -- sh -c 'sleep 0.3; exit 5' | " +
                                        "head -c 1 >/dev/null; echo ${PIPESTATUS[0]}"});
    EXPECT_THAT(piped.text, HasSubstr("/dev/stdout: Broken pipe\n125\n"));
    EXPECT_THAT(placesLeft(), IsEmpty());
}

TEST(Recorder, SaysWhenItHeardNothing) {
    EXPECT_THAT(record(command("tests/silent", {})).text, HasSubstr("could not be listened to: linked statically"));
}

TEST(Mask, KnowsKeysByTheirParts) {
    const vxgateway::Mask mask(vxgateway::Mask::defaults());
    for (const char *key : {"wan.password", "PASS", "ppp_passwd", "api-key", "sim.pin", "AT+CPIN", "client_secret",
                            "wifi.psk", "TOKEN", "Puk"}) {
        EXPECT_TRUE(mask.hides(key)) << key;
    }
    for (const char *key : {"wan.gateway", "keyboard", "ping", "hostname", ""}) EXPECT_FALSE(mask.hides(key)) << key;
}

// ---- replaying

TEST(Replay, FindsTheFirstDifference) {
    if (vxtest::emulated()) GTEST_SKIP() << "a gateway is made of the machine's own programs";
    {
        const Daemons daemons({"a=1", "b=2"});
        ASSERT_EQ(record(command("examples/configd_reader", {"a", "b"})).status, 0);
    }
    const std::string reader = vxtest::built("examples/configd_reader");
    const auto same = replay({reader, "a", "b"});
    EXPECT_EQ(same.status, 0) << same.text;
    EXPECT_THAT(same.text, HasSubstr("a = 1\nb = 2\n"));
    const std::string at = std::string(file) + ":";
    const auto other = replay({reader, "a", "c"});
    EXPECT_EQ(other.status, 1);
    EXPECT_THAT(other.text, HasSubstr(at + R"(6: expected: 1 send config.1 "?b\n\x00" ok)"));
    EXPECT_THAT(other.text, HasSubstr(at + R"(6: got:      1 send config.1 "?c\n\x00" ok)"));
    const auto fewer = replay({reader, "a"});
    EXPECT_EQ(fewer.status, 1);
    EXPECT_THAT(fewer.text, HasSubstr(at + "6: got:      the program ended with status 0"));
    const auto more = replay({reader, "a", "b", "c"});
    EXPECT_EQ(more.status, 1);
    EXPECT_THAT(more.text, HasSubstr(at + "8: expected: 1 exit 0"));
}

TEST(Replay, AnswersFilesProcessesAndThreads) {
    if (vxtest::emulated()) GTEST_SKIP() << "a gateway is made of the machine's own programs";
    ASSERT_EQ(record(busy({"x"})).status, 4);
    const auto same = replay(busy({"x"}));
    EXPECT_EQ(same.status, 0) << same.text;
    EXPECT_THAT(same.text, HasSubstr("as given\nnone\n"));  // no such file is in the gateway
    ::setenv("BUSY_CHILD", "CHILD", 1);
    const auto other = replay(busy({"x"}));
    ::unsetenv("BUSY_CHILD");
    EXPECT_EQ(other.status, 1);
    EXPECT_THAT(other.text, HasSubstr(R"(expected: 1/1 write "/tmp/status/busy/child" "child" ok)"));
    EXPECT_THAT(other.text, HasSubstr(R"(got:      1/1 write "/tmp/status/busy/child" "CHILD" ok)"));
    EXPECT_EQ(replay(busy({"y"})).status, 1);
}

// The recorded machine was slower, so the program did more before it ended.
TEST(Replay, RepetitionsAfterTheLastSignalMayBeMissing) {
    if (vxtest::emulated()) GTEST_SKIP() << "a gateway is made of the machine's own programs";
    const auto write = [](const char *name, const char *text) {
        return std::string(" 1 write \"/tmp/status/") + name + "\" \"" + text + "\" ok\n";
    };
    const auto replayed = [&](const std::string &tail) {
        vxtest::writeFile(file, "vxgateway-recording 1\n0.100000" + write("ticking", "tick") + "0.200000" +
                                    write("ticking", "tick") + "0.300000 1 signal TERM\n" + tail + "0.900000" +
                                    write("ended", "end") + "0.900000 1 exit 0\n");
        return replay({vxtest::built("tests/ticking")});
    };
    const std::string tick = write("ticking", "tick");
    const auto repeated = replayed("0.400000" + tick + "0.500000" + tick);
    EXPECT_EQ(repeated.status, 0) << repeated.text;
    const auto other = replayed("0.400000" + write("ticking", "tock"));
    EXPECT_EQ(other.status, 1);
    EXPECT_THAT(other.text, HasSubstr("expected: 1 write \"/tmp/status/ticking\" \"tock\" ok"));
}

// The daemon of the examples, with pings, modem, events, inputs and threads, recorded in a gateway.
TEST(Replay, AnswersAWholeDaemon) {
    if (vxtest::emulated()) GTEST_SKIP() << "a gateway is made of the machine's own programs";
    vxtest::makeDirs("/tmp/shared");
    const std::string gateway = vxtest::built("gateway/vxgateway");
    const std::string supervisor = vxtest::built("examples/wan_supervisor");
    const std::string session = gateway + " record -o /share/tmp/shared/wan.vxr -- " + supervisor +
                                " & p=$!; gw wait status wan/link up && gw wait status wan/modem 'signal -67 dBm' && "
                                "gw input 1 1 && gw wait event 101 1 && sleep 0.2; kill -TERM $p; wait $p";
    const auto output = vxtest::run(
        {gateway, "run", "--share", "/tmp/shared", "--show", vxtest::built("."), "--", "bash", "-c", session});
    ASSERT_EQ(output.status, 0) << output.text;
    const std::string text = vxtest::readFile("/tmp/shared/wan.vxr");
    for (const char *line : {"1.2 pong \"wan0\" \"198.51.100.9\" ", "1.3 send modem0.1 \"signal\\n\" ok",
                             "1 event 101 1 \"alarm input raised\" ok", "1 signal TERM", "1 exit 0"}) {
        EXPECT_THAT(text, HasSubstr(line));
    }
    const std::vector<std::string> words{
        gateway, "replay", "--ignore", R"(write "/tmp/status/wan/round-trip-ms" *)", "/tmp/shared/wan.vxr", supervisor};
    const auto same = vxtest::run(words);
    EXPECT_EQ(same.status, 0) << same.text << text;
    EXPECT_THAT(same.text, HasSubstr("alarm input raised\n"));
}

// The same daemon, built for 32-bit Arm and recorded under user-mode emulation.
TEST(Replay, AnswersWhatWasRecordedOnAnotherProcessor) {
    if (vxtest::emulated()) GTEST_SKIP() << "a gateway is made of the machine's own programs";
    const auto same = vxtest::run({vxtest::built("gateway/vxgateway"), "replay", "--ignore",
                                   R"(write "/tmp/status/wan/round-trip-ms" *)",
                                   sourceDirectory() + "/tests/integration/recordings/arm-wan_supervisor.vxr",
                                   vxtest::built("examples/wan_supervisor")});
    EXPECT_EQ(same.status, 0) << same.text;
    EXPECT_THAT(same.text, HasSubstr("alarm input raised\n"));
}

TEST(Replay, RefusesWhatIsNotARecording) {
    if (vxtest::emulated()) GTEST_SKIP() << "a gateway is made of the machine's own programs";
    vxtest::writeFile(file, "");
    const auto empty = replay({"true"});
    EXPECT_EQ(empty.status, 2);
    EXPECT_THAT(empty.text, HasSubstr(std::string(file) + ":1:1: not a recording, the file is empty"));
    vxtest::writeFile(file, std::string(vxgateway::recordingHeader) + "\n0.000001 1 dance\n");
    EXPECT_THAT(replay({"true"}).text, HasSubstr(std::string(file) + ":2:12: unknown word 'dance'"));
    vxtest::run({"mkfifo", "/tmp/fifo"});
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"replay"},
                                               {"replay", "/nowhere/file", "true"},
                                               {"replay", "/tmp", "true"},
                                               {"replay", "/tmp/fifo", "true"},
                                               {"replay", file},
                                               {"replay", "--tolerance", "x", file, "true"},
                                               {"record"},
                                               {"record", "-o"},
                                               {"record", "--frob", "true"}}) {
        std::vector<std::string> words{vxtest::built("gateway/vxgateway")};
        words.insert(words.end(), arguments.begin(), arguments.end());
        EXPECT_EQ(vxtest::run(words).status, 2) << testing::PrintToString(arguments);
    }
}

// ---- the text

TEST(Recording, HoldsValuesOfAnySize) {
    const std::string huge(32768, '\xff');
    vxgateway::RecordedLine line{0, 1, "1", "fifo", {"/tmp/status/x", huge}};
    EXPECT_EQ(vxgateway::readRecordedLine(line.text(), 0).arguments[1], huge);
    std::string text = std::string(vxgateway::recordingHeader) + "\n";
    line.arguments[1] = "short";
    for (int i = 0; i < 20000; ++i) text += line.text() + "\n";
    EXPECT_EQ(readRecording("r", text).size(), 20000U);
}

TEST(Recording, EveryLineReadsBackAsItWasWritten) {
    std::string bytes;
    for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
    for (const auto &form : vxgateway::recordedForms()) {
        vxgateway::RecordedLine line{0, 1234567, "1.2/3", std::string(form.word), {}};
        for (const auto kind : form.arguments) {
            line.arguments.push_back(kind == "number"   ? "17"
                                     : kind == "name"   ? "config.1"
                                     : kind == "result" ? "ENOENT"
                                                        : bytes);
        }
        const auto back = vxgateway::readRecordedLine(line.text(), 0);
        EXPECT_EQ(back.text(), line.text());
        EXPECT_EQ(back.arguments, line.arguments) << form.word;
    }
}

TEST(Recording, ErrorsNameLineAndColumn) {
    const auto problem = [](const std::string &text) -> std::string {
        try {
            readRecording("r", text);
        } catch (const std::runtime_error &error) {
            return error.what();
        }
        return "";
    };
    const std::string head = std::string(vxgateway::recordingHeader) + "\n";
    EXPECT_EQ(problem(head + "# comment\n\n0.000001 1 exit 0\n"), "");
    EXPECT_EQ(problem(""), "r:1:1: not a recording, the file is empty");
    EXPECT_EQ(problem("vxgateway-recording 2\n"), "r:1:1: not a recording, expected: vxgateway-recording 1");
    EXPECT_EQ(problem(head + "0.000001 1 dance \"x\""), "r:2:12: unknown word 'dance'");
    EXPECT_EQ(problem(head + "1.5 1 exit 0"), "r:2:1: SECONDS has six digits after the point, not '1.5'");
    EXPECT_EQ(problem(head + "99999999999.000000 1 exit 0"),
              "r:2:1: SECONDS has six digits after the point, not '99999999999.000000'");
    EXPECT_EQ(problem(head + "0.000001 x exit 0"), "r:2:10: not a source: x");
    EXPECT_EQ(problem(head + "0.000001 1 exit zero"), "r:2:17: not a number: zero");
    EXPECT_EQ(problem(head + "0.000001 1 exit 0 1"), "r:2:18: nothing can follow here");
    EXPECT_EQ(problem(head + "0.000001 1 exit"), "r:2:16: missing: a blank and the next argument");
    EXPECT_EQ(problem(head + "0.000001 1 fifo \"a\" \"b"), "r:2:23: missing: the closing quote");
    EXPECT_EQ(problem(head + "0.000001 1 fifo \"a\" \"\\q\""),
              R"(r:2:22: unknown escape, expected \" \\ \n \t or \xHH)");
    EXPECT_EQ(problem(head + "0.000001 1 fifo \"a\" \"\x80\""), "r:2:22: a byte that has to be written as \\xHH");
    EXPECT_EQ(problem(head + "0.000001 1 access \"/a\" EFOO"),
              "r:2:24: not a result: EFOO; expected ok or an errno name");
    EXPECT_EQ(problem(head + "x\ny"),
              "r:2:1: SECONDS has six digits after the point, not 'x'\n"
              "r:3:1: SECONDS has six digits after the point, not 'y'");
}

}  // namespace
