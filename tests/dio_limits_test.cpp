// SPDX-License-Identifier: MIT
// The board's lines: numbers and values at their limits, contents of each kind, files and drivers that fail.
#include <vxutils/dio.h>

#include <dirent.h>
#include <malloc.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "support/call_hooks.h"
#include "support/dio.h"
#include "support/files.h"
#include "support/open_hook.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

using ScandirFilter = int (*)(const dirent *);
using ScandirOrder = int (*)(const dirent **, const dirent **);
VXTEST_HOOK_AS(int, scandir, "scandir64",
               (const char *path, dirent ***entries, ScandirFilter filter, ScandirOrder order),
               (path, entries, filter, order))

namespace {

using namespace vxtest::dio;

using testing::ElementsAre;
using vxtest::LogLine;

TEST_F(DioFiles, AreOpenedForOneDirectionAndClosedOnExec) {
    for (const std::string &file : {value("din1"), value("dout1"), value("dout2"), tree + "din1/frequency"}) {
        vxtest::writeFile(file, "0");
    }
    const vxtest::OpenedFiles files;
    unsigned char on = 77;
    EXPECT_EQ(dio_roValue(1, &on), DIO_OK);
    EXPECT_EQ(dio_rwValue(1, &on), DIO_OK);
    EXPECT_EQ(dio_setValue(2, 1), DIO_OK);
    EXPECT_EQ(dio_setFrequencyActive(1, 1), DIO_OK);
    EXPECT_EQ(files.flagsOf(value("din1")), O_RDONLY);
    EXPECT_EQ(files.flagsOf(value("dout1")), O_RDONLY);
    EXPECT_EQ(files.flagsOf(value("dout2")), O_WRONLY);
    EXPECT_EQ(files.flagsOf(tree + "din1/frequency"), O_WRONLY);
    EXPECT_EQ(files.withoutCloseOnExec(), std::vector<std::string>{});
}

TEST_F(DioFiles, NumbersOutside1To99AreOutOfRange) {
    vxtest::writeFile(value("din1"), "1");
    unsigned char on = 77;
    dio_frequency_record record{1, 2, 3};
    for (const unsigned int number : {0U, 100U, 1000U, UINT_MAX}) {
        const auto dio = static_cast<int>(number);
        EXPECT_EQ(dio_roValue(number, &on), DIO_RANGE);
        EXPECT_EQ(dio_rwValue(dio, &on), DIO_RANGE);
        EXPECT_EQ(dio_setValue(dio, 1), DIO_RANGE);
        EXPECT_EQ(dio_frequency(dio, &record), DIO_RANGE);
        EXPECT_EQ(dio_frequencyActive(dio, &on), DIO_RANGE);
        EXPECT_EQ(dio_setFrequencyActive(dio, 1), DIO_RANGE);
        const LogLine line{LOG_WARNING, "DIO number out of range (" + std::to_string(number) + " > 99)"};
        EXPECT_EQ(log.take(), std::vector<LogLine>(6, line));
    }
    EXPECT_EQ(on, 77);
    EXPECT_EQ(record.first, 2);
}

TEST_F(DioFiles, OutputsThatCannotBeCountedKeepTheirLastCount) {
    for (const char *name : {"din1", "dout1", "dout2"}) vxtest::makeDirs(tree + name);
    unsigned int count = 77;
    EXPECT_EQ(dio_count(&count), DIO_OK);
    EXPECT_EQ(count, 3U);
    for (const char *name : {"din2", "din3", "dout3"}) vxtest::makeDirs(tree + name);
    const vxtest::NoLeaks leaks;
    const struct {
        int (*function)(unsigned int *);
        unsigned int expected;
    } counts[] = {{dio_rwCount, 2}, {dio_roCount, 3}, {dio_count, 5}};
    for (const auto &[function, expected] : counts) {
        const vxtest::Hooked outputsFail(vxtest::hooks::scandir, vxtest::failingWith(EIO, 1));
        count = 77;
        errno = E2BIG;
        EXPECT_EQ(function(&count), DIO_OK);
        EXPECT_EQ(count, expected);
        EXPECT_EQ(errno, E2BIG);
        EXPECT_THAT(log.take(),
                    ElementsAre(LogLine{LOG_ERR, "Can't scandir(/sys/devices/vantorix/) - (Input/output error)"}));
    }
    EXPECT_EQ(dio_rwCount(&count), DIO_OK);
    EXPECT_EQ(count, 3U);
}

TEST_F(DioFiles, CountingKeepsNoMemory) {
    for (int line = 1; line <= 20; ++line) {
        for (const char *kind : {"din", "dout"}) vxtest::makeDirs(tree + kind + std::to_string(line));
    }
    unsigned int count = 0;
    const size_t before = ::mallinfo2().uordblks;
    for (int i = 0; i < 100; ++i) EXPECT_EQ(dio_count(&count), DIO_OK);
    EXPECT_EQ(count, 40U);
    // Some kilobytes may be blocks that malloc() keeps for the thread. Entries that are lost have more than 100.
    EXPECT_LE(::mallinfo2().uordblks, before + 20000);
}

TEST_F(DioFiles, ValuesAreOneCharacter) {
    const vxtest::NoLeaks leaks;
    struct Case {
        const char *content;
        int result;
        int on;
    };
    for (const char *kind : {"din", "dout"}) {
        for (const int number : {1, 9, 10, 98, 99}) {
            const std::string line = kind + std::to_string(number);
            for (const Case &one : {Case{"0", 0, 0}, Case{"1", 0, 1}, Case{"1\n", 0, 1}, Case{"01", 0, 0},
                                    Case{"x", 3, 77}, Case{"2", 3, 77}, Case{" 1", 3, 77}, Case{"\n", 3, 77}}) {
                vxtest::writeFile(value(line), one.content);
                unsigned char on = 77;
                const bool input = kind == std::string("din");
                const int result =
                    input ? dio_roValue(static_cast<unsigned int>(number), &on) : dio_rwValue(number, &on);
                EXPECT_EQ(result, one.result) << line << ' ' << one.content;
                EXPECT_EQ(on, one.on) << line << ' ' << one.content;
                if (one.result == 0) {
                    EXPECT_TRUE(log.take().empty());
                } else {
                    EXPECT_THAT(log.take(),
                                ElementsAre(LogLine{LOG_ERR, "Lexical error on input from \"" + value(line) + "\""}));
                }
            }
        }
    }
}

TEST_F(DioFiles, AnEmptyValueFileIsASystemError) {
    vxtest::writeFile(value("din1"), "");
    unsigned char on = 77;
    errno = E2BIG;  // left over
    EXPECT_EQ(dio_roValue(1, &on), DIO_SYSTEM);
    EXPECT_EQ(on, 77);
    EXPECT_THAT(log.take(), ElementsAre(LogLine{LOG_ERR, "Can't read from \"" + value("din1") + "\" - (Success)"}));
}

TEST_F(DioFiles, AFileThatCannotBeReadIsASystemError) {
    vxtest::makeDirs(value("din1"));
    unsigned char on = 77;
    EXPECT_EQ(dio_roValue(1, &on), DIO_SYSTEM);
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine{LOG_ERR, "Can't read from \"" + value("din1") + "\" - (Is a directory)"}));
}

