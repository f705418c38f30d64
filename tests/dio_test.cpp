// SPDX-License-Identifier: MIT
#include <vxutils/dio.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "support/board.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace {

using testing::ElementsAre;
using vxtest::Board;
using vxtest::LogLine;

const std::string tree = "/sys/devices/vantorix/";

std::string value(const std::string &line) { return tree + line + "/value"; }

// A tree of plain files, where the driver's answers do not matter.
class DioFiles : public testing::Test {
protected:
    DioFiles() { vxtest::plainBoardTree(); }

    vxtest::SyslogCapture log;
};

// The driver's stand-in.
class DioDriver : public testing::Test {
protected:
    vxtest::SyslogCapture log;
    Board board{4, 2};
};

struct Counts {
    unsigned int all, inputs, outputs;
    bool operator==(const Counts &) const = default;
};

Counts counts() {
    Counts result{77, 77, 77};
    EXPECT_EQ(dio_count(&result.all), DIO_OK);
    EXPECT_EQ(dio_roCount(&result.inputs), DIO_OK);
    EXPECT_EQ(dio_rwCount(&result.outputs), DIO_OK);
    return result;
}

TEST(Dio, ResultCodesHaveTheirFixedNumbers) {
    EXPECT_EQ(DIO_OK, 0);
    EXPECT_EQ(DIO_RANGE, 1);
    EXPECT_EQ(DIO_MISSING, 2);
    EXPECT_EQ(DIO_LEXICAL, 3);
    EXPECT_EQ(DIO_INACTIVE, 4);
    EXPECT_EQ(DIO_ACTIVE, 5);
    EXPECT_EQ(DIO_SYSTEM, 6);
    EXPECT_EQ(offsetof(dio_frequency_record, number), 0U);
    EXPECT_EQ(offsetof(dio_frequency_record, first), 8U);
    EXPECT_EQ(offsetof(dio_frequency_record, second), 16U);
}

TEST(Dio, NullOutputsAreASystemErrorWithEinval) {
    const auto refused = [](auto call) {
        errno = 0;
        return call() == DIO_SYSTEM && errno == EINVAL;
    };
    vxtest::SyslogCapture log;
    EXPECT_TRUE(refused([] { return dio_count(nullptr); }));
    EXPECT_TRUE(refused([] { return dio_roCount(nullptr); }));
    EXPECT_TRUE(refused([] { return dio_rwCount(nullptr); }));
    EXPECT_TRUE(refused([] { return dio_roValue(1, nullptr); }));
    EXPECT_TRUE(refused([] { return dio_rwValue(1, nullptr); }));
    EXPECT_TRUE(refused([] { return dio_frequency(1, nullptr); }));
    EXPECT_TRUE(refused([] { return dio_frequencyActive(1, nullptr); }));
    EXPECT_TRUE(refused([] { return dio_roValue(0, nullptr); }));  // looked at before the number
    EXPECT_TRUE(log.take().empty());
}

TEST(Dio, WithoutATreeEveryCountIsZero) {
    vxtest::SyslogCapture log;
    ASSERT_FALSE(vxtest::exists(tree));
    EXPECT_EQ(counts(), (Counts{0, 0, 0}));
    EXPECT_TRUE(log.take().empty());
}

TEST_F(DioFiles, LinesAreDirectoriesWithOneOrTwoDigits) {
    for (const char *name : {"din0", "din07", "din7", "din99", "dout1", "dout22"}) vxtest::makeDirs(tree + name);
    for (const char *name : {"din", "din123", "din1x", "dinx", "din1 ", "din-1", "dim1", "DIN1", "xdin1", "dout",
                             "dout123", "dout1x", "douty"}) {
        vxtest::makeDirs(tree + name);
    }
    vxtest::writeFile(tree + "din5", "a file");
    ASSERT_EQ(::symlink((tree + "din7").c_str(), (tree + "din8").c_str()), 0);
    ASSERT_EQ(::symlink("/nowhere", (tree + "din9").c_str()), 0);
    EXPECT_EQ(counts(), (Counts{7, 5, 2}));
    EXPECT_TRUE(log.take().empty());
}

TEST_F(DioFiles, DirectoriesThatTheCallerMayNotReadAndSearchDoNotCount) {
    for (const char *name : {"din1", "din2", "din3", "dout1"}) vxtest::makeDirs(tree + name);
    ASSERT_EQ(::chmod((tree + "din2").c_str(), 0644), 0);
    ASSERT_EQ(::chmod((tree + "din3").c_str(), 0711), 0);
    EXPECT_EQ(counts().inputs, 3U);  // root may read and search them
    EXPECT_EQ(vxtest::inChild([] {
                  if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0) return 99;
                  const Counts seen = counts();
                  return seen == Counts{2, 1, 1} ? 0 : 1;
              }),
              0);
}

