// SPDX-License-Identifier: MIT
// What the library shows of texts from outside, in the system log and on standard output.
#include <syslog.h>
#include <vxutils/cfread.h>
#include <vxutils/configreader.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/syslog_capture.h"
#include "vxutils/internal/visible.h"

namespace {

bool memoryRunsOut = false;

}  // namespace

// This program is linked with VisibleText's source and --wrap=malloc: its calls of malloc() come here.
extern "C" void *__real_malloc(size_t size);
extern "C" void *__wrap_malloc(size_t size) { return memoryRunsOut ? nullptr : __real_malloc(size); }

namespace {

using vxtest::LogLine;
using Lines = std::vector<LogLine>;

std::string visible(const std::string &text) {
    const vx::VisibleText shown(text.data(), text.size());
    EXPECT_EQ(std::strlen(shown.c_str()) >= shown.length(), true);
    return {shown.c_str(), shown.length()};
}

// What a reader of the log does to see the original bytes.
std::string unescaped(const std::string &shown) {
    std::string text;
    for (size_t i = 0; i < shown.size(); ++i) {
        unsigned int byte = 0;
        const bool escape = i + 4 <= shown.size() && shown[i] == '\\' && shown[i + 1] == 'x' &&
                            std::isxdigit(static_cast<unsigned char>(shown[i + 2])) != 0 &&
                            std::isxdigit(static_cast<unsigned char>(shown[i + 3])) != 0;
        if (escape) byte = static_cast<unsigned int>(std::stoul(shown.substr(i + 2, 2), nullptr, 16));
        text += escape ? static_cast<char>(byte) : shown[i];
        if (escape) i += 3;
    }
    return text;
}

// ---- the helper

TEST(VisibleText, HonestTextsAreShownThemselves) {
    const std::vector<std::string> honest{"",
                                          "wan0",
                                          "/etc/a file with blanks.conf",
                                          "C:\\new\\table",
                                          "back\\slash at the end\\",
                                          "\\x",
                                          "\\x4",
                                          "\\x4g",
                                          "\\X41",
                                          "caf\xC3\xA9 \xE2\x82\xAC 10 \xF0\x9F\x98\x80",  // UTF-8
                                          "caf\xE9 \xFF",                                  // Latin-1
                                          "\xC2\xA0",
                                          "~ !\"#$%&'()*+,-./:;<=>?@[]^_`{|}"};
    for (const std::string &text : honest) {
        const vx::VisibleText shown(text.c_str());
        EXPECT_EQ(shown.c_str(), text.c_str()) << text;  // no copy
        EXPECT_EQ(shown.length(), text.size()) << text;
    }
}

TEST(VisibleText, EveryControlByteIsEscaped) {
    for (int byte = 0; byte < 256; ++byte) {
        const std::string text = std::string("a") + static_cast<char>(byte) + "b";
        char escape[8];
        std::snprintf(escape, sizeof escape, "\\x%02X", static_cast<unsigned int>(byte));
        const bool control = byte < 0x20 || byte == 0x7F || (byte >= 0x80 && byte < 0xA0);
        EXPECT_EQ(visible(text), control ? std::string("a") + escape + "b" : text) << byte;
    }
}

TEST(VisibleText, ControlCharactersInUtf8AreBroken) {
    EXPECT_EQ(visible("\xC2\x9B"
                      "2J"),
              "\xC2\\x9B"
              "2J");                              // CSI
    EXPECT_EQ(visible("\xC2\x85"), "\xC2\\x85");  // next line
    EXPECT_EQ(visible("\xC1\x9B"), "\xC1\\x9B");  // longer than necessary
    EXPECT_EQ(visible("\xE0\x82\x9B"), "\xE0\\x82\\x9B");
    EXPECT_EQ(visible("\xF0\x80\x82\x9B"), "\xF0\\x80\\x82\\x9B");
    EXPECT_EQ(visible("\xF5\x80\x80\x80"), "\xF5\\x80\\x80\\x80");
    EXPECT_EQ(visible("\xE2\x82"), "\xE2\\x82");  // cut
    EXPECT_EQ(visible("\xE2\x82\n"), "\xE2\\x82\\x0A");
    EXPECT_EQ(visible("\xE2\x80\x9B"), "\xE2\x80\x9B");  // a character of its own, whose last byte alone is not one
}

TEST(VisibleText, ABackslashIsEscapedOnlyWhereItReadsAsAnEscape) {
    EXPECT_EQ(visible("\\x41"), "\\x5Cx41");
    EXPECT_EQ(visible("\\\\x0a"), "\\\\x5Cx0a");
    EXPECT_EQ(visible("\\x4\n"), "\\x4\\x0A");
    EXPECT_EQ(visible("\\\n"), "\\\\x0A");
    EXPECT_EQ(visible("\\x5Cx41"), "\\x5Cx5Cx41");
}

TEST(VisibleText, EscapingIsReversibleAndLeavesNoControlByte) {
    std::mt19937 random(1);
    const char bytes[] = {'\\',   'x',    '4',    'C',    'f',    'g',  '\n', '\x1B',
                          '\x7F', '\xC2', '\x9B', '\xA0', '\xE2', '\0', ' '};
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        for (size_t length = random() % 24; length > 0; --length) text += bytes[random() % sizeof bytes];
        const std::string shown = visible(text);
        EXPECT_EQ(unescaped(shown), text) << shown;
        for (const char c : shown) {
            EXPECT_FALSE(static_cast<unsigned char>(c) < ' ' || c == '\x7F') << shown;
        }
        EXPECT_EQ(visible(shown) == shown, shown.find("\\x") == std::string::npos || unescaped(shown) == shown);
    }
}