TEST_F(DioFiles, FilesThatCannotBeOpenedForAnotherReasonAreASystemError) {
    vxtest::writeFile(tree + "din1", "no directory");
    vxtest::makeDirs(tree + "dout1/value");
    unsigned char on = 77;
    dio_frequency_record record{1, 2, 3};
    EXPECT_EQ(dio_roValue(1, &on), DIO_SYSTEM);
    EXPECT_EQ(dio_setValue(1, 1), DIO_SYSTEM);
    EXPECT_EQ(dio_frequency(1, &record), DIO_SYSTEM);
    EXPECT_EQ(dio_setFrequencyActive(1, 1), DIO_SYSTEM);
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine{LOG_ERR, "Can't open(" + value("din1") + ") - (Not a directory)"},
                            LogLine{LOG_ERR, "Can't open(" + value("dout1") + ") - (Is a directory)"},
                            LogLine{LOG_ERR, "Can't fopen(" + tree + "din1/frequency) - (Not a directory)"},
                            LogLine{LOG_ERR, "Can't open(" + tree + "din1/frequency) - (Not a directory)"}));
}

TEST_F(DioFiles, AnOutputOnAFullDeviceIsASystemError) {
    vxtest::makeDirs(tree + "dout1");
    ASSERT_EQ(::symlink("/dev/full", value("dout1").c_str()), 0);
    EXPECT_EQ(dio_setValue(1, 1), DIO_SYSTEM);
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine{LOG_ERR, "Can't write to \"" + value("dout1") + "\" - (No space left on device)"}));
}