TEST_F(DioFiles, ATreeThatCannotBeReadKeepsTheLastCount) {
    for (const char *name : {"din1", "din2", "dout1"}) vxtest::makeDirs(tree + name);
    ASSERT_EQ(::chmod(tree.c_str(), 0700), 0);
    EXPECT_EQ(counts(), (Counts{3, 2, 1}));
    vxtest::makeDirs(tree + "din3");
    ASSERT_EQ(::chmod("/dev/log", 0666), 0);
    EXPECT_EQ(vxtest::inChild([] {
                  if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0) return 99;
                  errno = E2BIG;
                  unsigned int all = 0;
                  return dio_count(&all) == DIO_OK && all == 3 && errno == E2BIG ? 0 : 1;
              }),
              0);
    // One line: after the failure for the inputs the outputs are not counted.
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine{LOG_ERR, "Can't scandir(/sys/devices/vantorix/) - (Permission denied)"}));
    EXPECT_EQ(counts(), (Counts{4, 3, 1}));
    vxtest::removePlainBoardTree();
    EXPECT_EQ(counts(), (Counts{0, 0, 0}));
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

TEST_F(DioFiles, MissingFilesAreTold) {
    const vxtest::NoLeaks leaks;
    unsigned char on = 77;
    dio_frequency_record record{1, 2, 3};
    EXPECT_EQ(dio_roValue(3, &on), DIO_MISSING);
    EXPECT_EQ(dio_rwValue(3, &on), DIO_MISSING);
    EXPECT_EQ(dio_setValue(3, 1), DIO_MISSING);
    EXPECT_EQ(dio_frequency(3, &record), DIO_MISSING);
    EXPECT_EQ(dio_frequencyActive(3, &on), DIO_MISSING);
    EXPECT_EQ(dio_setFrequencyActive(3, 1), DIO_MISSING);
    const std::string frequency = tree + "din3/frequency) - (No such file or directory)";
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine{LOG_ERR, "Can't open(" + value("din3") + ") - (No such file or directory)"},
                            LogLine{LOG_ERR, "Can't open(" + value("dout3") + ") - (No such file or directory)"},
                            LogLine{LOG_ERR, "Can't open(" + value("dout3") + ") - (No such file or directory)"},
                            LogLine{LOG_ERR, "Can't fopen(" + frequency}, LogLine{LOG_ERR, "Can't open(" + frequency},
                            LogLine{LOG_ERR, "Can't open(" + frequency}));
    EXPECT_EQ(on, 77);
    EXPECT_EQ(record.number, 1U);
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

TEST_F(DioFiles, AnOutputGetsOneCharacter) {
    const vxtest::NoLeaks leaks;
    for (const unsigned int written : {0U, 1U, 9U, 10U, 207U, UINT_MAX}) {
        vxtest::writeFile(value("dout12"), "");
        EXPECT_EQ(dio_setValue(12, written), DIO_OK);
        EXPECT_EQ(vxtest::readFile(value("dout12")), std::string(1, static_cast<char>('0' + written)));
    }
    EXPECT_TRUE(log.take().empty());
}

TEST_F(DioFiles, FilesNeedToBeNoMoreThanReadableOrWritable) {
    const std::string frequency = tree + "din1/frequency";
    vxtest::writeFile(value("din1"), "1");
    vxtest::writeFile(value("dout1"), "1");
    vxtest::writeFile(frequency, "1 2 3");
    const auto asUser = [](const auto &check) {
        return vxtest::inChild([&] {
            if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0) return 99;
            return check();
        });
    };
    const auto permit = [&](mode_t mode) {
        for (const std::string &path : {value("din1"), value("dout1"), frequency}) {
            ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
        }
    };
    permit(0444);
    EXPECT_EQ(asUser([] {
                  unsigned char on = 0;
                  dio_frequency_record record{};
                  return dio_roValue(1, &on) + dio_rwValue(1, &on) + dio_frequency(1, &record);
              }),
              DIO_OK);
    permit(0222);
    EXPECT_EQ(asUser([] {
                  unsigned char active = 0;
                  return dio_setValue(1, 0) + dio_setFrequencyActive(1, 1) + dio_frequencyActive(1, &active);
              }),
              DIO_OK);
    EXPECT_TRUE(log.take().empty());
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

TEST_F(DioDriver, CountsWhatTheBoardHas) {
    EXPECT_EQ(counts(), (Counts{6, 4, 2}));
    board.tell("inputs 12");
    board.tell("outputs 0");
    EXPECT_EQ(counts(), (Counts{12, 12, 0}));
}

TEST_F(DioDriver, InputsFollowTheBoard) {
    unsigned char on = 77;
    EXPECT_EQ(dio_roValue(3, &on), DIO_OK);
    EXPECT_EQ(on, 0);
    board.tell("in 3 1");
    EXPECT_EQ(dio_roValue(3, &on), DIO_OK);
    EXPECT_EQ(on, 1);
    EXPECT_EQ(dio_roValue(5, &on), DIO_MISSING);
}

