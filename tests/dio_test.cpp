// SPDX-License-Identifier: MIT
// The board's lines through the public interface. Rows of values, limits and failures of the files are in
// dio_limits_test.cpp.
#include <vxutils/dio.h>

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <string>

#include "support/dio.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace {

using namespace vxtest::dio;

using testing::ElementsAre;
using vxtest::LogLine;

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
    // Looked at before the number.
    EXPECT_TRUE(refused([] { return dio_roValue(0, nullptr); }));
    EXPECT_TRUE(refused([] { return dio_rwValue(100, nullptr); }));
    EXPECT_TRUE(refused([] { return dio_frequency(0, nullptr); }));
    EXPECT_TRUE(refused([] { return dio_frequencyActive(-1, nullptr); }));
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

TEST_F(DioFiles, AProcessThatCouldNeverReadTheTreeCountsNoLines) {
    vxtest::removePlainBoardTree();
    vxtest::writeFile("/sys/devices/vantorix", "not a directory");
    const auto output = vxtest::run({vxtest::built("examples/dio_follow"), "1", "1"});
    EXPECT_EQ(output.text, "board: 0 inputs, 0 outputs\n");
    EXPECT_EQ(output.status, DIO_SYSTEM);
    EXPECT_EQ(log.take().size(), 3U);
    vxtest::removePlainBoardTree();
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