TEST_F(DioFiles, FrequencyFilesHoldThreeNumbers) {
    const vxtest::NoLeaks leaks;
    const std::string path = tree + "din1/frequency";
    const LogLine lexical{LOG_ERR, "Lexical error on input from \"" + path + "\""};
    const LogLine empty{LOG_ERR, "Can't fscanf(" + path + ") - (Success)"};
    struct Case {
        const char *content;
        int result;
        std::vector<LogLine> lines;
    };
    const dio_frequency_record untouched{1, 2, 3};
    for (const Case &one :
         {Case{"0 0 5", 4, {}}, Case{"0 0 5\n", 4, {}}, Case{"10", 3, {lexical}}, Case{"10 20", 3, {lexical}},
          Case{"10 20 x", 3, {lexical}}, Case{"x", 3, {lexical}}, Case{"", 6, {empty}}, Case{" \n", 6, {empty}}}) {
        vxtest::writeFile(path, one.content);
        dio_frequency_record record = untouched;
        EXPECT_EQ(dio_frequency(1, &record), one.result) << one.content;
        EXPECT_EQ(log.take(), one.lines) << one.content;
        EXPECT_TRUE(record.number == 1 && record.first == 2 && record.second == 3) << one.content;
    }
}

TEST_F(DioFiles, FrequencyNumbersHaveTheirFullRange) {
    const auto read = [](const std::string &content) {
        vxtest::writeFile(tree + "din99/frequency", content);
        dio_frequency_record record{};
        EXPECT_EQ(dio_frequency(99, &record), DIO_OK) << content;
        return record;
    };
    const auto check = [](const dio_frequency_record &record, int64_t first, int64_t second, uint32_t number) {
        EXPECT_EQ(record.first, first);
        EXPECT_EQ(record.second, second);
        EXPECT_EQ(record.number, number);
    };
    check(read("1 2 3"), 1, 2, 3);
    check(read("0 1 0"), 0, 1, 0);
    check(read("-1 0 4294967295"), -1, 0, UINT32_MAX);
    check(read("9223372036854775807 -9223372036854775808 7\n"), INT64_MAX, INT64_MIN, 7);
    // What does not fit in 32 bits is the largest number on every machine; negative ones wrap.
    check(read("1 1 4294967296"), 1, 1, UINT32_MAX);
    check(read("1 1 99999999999999999999999"), 1, 1, UINT32_MAX);
    check(read("1 1 -1"), 1, 1, UINT32_MAX);
    check(read("1 1 -2"), 1, 1, UINT32_MAX - 1);
    check(read("1 1 -4294967295"), 1, 1, 1);
    check(read("1 1 -4294967296"), 1, 1, UINT32_MAX);
}

TEST_F(DioFiles, AFrequencyFileThatFailsIsASystemError) {
    vxtest::makeDirs(tree + "din1/frequency");
    dio_frequency_record record{1, 2, 3};
    EXPECT_EQ(dio_frequency(1, &record), DIO_SYSTEM);
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine{LOG_ERR, "Can't fscanf(" + tree + "din1/frequency) - (Is a directory)"}));
}

