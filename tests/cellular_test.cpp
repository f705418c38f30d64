// SPDX-License-Identifier: MIT
#include <vxutils/cellular.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "support/call_hooks.h"
#include "support/files.h"
#include "support/interruptions.h"
#include "support/process.h"
#include "support/resources.h"

VXTEST_HOOK(FILE *, popen, (const char *command, const char *mode), (command, mode))

namespace {

bool noMemoryForTexts = false;

__attribute__((format(printf, 2, 0))) int makeText(char **text, const char *format, va_list args) {
    if (!noMemoryForTexts) return ::vasprintf(text, format, args);
    errno = ENOMEM;
    return -1;
}

}  // namespace

// By the name that the library calls: the second one where its headers are fortified.
extern "C" __attribute__((format(printf, 2, 3))) int asprintf(char **text, const char *format, ...) noexcept {
    va_list args;
    va_start(args, format);
    const int length = makeText(text, format, args);
    va_end(args);
    return length;
}
extern "C" __attribute__((format(printf, 3, 4))) int __asprintf_chk(char **text, int, const char *format,
                                                                    ...) noexcept {
    va_list args;
    va_start(args, format);
    const int length = makeText(text, format, args);
    va_end(args);
    return length;
}

namespace {

TEST(Cellular, GenerationsOfAccessTechnologies) {
    for (const char *name : {"CSD", "GPRS", "EDGE", "edge", "Gprs"}) EXPECT_EQ(get_generation(name), 2) << name;
    for (const char *name : {"UMTS", "HSDPA", "HSUPA", "HSPA", "HSPA+", "hspa+", "CDMA"}) {
        EXPECT_EQ(get_generation(name), 3) << name;
    }
    for (const char *name : {"LTE", "lte"}) EXPECT_EQ(get_generation(name), 4) << name;
    for (const char *name : {"ENDC", "5G", "5g"}) EXPECT_EQ(get_generation(name), 5) << name;
    for (const char *name : {"", "LT", "LTE+", " LTE", "HSPA++", "4G", "NR"})
        EXPECT_EQ(get_generation(name), -1) << name;
    EXPECT_EQ(get_generation(nullptr), -1);
}

TEST(Cellular, FamiliesOfModulesByTheStartOfTheName) {
    struct Case {
        const char *module;
        int code;
    };
    for (const Case &one : {Case{"gtm", 0x10001},         Case{"gtm501", 0x10001},     Case{"mc7455", 0x20002},
                            Case{"mc", 0x20002},          Case{"mc509", 0x20002},      Case{"em7455", 0x40004},
                            Case{"me909", 0x80004},       Case{"mu609", 0x80004},      Case{"mpn", 0x200008},
                            Case{"mpl200", 0x200008},     Case{"trm3", 0x400010},      Case{"sim7600", 0x800020},
                            Case{"tobyl2", 0x1000040},    Case{"tobyl201", 0x1000040}, Case{"laral6", 0x4000040},
                            Case{"laral6004", 0x4000040}, Case{"fn980", 0x2000080},    Case{"le910", 0x2000080},
                            Case{"lm960", 0x2000080},     Case{"ln940", 0x2000080}}) {
        EXPECT_EQ(card2family(one.module), one.code) << one.module;
    }
    for (const char *none : {"", "m", "gt", "mp", "mpx", "MC7455", "lara-l6", "tobyl", "la", " mc", "xmc", "l"}) {
        EXPECT_EQ(card2family(none), 0) << none;
    }
    EXPECT_EQ(card2family(nullptr), 0);
}

class Provider : public testing::Test {
protected:
    // The provider data base's tool: notes how it was called and prints `output`.
    static void tool(const std::string &output) {
        vxtest::writeFile("/tmp/pdb-output", output);
        vxtest::writeFile("/usr/bin/pdb",
                          "#!/bin/sh\nfor word; do echo \"[$word]\" >>/tmp/pdb-calls; done\ncat /tmp/pdb-output\n");
        ASSERT_EQ(::chmod("/usr/bin/pdb", 0755), 0);
        ::unlink("/tmp/pdb-calls");
    }
    static std::string calls() { return vxtest::readFile("/tmp/pdb-calls"); }
};

TEST_F(Provider, IsTheFirstLineThatNamesOne) {
    const vxtest::NoLeaks leaks;
    tool("network: 26201\nprovider: Example Mobile \t\nprovider: second\n");
    EXPECT_STREQ(pdb_find_provider("26201"), "Example Mobile");
    EXPECT_EQ(calls(), "[-n]\n[26201]\n");
}

TEST_F(Provider, BeginsWithTheSecondCharacterAfterTheColon) {
    tool("provider:Xname\n");
    EXPECT_STREQ(pdb_find_provider("1"), "name");
    tool("provider:   name\n");
    EXPECT_STREQ(pdb_find_provider("1"), "name");
    tool("provider : name\nProvider: name\n provider: name\nproviders: name\n");
    EXPECT_STREQ(pdb_find_provider("1"), "");
}

TEST_F(Provider, WithNothingAfterTheColonIsEmpty) {
    for (const char *output :
         {"provider: stale text\nprovider:", "provider:\n", "provider:", "provider: \n", "provider: ", "provider:x"}) {
        tool(std::string("longer line than the one that follows: stale\n") + output);
        const bool first = std::string(output).rfind("provider: stale", 0) == 0;
        EXPECT_STREQ(pdb_find_provider("1"), first ? "stale text" : "") << output;
    }
}

TEST_F(Provider, IsCutTo63Characters) {
    for (const size_t length : {62U, 63U, 64U, 900U}) {
        tool("provider: " + vxtest::repeated(length, 'p') + "\n");
        EXPECT_STREQ(pdb_find_provider("1"), vxtest::repeated(std::min<size_t>(length, 63), 'p').c_str());
    }
    tool("provider: " + vxtest::repeated(5000, 'p') + "\n");
    EXPECT_STREQ(pdb_find_provider("1"), vxtest::repeated(63, 'p').c_str());
}

TEST_F(Provider, UnknownNetworksGiveAnEmptyText) {
    tool("provider: known\n");
    EXPECT_STREQ(pdb_find_provider("1"), "known");
    tool("nothing found\n");
    EXPECT_STREQ(pdb_find_provider("1"), "");
    ::unlink("/usr/bin/pdb");
    EXPECT_STREQ(pdb_find_provider("1"), "");
}

TEST_F(Provider, ANetworkMayBeTheTextThatTheLastCallReturned) {
    tool("provider: 26201\n");
    const char *found = pdb_find_provider("first");
    ASSERT_STREQ(found, "26201");
    ::unlink("/tmp/pdb-calls");
    EXPECT_STREQ(pdb_find_provider(found), "26201");
    EXPECT_EQ(calls(), "[-n]\n[26201]\n");
    tool("nothing found\n");
    EXPECT_STREQ(pdb_find_provider(found), "");
    EXPECT_EQ(calls(), "[-n]\n[26201]\n");
}

TEST_F(Provider, WithoutMemoryForTheCommandNothingRuns) {
    tool("provider: known\n");
    EXPECT_STREQ(pdb_find_provider("1"), "known");
    bool ran = false;
    const vxtest::Hooked watching(vxtest::hooks::popen, [&](const char *, const char *) -> std::optional<FILE *> {
        ran = true;
        return std::nullopt;
    });
    noMemoryForTexts = true;
    EXPECT_STREQ(pdb_find_provider("1"), "");
    noMemoryForTexts = false;
    EXPECT_FALSE(ran);
    EXPECT_STREQ(pdb_find_provider("1"), "known");
    EXPECT_TRUE(ran);
}

TEST_F(Provider, NullAndEmptyNetworksGiveNull) {
    tool("provider: known\n");
    EXPECT_EQ(pdb_find_provider(nullptr), nullptr);
    EXPECT_EQ(pdb_find_provider(""), nullptr);
    EXPECT_EQ(calls(), "");
}

TEST_F(Provider, OnlyPlainNetworkTextsReachTheShell) {
    tool("provider: known\n");
    EXPECT_STREQ(pdb_find_provider("T-Mobile D_1+ 26.01 Zz"), "known");
    EXPECT_EQ(calls(), "[-n]\n[T-Mobile]\n[D_1+]\n[26.01]\n[Zz]\n");
    ::unlink("/tmp/pdb-calls");
    for (const char *text : {"1; touch /tmp/forged",
                             "$(touch /tmp/forged)",
                             "`touch /tmp/forged`",
                             "1|cat",
                             "1&",
                             "a\nb",
                             "a\tb",
                             "\"1\"",
                             "'1'",
                             "a/b",
                             "a*",
                             "a\\b",
                             "<x",
                             ">x",
                             "a=b",
                             "\xc3\xa4",
                             "a,b",
                             "(1)",
                             "!1",
                             "~",
                             "#1",
                             "%1",
                             "{a}",
                             "[a]",
                             "?",
                             ":",
                             "@",
                             "--all",
                             "-",
                             "26201 -f secret",
                             "a  -"}) {
        EXPECT_STREQ(pdb_find_provider(text), "") << text;
    }
    EXPECT_EQ(calls(), "");
    EXPECT_FALSE(vxtest::exists("/tmp/forged"));
}

TEST_F(Provider, TheToolMayPrintMoreThanIsRead) {
    const vxtest::NoLeaks leaks;
    tool("provider: first\n" + vxtest::repeated(300000, 'x'));
    EXPECT_STREQ(pdb_find_provider("1"), "first");
}

TEST_F(Provider, SignalsDoNotEndTheSearch) {
    vxtest::writeFile("/usr/bin/pdb", "#!/bin/sh\nprintf provi; sleep 0.1; echo der: late\n");
    ASSERT_EQ(::chmod("/usr/bin/pdb", 0755), 0);
    const vxtest::Interruptions interruptions(5000);
    EXPECT_STREQ(pdb_find_provider("1"), "late");
    EXPECT_GT(vxtest::Interruptions::count, 2);
}

TEST_F(Provider, LinesEndAt1024Characters) {
    tool(vxtest::repeated(1024, 'x') + "provider: behind\n");
    EXPECT_STREQ(pdb_find_provider("1"), "behind");
    tool(vxtest::repeated(1023, 'x') + "provider: inside\n");
    EXPECT_STREQ(pdb_find_provider("1"), "");
}

TEST_F(Provider, TheExampleNamesModuleNetworkAndGeneration) {
    tool("provider: Example Mobile\n");
    const auto output = vxtest::run({vxtest::built("examples/cellular_names"), "mc7455", "26201", "LTE"});
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(output.text, "mc7455: family 0x20002\n26201: Example Mobile\nLTE: generation 4\n");
}

}  // namespace
