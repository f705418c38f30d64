// SPDX-License-Identifier: MIT
// Recordings: what a program exchanges is written down, and a replay finds the first thing that it does in another way.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
    return vxtest::run(options);
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

// ---- the text

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