TEST_F(DioDriver, OtherRefusalsAndShortWritesHaveTheirCodes) {
    unsigned char active = 77;
    const std::string start = "Can't write to \"" + tree + "din1/frequency\" - (";
    const LogLine io{LOG_ERR, start + "Input/output error)"};
    board.tell("refuse din1/frequency " + std::to_string(EIO));
    EXPECT_EQ(dio_frequencyActive(1, &active), DIO_INACTIVE);
    EXPECT_EQ(dio_setFrequencyActive(1, 1), DIO_SYSTEM);
    EXPECT_EQ(dio_setFrequencyActive(1, 0), DIO_SYSTEM);
    EXPECT_THAT(log.take(), ElementsAre(io, io, io));
    board.tell("refuse din1/frequency " + std::to_string(ENOENT));
    EXPECT_EQ(dio_frequencyActive(1, &active), DIO_INACTIVE);
    EXPECT_EQ(dio_setFrequencyActive(1, 1), DIO_SYSTEM);
    EXPECT_EQ(dio_setFrequencyActive(1, 0), DIO_INACTIVE);
    board.tell("refuse din1/frequency " + std::to_string(EEXIST));
    EXPECT_EQ(dio_setFrequencyActive(1, 1), DIO_ACTIVE);
    EXPECT_EQ(dio_setFrequencyActive(1, 0), DIO_SYSTEM);
    EXPECT_EQ(active, 77);
    log.take();

    board.tell("refuse din1/frequency 0");
    board.tell("refuse dout1/value 0");
    EXPECT_EQ(dio_frequencyActive(1, &active), DIO_SYSTEM);
    EXPECT_EQ(dio_setFrequencyActive(1, 1), DIO_SYSTEM);
    EXPECT_EQ(dio_setFrequencyActive(1, 0), DIO_SYSTEM);
    EXPECT_EQ(dio_setValue(1, 1), DIO_SYSTEM);
    const LogLine shortWrite{LOG_ERR, start + "Success)"};
    EXPECT_THAT(log.take(), ElementsAre(shortWrite, shortWrite, shortWrite,
                                        LogLine{LOG_ERR, "Can't write to \"" + value("dout1") + "\" - (Success)"}));
    EXPECT_EQ(active, 77);
}

TEST_F(DioDriver, AFailedCloseIsLoggedAndChangesNeitherResultNorErrno) {
    const vxtest::NoLeaks leaks;
    unsigned char on = 77;
    dio_frequency_record record{};
    for (const char *path : {"din1/value", "dout1/value", "din1/frequency"})
        board.tell(std::string("unclosable ") + path);
    board.tell("in 1 1");
    const auto unclosable = [](const char *path) {
        return LogLine{LOG_ERR, "Can't close(" + tree + path + ") - (Input/output error)"};
    };
    EXPECT_EQ(dio_roValue(1, &on), DIO_OK);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(on, 1);
    EXPECT_EQ(dio_setValue(1, 1), DIO_OK);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(dio_setFrequencyActive(1, 1), DIO_OK);
    EXPECT_THAT(log.take(),
                ElementsAre(unclosable("din1/value"), unclosable("dout1/value"), unclosable("din1/frequency")));
    on = 77;
    EXPECT_EQ(dio_frequencyActive(1, &on), DIO_OK);
    EXPECT_EQ(on, 1);
    EXPECT_EQ(dio_setFrequencyActive(1, 1), DIO_ACTIVE);
    EXPECT_THAT(log.take(),
                ElementsAre(testing::_, unclosable("din1/frequency"), testing::_, unclosable("din1/frequency")));
    EXPECT_EQ(dio_frequency(1, &record), DIO_OK);
    EXPECT_EQ(errno, 0);
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine{LOG_ERR, "Can't fclose(" + tree + "din1/frequency) - (Input/output error)"}));
    board.tell("text din1/value x");
    EXPECT_EQ(dio_roValue(1, &on), DIO_LEXICAL);
    EXPECT_THAT(log.take(), ElementsAre(testing::_, unclosable("din1/value")));
}

}  // namespace
