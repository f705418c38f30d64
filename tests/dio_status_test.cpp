// SPDX-License-Identifier: MIT
#include <vxutils/dio_status.h>

#include <syslog.h>
#include <vxutils/dio.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "support/board.h"
#include "support/call_hooks.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

VXTEST_HOOK(int, dio_roCount, (unsigned int *n), (n))
VXTEST_HOOK(int, dio_rwCount, (unsigned int *n), (n))

namespace {

using testing::ElementsAre;
using vxtest::Board;

const std::string tree = "/sys/devices/vantorix/";

class DioStatus : public testing::Test {
protected:
    vxtest::SyslogCapture log;
};

TEST(DioStatusLayout, TheHalvesAreSixteenBytesEach) {
    EXPECT_EQ(sizeof(dio_status), 32U);
    EXPECT_EQ(offsetof(dio_status, out), 16U);
    EXPECT_EQ(offsetof(dio_status_half, mask), 4U);
    EXPECT_EQ(DIORONUMBER_MIN + DIORWNUMBER_MIN, 2);
    EXPECT_EQ(DIORONUMBER_MAX + DIORWNUMBER_MAX + MAX_DIO_IN_COUNT + MAX_DIO_OUT_COUNT, 4 * 99);
}

TEST_F(DioStatus, ReadsTheWholeBoard) {
    const vxtest::NoLeaks leaks;
    Board board(12, 3);
    board.tell("in 1 1");
    board.tell("in 9 1");
    board.tell("in 12 1");
    EXPECT_EQ(dio_setValue(2, 1), DIO_OK);
    dio_status status;
    std::memset(&status, 0xff, sizeof status);
    EXPECT_EQ(dio_getStatus(&status), DIO_OK);
    EXPECT_EQ(status.in.count, 12U);
    EXPECT_EQ(status.out.count, 3U);
    // Bits of lines that read 0 are cleared, bits beyond the lines left alone.
    EXPECT_EQ(status.in.mask[0], 0x01);
    EXPECT_EQ(status.in.mask[1], 0xf9);
    EXPECT_EQ(status.in.mask[2], 0xff);
    EXPECT_EQ(status.out.mask[0], 0xfa);
    for (unsigned int line = 1; line <= 12; ++line) {
        EXPECT_EQ(dio_getInValueFromStatus(&status.in, line), line == 1 || line == 9 || line == 12 ? 1 : 0) << line;
    }
    EXPECT_EQ(dio_getOutValueFromStatus(&status.out, 2), 1);
    EXPECT_TRUE(log.take().empty());
}

TEST_F(DioStatus, TheFirstLineThatCannotBeReadEndsTheCall) {
    Board board(4, 2);
    board.tell("in 1 1");
    board.tell("in 4 1");
    board.tell("text din3/value x");
    dio_status status{};
    EXPECT_EQ(dio_getStatus(&status), DIO_LEXICAL);
    EXPECT_EQ(status.in.count, 4U);
    EXPECT_EQ(status.in.mask[0], 0x01);
    EXPECT_EQ(status.out.count, 0U);  // not reached
    board.tell("normal");
    board.tell("gone dout2/value");
    EXPECT_EQ(dio_getStatus(&status), DIO_MISSING);
    EXPECT_EQ(status.in.mask[0], 0x09);
    EXPECT_EQ(status.out.count, 2U);
}

TEST_F(DioStatus, LinesThatCannotBeCountedEndTheCall) {
    Board board(2, 2);
    dio_status status{};
    {
        const vxtest::Hooked failing(vxtest::hooks::dio_roCount, vxtest::answering(int{DIO_SYSTEM}, EIO));
        EXPECT_EQ(dio_getStatus(&status), DIO_SYSTEM);
        EXPECT_EQ(status.in.count + status.out.count, 0U);
    }
    const vxtest::Hooked failing(vxtest::hooks::dio_rwCount, vxtest::answering(int{DIO_SYSTEM}, EIO));
    EXPECT_EQ(dio_getStatus(&status), DIO_SYSTEM);
    EXPECT_EQ(status.in.count, 2U);
    EXPECT_EQ(status.out.count, 0U);
}

TEST_F(DioStatus, WithoutATreeTheRecordIsEmpty) {
    dio_status status;
    std::memset(&status, 0xff, sizeof status);
    EXPECT_EQ(dio_getStatus(&status), DIO_OK);
    EXPECT_EQ(status.in.count, 0U);
    EXPECT_EQ(status.out.count, 0U);
    EXPECT_EQ(status.in.mask[0], 0xff);
}

TEST_F(DioStatus, SetsEveryOutputOfTheRecord) {
    Board board(0, 10);
    dio_status status{};
    status.out.count = 10;
    for (const unsigned int line : {1U, 8U, 9U}) dio_setOutValueInStatus(&status.out, line, 5);
    EXPECT_EQ(status.out.mask[0], 0x81);
    EXPECT_EQ(status.out.mask[1], 0x01);
    EXPECT_EQ(dio_setStatusOut(&status.out), DIO_OK);
    EXPECT_THAT(board.happened(), ElementsAre("out 1 = 1", "out 2 = 0", "out 3 = 0", "out 4 = 0", "out 5 = 0",
                                              "out 6 = 0", "out 7 = 0", "out 8 = 1", "out 9 = 1", "out 10 = 0"));
    status.out.count = 0;
    EXPECT_EQ(dio_setStatusOut(&status.out), DIO_OK);
    EXPECT_TRUE(board.happened().empty());
    status.out.count = 12;
    EXPECT_EQ(dio_setStatusOut(&status.out), DIO_MISSING);
    EXPECT_EQ(board.happened().size(), 10U);
}

TEST_F(DioStatus, BitsAreSetAndClearedOneByOne) {
    std::array<dio_status_half, 3> halves{};
    std::memset(halves.data(), 0xa5, sizeof halves);
    const dio_status_half neighbour = halves[0];
    dio_status_half &half = halves[1];
    half = {};
    half.count = 96;
    for (unsigned int line = 1; line <= 96; ++line) {
        dio_setInValueInStatus(&half, line, 256);
        for (unsigned int other = 1; other <= 96; ++other) {
            ASSERT_EQ(dio_getInValueFromStatus(&half, other), other == line ? 1 : 0);
            ASSERT_EQ(dio_getOutValueFromStatus(&half, other), other == line ? 1 : 0);
        }
        EXPECT_EQ(half.mask[(line - 1) / 8], 1 << ((line - 1) % 8));
        dio_setOutValueInStatus(&half, line, 0);
    }
    EXPECT_EQ(half.mask[11], 0);
    EXPECT_EQ(std::memcmp(&halves[0], &neighbour, sizeof neighbour), 0);
    EXPECT_EQ(std::memcmp(&halves[2], &neighbour, sizeof neighbour), 0);
}

TEST_F(DioStatus, Lines97To99ReadAsZeroAndDoNotReachTheNeighbouringHalf) {
    dio_status status{};
    status.in.count = 99;
    status.out.count = 99;
    const dio_status before = status;
    for (unsigned int line = 97; line <= 99; ++line) {
        dio_setInValueInStatus(&status.in, line, 1);
        dio_setOutValueInStatus(&status.out, line, 1);
        EXPECT_EQ(dio_getInValueFromStatus(&status.in, line), 0);
        EXPECT_EQ(dio_getOutValueFromStatus(&status.out, line), 0);
    }
    EXPECT_EQ(std::memcmp(&status, &before, sizeof status), 0);
    dio_setInValueInStatus(&status.in, 96, 1);
    EXPECT_EQ(status.in.mask[11], 0x80);
}

TEST_F(DioStatus, NinetyNineLinesAreReadAndSet) {
    Board board(99, 99);
    for (const char *line : {"in 96 1", "in 97 1", "in 99 1"}) board.tell(line);
    dio_status status{};
    EXPECT_EQ(dio_getStatus(&status), DIO_OK);
    EXPECT_EQ(status.in.count, 99U);
    EXPECT_EQ(status.in.mask[11], 0x80);
    EXPECT_EQ(status.out.count, 99U);
    unsigned char on = 0;
    EXPECT_EQ(dio_roValue(97, &on), DIO_OK);
    EXPECT_EQ(on, 1);
    std::memset(status.out.mask, 0xFF, sizeof status.out.mask);
    EXPECT_EQ(dio_setStatusOut(&status.out), DIO_OK);
    const auto happened = board.happened();
    ASSERT_EQ(happened.size(), 99U);
    EXPECT_EQ(happened[95], "out 96 = 1");
    EXPECT_EQ(happened[96], "out 97 = 0");
    EXPECT_EQ(happened[98], "out 99 = 0");
}

// What the C library's assertion handler prints before it aborts.
std::string assertion(const std::string &function, const std::string &text) {
    return "vxutils/dio_status:[0-9]+: " + function + ": Assertion `" + text + "' failed";
}

TEST_F(DioStatus, NullRecordsAreAssertions) {
    EXPECT_DEATH(dio_getStatus(nullptr), assertion("dio_getStatus", "status != NULL"));
    EXPECT_DEATH(dio_getStatusIn(nullptr), assertion("dio_getStatusIn", "status != NULL"));
    EXPECT_DEATH(dio_getStatusOut(nullptr), assertion("dio_getStatusOut", "status != NULL"));
    EXPECT_DEATH(dio_setStatusOut(nullptr), assertion("dio_setStatusOut", "status != NULL"));
    EXPECT_DEATH(dio_getInValueFromStatus(nullptr, 1), assertion("dio_getInValueFromStatus", "status != NULL"));
    EXPECT_DEATH(dio_getOutValueFromStatus(nullptr, 1), assertion("dio_getOutValueFromStatus", "status != NULL"));
    EXPECT_DEATH(dio_setInValueInStatus(nullptr, 1, 1), assertion("dio_setInValueInStatus", "status != NULL"));
    EXPECT_DEATH(dio_setOutValueInStatus(nullptr, 1, 1), assertion("dio_setOutValueInStatus", "status != NULL"));
}

TEST_F(DioStatus, LinesTheRecordDoesNotHaveAreAssertions) {
    dio_status_half half{};
    half.count = 4;
    const std::string in = "dio < status->count \\+ DIORONUMBER_MIN";
    const std::string out = "dio < status->count \\+ DIORWNUMBER_MIN";
    EXPECT_DEATH(dio_getInValueFromStatus(&half, 5), assertion("dio_getInValueFromStatus", in));
    EXPECT_DEATH(dio_setInValueInStatus(&half, 5, 1), assertion("dio_setInValueInStatus", in));
    EXPECT_DEATH(dio_getOutValueFromStatus(&half, 5), assertion("dio_getOutValueFromStatus", out));
    EXPECT_DEATH(dio_setOutValueInStatus(&half, 5, 1), assertion("dio_setOutValueInStatus", out));
    EXPECT_DEATH(dio_getInValueFromStatus(&half, 0), assertion("dio_getIndexMaskIn", "dio >= DIORONUMBER_MIN"));
    EXPECT_DEATH(dio_setOutValueInStatus(&half, 0, 1), assertion("dio_getIndexMaskOut", "dio >= DIORWNUMBER_MIN"));
    half.count = 200;
    EXPECT_DEATH(dio_setInValueInStatus(&half, 100, 1), assertion("dio_getIndexMaskIn", "dio <= DIORONUMBER_MAX"));
    EXPECT_DEATH(dio_getOutValueFromStatus(&half, 100), assertion("dio_getIndexMaskOut", "dio <= DIORWNUMBER_MAX"));
    half.count = UINT32_MAX;  // the sum is one of 32 bits: no line is below it
    EXPECT_DEATH(dio_getInValueFromStatus(&half, 1), assertion("dio_getInValueFromStatus", in));
}

TEST_F(DioStatus, MoreThan99LinesAreAssertions) {
    dio_status_half half{};
    half.count = 100;
    EXPECT_DEATH(dio_setStatusOut(&half), assertion("dio_setStatusOut", "status->count <= MAX_DIO_OUT_COUNT"));
    // Two digits with and without a leading zero make more than 99 names.
    vxtest::plainBoardTree();
    for (int i = 0; i < 100; ++i) {
        const std::string number = std::to_string(i);
        for (const std::string &kind : {tree + "din", tree + "dout"}) vxtest::makeDirs(kind + number);
    }
    EXPECT_DEATH(dio_getStatusIn(&half), assertion("dio_getStatusIn", "status->count <= MAX_DIO_IN_COUNT"));
    EXPECT_DEATH(dio_getStatusOut(&half), assertion("dio_getStatusOut", "status->count <= MAX_DIO_OUT_COUNT"));
    vxtest::removePlainBoardTree();
}

TEST_F(DioStatus, TheExampleMirrorsInputsToOutputs) {
    Board board(4, 2);
    board.tell("in 2 1");
    board.tell("in 4 1");
    const auto output = vxtest::run({vxtest::built("examples/dio_status_mirror")});
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(output.text, "in  0 1 0 1\nout 0 1\n");
    EXPECT_THAT(board.happened(), ElementsAre("out 1 = 0", "out 2 = 1"));
}

}  // namespace