TEST_F(DioDriver, OutputsReachTheBoardAndReadBack) {
    EXPECT_EQ(dio_setValue(2, 1), DIO_OK);
    EXPECT_THAT(board.happened(), ElementsAre("out 2 = 1"));
    unsigned char on = 0;
    EXPECT_EQ(dio_rwValue(2, &on), DIO_OK);
    EXPECT_EQ(on, 1);
    EXPECT_EQ(dio_setValue(2, 0), DIO_OK);
    EXPECT_EQ(dio_rwValue(2, &on), DIO_OK);
    EXPECT_EQ(on, 0);
    EXPECT_EQ(dio_setValue(3, 0), DIO_MISSING);
}

TEST_F(DioDriver, CountingStartsAndStopsOnce) {
    const vxtest::NoLeaks leaks;
    const std::string refused = "Can't write to \"" + tree + "din1/frequency\" - (";
    unsigned char active = 77;
    EXPECT_EQ(dio_frequencyActive(1, &active), DIO_OK);
    EXPECT_EQ(active, 0);
    EXPECT_EQ(dio_setFrequencyActive(1, 0), DIO_INACTIVE);
    EXPECT_THAT(log.take(), ElementsAre(LogLine{LOG_ERR, refused + "No such file or directory)"}));
    EXPECT_EQ(dio_setFrequencyActive(1, 1), DIO_OK);
    EXPECT_EQ(dio_setFrequencyActive(1, 7), DIO_ACTIVE);
    EXPECT_THAT(log.take(), ElementsAre(LogLine{LOG_ERR, refused + "File exists)"}));
    EXPECT_EQ(dio_frequencyActive(1, &active), DIO_OK);
    EXPECT_EQ(active, 1);
    EXPECT_THAT(log.take(), ElementsAre(LogLine{LOG_ERR, refused + "File exists)"}));
    EXPECT_EQ(dio_setFrequencyActive(1, 0), DIO_OK);
    EXPECT_EQ(dio_frequencyActive(1, &active), DIO_OK);
    EXPECT_EQ(active, 0);
    EXPECT_THAT(board.happened(), ElementsAre("counting 1 on", "counting 1 off"));
    EXPECT_TRUE(log.take().empty());
}

TEST_F(DioDriver, PulsesAreCountedWhileCountingRuns) {
    dio_frequency_record record{};
    EXPECT_EQ(dio_frequency(1, &record), DIO_INACTIVE);
    EXPECT_EQ(dio_setFrequencyActive(1, 1), DIO_OK);
    board.tell("in 1 1");
    board.tell("in 1 0");
    board.tell("pulse 1 41");
    EXPECT_EQ(dio_frequency(1, &record), DIO_OK);
    EXPECT_EQ(record.number, 42U);
    EXPECT_GT(record.first, 0);
    EXPECT_GE(record.second, record.first);
    board.tell("frequency 2 5 6 7");
    EXPECT_EQ(dio_frequency(2, &record), DIO_OK);
    EXPECT_TRUE(record.number == 7 && record.first == 5 && record.second == 6);
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

TEST_F(DioDriver, AFailedCloseIsLoggedAndChangesNoResult) {
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
    EXPECT_EQ(on, 1);
    EXPECT_EQ(dio_setValue(1, 1), DIO_OK);
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
    EXPECT_THAT(log.take(),
                ElementsAre(LogLine{LOG_ERR, "Can't fclose(" + tree + "din1/frequency) - (Input/output error)"}));
    board.tell("text din1/value x");
    EXPECT_EQ(dio_roValue(1, &on), DIO_LEXICAL);
    EXPECT_THAT(log.take(), ElementsAre(testing::_, unclosable("din1/value")));
}

TEST_F(DioDriver, AMissingFileOfALineIsTold) {
    unsigned char on = 77;
    board.tell("gone din2/value");
    EXPECT_EQ(dio_roValue(2, &on), DIO_MISSING);
    board.tell("normal");
    EXPECT_EQ(dio_roValue(2, &on), DIO_OK);
}

TEST_F(DioDriver, ADriverThatDiedIsASystemError) {
    EXPECT_EQ(counts(), (Counts{6, 4, 2}));
    board.kill();
    log.take();
    unsigned char on = 77;
    EXPECT_EQ(dio_roValue(1, &on), DIO_SYSTEM);
    EXPECT_EQ(counts(), (Counts{6, 4, 2}));  // the last ones
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0].text, "Can't open(" + value("din1") + ") - (Transport endpoint is not connected)");
    EXPECT_EQ(lines[1].text, "Can't scandir(/sys/devices/vantorix/) - (Transport endpoint is not connected)");
}

TEST_F(DioDriver, TheExampleFollowsAnInput) {
    board.tell("in 1 1");
    const auto output = vxtest::run({vxtest::built("examples/dio_follow"), "1", "2"});
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(output.text, "board: 4 inputs, 2 outputs\ninput 1 is on, output 2 set\n");
    EXPECT_THAT(board.happened(), ElementsAre("out 2 = 1"));
    EXPECT_EQ(vxtest::run({vxtest::built("examples/dio_follow"), "9", "2"}).status, DIO_MISSING);
}

}  // namespace