TEST(VisibleText, TextsOfAnyLengthAreShownWhole) {
    for (const size_t length : {126U, 127U, 128U, 129U, 5000U, 100000U}) {
        const std::string text(length, '\n');
        EXPECT_EQ(visible(text).size(), 4 * length);
        EXPECT_EQ(unescaped(visible(text)), text);
        EXPECT_EQ(visible(std::string(length, 'a') + "\n"), std::string(length, 'a') + "\\x0A");
    }
}

TEST(VisibleText, WithoutMemoryTheEndIsMissing) {
    memoryRunsOut = true;
    const std::string few = visible(std::string(127, '\n'));
    const std::string many = visible(std::string(1000, '\n'));
    const std::string nothingToEscape = visible(std::string(1000, 'a'));
    const std::string longRun = visible(std::string(1000, 'a') + "\n\n");
    const std::string cutBeforeEscape = visible(std::string(509, 'a') + "\nb");
    memoryRunsOut = false;
    EXPECT_EQ(unescaped(few), std::string(127, '\n'));  // needs none
    EXPECT_EQ(unescaped(many), std::string(127, '\n'));
    EXPECT_EQ(nothingToEscape, std::string(1000, 'a'));
    EXPECT_EQ(longRun, std::string(511, 'a'));
    EXPECT_EQ(cutBeforeEscape, std::string(509, 'a'));
}

// ---- the system log

class LogTest : public testing::Test {
protected:
    LogTest() {
        ::syslog(LOG_INFO, "connected");
        log.take();
    }
    ~LogTest() override { ::setlogmask(LOG_UPTO(LOG_DEBUG)); }

    // The lines that the library logs about a file that is not there.
    Lines missing(const std::string &name) {
        EXPECT_EQ(cfread_open(name.c_str()), nullptr);
        return log.take();
    }

    vxtest::SyslogCapture log;
};

TEST_F(LogTest, AValueFromOutsideCannotBeginALineOfItsOwn) {
    EXPECT_EQ(missing("/no\n<0>Jan  1 00:00:00 kernel: panic"),
              (Lines{{LOG_ERR, "cfread: unable to open /no\\x0A<0>Jan  1 00:00:00 kernel: panic"}}));
    EXPECT_EQ(missing("/no\r\n"), (Lines{{LOG_ERR, "cfread: unable to open /no\\x0D\\x0A"}}));
}

TEST_F(LogTest, AValueFromOutsideCannotSteerATerminal) {
    EXPECT_EQ(missing("/\x1B[2J\x07\x7F\xC2\x9B"
                      "31m"),
              (Lines{{LOG_ERR,
                      "cfread: unable to open /\\x1B[2J\\x07\\x7F\xC2\\x9B"
                      "31m"}}));
}

TEST_F(LogTest, HonestValuesAreUnchanged) {
    for (const char *name : {"/no/caf\xC3\xA9 \xE2\x82\xAC", "/no/caf\xE9", "/no/C:\\x", "/no/%s%n%d"}) {
        EXPECT_EQ(missing(name), (Lines{{LOG_ERR, std::string("cfread: unable to open ") + name}}));
    }
}

TEST_F(LogTest, LongMessagesAreWhole) {
    for (const size_t length : {900U, 999U, 1000U, 1001U, 5000U, 20000U}) {
        const std::string name(length, 'a');
        EXPECT_EQ(missing(name), (Lines{{LOG_ERR, "cfread: unable to open " + name}}));
        EXPECT_EQ(missing(name + "\n"), (Lines{{LOG_ERR, "cfread: unable to open " + name + "\\x0A"}}));
    }
}

TEST_F(LogTest, ErrnoAndTheMaskOfPrioritiesAreRespected) {
    errno = ERANGE;
    EXPECT_EQ(cfread_find_entry(nullptr, "a"), nullptr);
    EXPECT_EQ(errno, ERANGE);
    ::setlogmask(LOG_UPTO(LOG_CRIT));
    EXPECT_EQ(missing("/no"), Lines{});
    ::setlogmask(LOG_UPTO(LOG_ERR));
    EXPECT_EQ(missing("/no").size(), 1U);
    EXPECT_EQ(::setlogmask(0), LOG_UPTO(LOG_ERR));
}

// ---- standard output

TEST(StandardOutput, ValuesOfAConfigurationFileAreShownEscaped) {
    vxtest::writeFile("/etc/vx/evil.conf", "k=1\n \x1Bk=2\n \x1Bk=a\x1B]0;title\x07 \xC3\xA9\nk=a\\x41\n");
    ConfigReader reader;
    testing::internal::CaptureStdout();
    EXPECT_TRUE(reader.initialize("/etc/vx/evil.conf", 4));
    EXPECT_FALSE(reader.initialize("/no/\n\x1B", 4));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "cfg: Ignoring duplicate tag:\\x1Bk=a\\x1B]0;title\\x07 \xC3\xA9\n"
              "cfg: Ignoring duplicate tag:k=a\\x5Cx41\n"
              "cfg: Error in config file /no/\\x0A\\x1B, line 0:\n"
              "cfg:   \n");
}

}  // namespace
