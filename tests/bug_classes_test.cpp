// SPDX-License-Identifier: MIT
// Classes of bugs that comparable public systems had, one test each: numbers, texts and sizes. The table in
// docs/testing.md lists the classes, also those that the tests of the families cover.
#include <netinet/in.h>
#include <unistd.h>
#include <vxutils/address.h>
#include <vxutils/cellular.h>
#include <vxutils/cfread.h>
#include <vxutils/command.h>
#include <vxutils/configreader.h>
#include <vxutils/digest.h>
#include <vxutils/file.h>
#include <vxutils/interface.h>
#include <vxutils/ipaddress.h>
#include <vxutils/memstream.h>
#include <vxutils/numconv.h>
#include <vxutils/process.h>
#include <vxutils/strutil.h>
#include <vxutils/timefmt.h>
#include <vxutils/vxstring.h>
#include <vxutils/xprintf.h>

#include <climits>
#include <clocale>
#include <cstring>
#include <functional>

#include "support/bug_classes.h"
#include "support/syslog_capture.h"

namespace {

using vxtest::freeLines;
using vxtest::GuardedBuffer;
using vxtest::pageSize;
using vxtest::TextAtEnd;
using vxtest::TextAtStart;
using vxtest::writeFile;
using vxtest::writeProgram;

TEST(BugClass, LongestNumbersFitTheirBuffers) {
    GuardedBuffer any(34);
    for (const int base : {2, 8, 10, 16}) {
        for (const int32_t value : {INT32_MIN, INT32_MIN + 1, -1, 0, INT32_MAX}) i32toa(value, any.data(), base);
        for (const int value : {INT16_MIN, -1, 0, INT16_MAX}) i16toa(static_cast<int16_t>(value), any.data(), base);
        u_i32toa(UINT32_MAX, any.data(), base);
        EXPECT_LT(strnlen(any.data(), any.size()), any.size());
    }
    GuardedBuffer word(11);
    convBinToHex(UINT32_MAX, word.data());
    EXPECT_STREQ(word.data(), "0xffffffff");
    GuardedBuffer quad(16);
    EXPECT_EQ(convIPUL2IPStr(UINT32_MAX, quad.data()), 0);

    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    memset(&address.sin6_addr, 0xff, sizeof address.sin6_addr);
    const auto *record = reinterpret_cast<const sockaddr *>(&address);
    GuardedBuffer text(46), pair(92), network(93);
    EXPECT_STREQ(addr2str(text.data(), record), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    EXPECT_NE(net2str(pair.data(), record, record), nullptr);
    EXPECT_STREQ(net2cidr(network.data(), record, record), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128");

    // Static buffers, whose ends the address sanitizer watches.
    for (const int64_t count : {INT64_MIN, INT64_MIN + 1, INT64_C(-1), INT64_MAX}) {
        EXPECT_LT(strlen(format_size(count)), 32U);
        EXPECT_LT(strlen(format_rate(count)), 32U);
    }
    EXPECT_EQ(String::stringOf(LONG_MIN).length(), static_cast<long>(std::to_string(LONG_MIN).size()));
}

TEST(BugClass, EmptyTextsHaveNoLastByte) {
    const vxtest::SyslogCapture log;
    TextAtStart empty("");
    char *const text = empty.get();
    EXPECT_EQ(stripwhite(text), text);
    EXPECT_EQ(stripchars(text, " "), text);
    EXPECT_EQ(skipchars(text, " "), text);
    reverse(text);
    strtoupper(text);
    EXPECT_EQ(e164Number(text), e164Number(""));
    TextAtStart out("x");
    EXPECT_STREQ(escape(text, pageSize, out.get(), pageSize), "");
    EXPECT_NE(create_directory(text), 0);
    EXPECT_NE(delete_directory(text), 0);
    EXPECT_NE(copy_file(text, text), 0);
    EXPECT_NE(write_file_atomic(text, text, 0, 1, 0), 0);
    EXPECT_EQ(run_command(text, 0), run_command("", 0));
    EXPECT_EQ(xml_readattr(text, "a"), nullptr);
    EXPECT_EQ(timeparse(text), 0);
    EXPECT_STREQ(interfaceize(text), "");
    EXPECT_EQ(pdb_find_provider(text), nullptr);
    EXPECT_EQ(IpAddress().setIpAddrAsString(String(text)), -1);
    String string(text);
    string.trim();
    EXPECT_EQ(string.length(), 0);
    EXPECT_TRUE(string.endsWith(String(text)));
    EXPECT_EQ(string.lastIndexOf('x'), -1);
    EXPECT_EQ(string.deleteRegion(0, 1).length(), 0);

    // Files whose lines are empty, or nothing but what is cut off at their ends.
    for (const std::string content : {"", "\n", "\r", "\n\n", " ", "=", "=\n", "\"\n", " \t\r\n"}) {
        const std::string path = "/tmp/bug-empty";
        writeFile(path, content);
        TextAtStart value("x");
        EXPECT_GE(readfile_r(path.c_str(), value.get(), pageSize), value.get());
        list_link lines{&lines, &lines};
        EXPECT_GE(read_file_lines(path.c_str(), &lines), 0);
        freeLines(lines);
        cfread_close(cfread_open(path.c_str()));
        ConfigReader reader;
        reader.initialize(String(path.c_str()), 16);
    }
}

// A pointer has no format attribute: formats are read at run time here, as a text from outside would be.
int (*const printUnchecked)(char *, int, size_t, const char *, ...) = &snxprintf;

// Calls `use` with each beginning of the text, which ends right before an unreadable page.
void withEachBeginning(std::string_view text, const std::function<void(char *beginning)> &use) {
    for (size_t length = 0; length <= text.size(); ++length) use(TextAtEnd(text.substr(0, length)).get());
}

TEST(BugClass, CutTextsAreReadUpToTheirTerminator) {
    withEachBeginning(" \t\r\n \t", [](char *text) {
        EXPECT_STREQ(skipchars(text, " \t\r\n"), "");
        EXPECT_STREQ(stripwhite(text), "");
    });
    withEachBeginning("+4917012345678", [](char *text) {
        is_number(text);
        e164Number(text);
        String string(text);
        EXPECT_EQ(string.indexOf('\0'), -1);
    });
    withEachBeginning("-2147483648", [](char *text) {
        int error = 0;
        validValueOf32(&error, text);
        valueOf32(text);
        u_valueOf16(text);
    });
    withEachBeginning("2026-11-22 10:41:31", [](char *text) {
        validateDate(text);
        validateTime(text);
        validateTimeString(text);
        timeparse(text);
    });
    for (const char *address : {"255.255.255.255/32", "2001:db8::ffff:192.168.1.77", "fe80::1%eth0"}) {
        withEachBeginning(address, [](char *text) {
            sockaddr_storage record{};
            str2addr(text, reinterpret_cast<sockaddr *>(&record));
            uint32_t number = 0;
            convIPStr2IPUl(text, &number);
            (void)IpAddress(String(text));
        });
    }
    withEachBeginning("<tag>value</tag>", [](char *text) { xml_readattr(text, "tag"); });
    for (const char *name : {"ppp01234567890123456789", "br0-1-2", "wlan10", "gretun0"}) {
        withEachBeginning(name, [](char *text) { interfaceize(text); });
    }
    for (const char *name : {"LTE", "HSPA+", "mc509x", "em7455"}) {
        withEachBeginning(name, [](char *text) {
            get_generation(text);
            card2family(text);
        });
    }
    withEachBeginning("tool \"two words\" 'more", [](char *text) {
        char **arguments = nullptr;
        int count = 0;
        if (makeargv(text, &arguments, &count) == 0) freeargv(arguments);
    });
    withEachBeginning("%-08.3lx%%%*.*s%n", [](char *text) {
        char shown[64];
        long counted = 0;
        GuardedBuffer out(16);
        printUnchecked(out.data(), 0, out.size(), text, 1L, 2, 1, shown, &counted);
    });
}

TEST(BugClass, PositionsNearTheLimitsOfLongAreClamped) {
    const std::initializer_list<long> positions = {LONG_MIN, LONG_MIN + 1, -7,           -1,      0, 1, 5, 6,
                                                   7,        12,           LONG_MAX - 1, LONG_MAX};
    const String text("abcdef"), piece("cd");
    for (const long one : positions) {
        (void)text.substring(one);
        (void)text.indexOf('c', one);
        (void)text.indexOf(piece, one);
        (void)text.indexOfIgnoreCase(piece, one);
        (void)text.lastIndexOf('c', one);
        (void)text.lastIndexOf(piece, one);
        (void)text.lastIndexOfIgnoreCase(piece, one);
        EXPECT_EQ(text.startsWith(piece, one), one == 2);
        EXPECT_LE(String(text).deleteRegion(one).length(), 6);
        EXPECT_LE(String(text).insert(one, piece).length(), 8);
        EXPECT_LE(String(text).insert(one, 'x').length(), 7);
        for (const long other : positions) {
            EXPECT_LE(text.substring(one, other).length(), 6);
            EXPECT_LE(String(text).deleteRegion(one, other).length(), 6);
            EXPECT_LE(String("abcdef", one, other).length(), 6);
            GuardedBuffer out(6);
            EXPECT_LE(text.getChars(one, other, out.data()), 6);
            for (const long count : positions) {
                const bool same = text.regionMatches(one, text, other, count);
                EXPECT_FALSE(same && (count > 6 || one > 6 || other > 6)) << one << ' ' << other << ' ' << count;
            }
        }
    }
}

TEST(BugClass, HugeWidthsAndPositionalArgumentsStayInTheBuffer) {
    for (const char *format : {"%2147483647d", "%4294967297d", "%99999999999999999999d", "%.2147483647d",
                               "%.99999999999999999999d", "%1$d", "%2$*1$d", "%1000000$d", "%*d", "%-2147483648d"}) {
        for (const size_t size : {size_t{1}, size_t{2}, size_t{16}}) {
            GuardedBuffer out(size);
            printUnchecked(out.data(), 0, size, format, INT_MIN, 7, 7);
            EXPECT_LT(strnlen(out.data(), size), size) << format;
        }
    }
}

TEST(BugClass, AFailedConversionIsNotALength) {
    // U+20AC has no bytes in the C locale: vsnprintf() returns -1.
    ASSERT_STREQ(::setlocale(LC_ALL, nullptr), "C");
    constexpr wint_t euro = 0x20ac;
    char reference[8];
    ASSERT_EQ(snprintf(reference, sizeof reference, "%lc", euro), -1);
    EXPECT_LE(strlen(strformat("%lc%s", euro, "tail")), 4U);
    String text("before");
    text.concatf("%lc", euro);
    EXPECT_LE(text.length(), 7);
    text.format("%lc", euro);
    EXPECT_LE(text.length(), 1);
}

// Every size from 0 up; what is stored is terminated, and begins as the whole text does.
TEST(BugClass, EveryBufferSizeIsRespected) {
    const std::string whole = "0123456789";
    const std::string path = "/tmp/bug-sizes";
    writeFile(path, whole);
    writeProgram("/usr/sbin/brctl",
                 "printf 'bridge name\\tid\\tSTP\\tinterfaces\\nbr0\\t8000.0\\tno\\teth0\\n\\t\\t\\teth1\\n'");
    const std::vector<std::pair<const char *, std::function<void(char *, size_t)>>> writers = {
        {"readfile_r", [&](char *out, size_t size) { readfile_r(path.c_str(), out, size); }},
        {"strlcpy", [&](char *out, size_t size) { strlcpy(out, whole.c_str(), size); }},
        {"snxprintf", [&](char *out, size_t size) { snxprintf(out, 0, size, "%s", whole.c_str()); }},
        {"escape",
         [&](char *out, size_t size) {
             if (size > 1) escape(whole.c_str(), whole.size(), out, size);
         }},
        {"eval_command", [](char *out, size_t size) { eval_command("printf 0123456789", out, size); }},
        {"get_caller", [](char *out, size_t size) { get_caller(out, size); }},
        {"bridge_members", [](char *out, size_t size) { bridge_members("br0", out, size); }},
        {"mem_stream_printf",
         [](char *out, size_t size) {
             mem_stream stream{out, size};
             if (size > 0) *out = '\0';
             if (size > 0) mem_stream_printf(&stream, "%s", "0123456789");
         }},
        {"mem_stream_puts",
         [](char *out, size_t size) {
             mem_stream stream{out, size};
             if (size > 0) *out = '\0';
             if (size > 0) mem_stream_puts(&stream, "0123456789");
         }},
    };
    for (const auto &[name, write] : writers) {
        GuardedBuffer large(64);
        memset(large.data(), 0, large.size());
        write(large.data(), large.size());
        const std::string complete = large.data();
        EXPECT_NE(complete, "") << name;
        for (size_t size = 0; size <= complete.size() + 3; ++size) {
            GuardedBuffer out(size);
            memset(out.data(), 0, size);
            write(out.data(), size);
            const std::string stored(out.data(), strnlen(out.data(), size));
            EXPECT_TRUE(size == 0 || stored.size() < size) << name << ' ' << size;
            EXPECT_EQ(complete.compare(0, stored.size(), stored), 0) << name << ' ' << size << ": " << stored;
        }
    }
    ::unlink("/usr/sbin/brctl");

    for (unsigned int bytes = 0; bytes <= 40; bytes += 4) {
        const std::vector<uint32_t> words(10, UINT32_MAX);
        for (const unsigned int line : {0U, 4U, 8U, 12U, 16U, 40U}) {
            GuardedBuffer dump(nbrOfChars_forDataChunk2String(bytes, line));
            dataChunk2String(words.data(), dump.data(), bytes, line);
        }
    }
    for (unsigned long length = 1; length <= 16; ++length) {
        GuardedBuffer digest(length);
        Md5HashContext context;
        context.initialize(length);
        context.getHash(reinterpret_cast<unsigned char *>(digest.data()));
    }
}

}  // namespace
