// SPDX-License-Identifier: MIT
// The modem daemon's client and time: silent and busy modems, answers that come after their time-out.
#include <vxutils/wwanmd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "support/process.h"
#include "support/syslog_capture.h"
#include "support/wwanmd.h"

namespace {

using namespace vxtest::wwanmd;

using WwanmdTimeouts = WwanmdTest;

TEST_F(WwanmdTimeouts, ASilentDaemonIsWaitedForAtLeastFiveSeconds) {
    const Handle handle = connect();
    modem.tell("silent");
    for (const int timeout : {0, -3, 4}) {
        const Stopwatch watch;
        Message message("signal", timeout);
        EXPECT_EQ(command(handle, message), -1);
        EXPECT_GE(watch.elapsed(), milliseconds(5000));
        EXPECT_EQ(message.text(), "(none)");
        EXPECT_THAT(logTexts(), ElementsAre("recv from wwanmd0 timed out", "receiving from wwanmd0 failed (1 failures)",
                                            "command failed"));
    }
}

TEST_F(WwanmdTimeouts, ALongerTimeoutIsWaitedFor) {
    const Handle handle = connect();
    modem.tell("late 6000");
    modem.tell("ok at last");
    Message message("signal", 8);
    EXPECT_EQ(command(handle, message), 0);
    EXPECT_EQ(message.text(), "at last");
    modem.tell("late 60000");
    const Stopwatch watch;
    Message tooLate("signal", 6);
    EXPECT_EQ(command(handle, tooLate), -1);
    EXPECT_GE(watch.elapsed(), milliseconds(6000));
}

TEST_F(WwanmdTimeouts, TimeoutsAreCutTo5And300Seconds) {
    const Handle handle = connect();
    modem.tell("busy 1");
    for (const auto &[timeout, seconds] : {std::pair{0, 5}, {5, 5}, {6, 6}, {300, 300}, {301, 300}, {1000, 300}}) {
        Message message("signal", timeout);
        EXPECT_EQ(command(handle, message), 0);
        EXPECT_THAT(logTexts(), ElementsAre(busyWithin(seconds)));
    }
}

TEST_F(WwanmdTimeouts, BusyAnswersAreWaitedOut) {
    const Handle handle = connect();
    modem.tell("busy 20");
    modem.tell("ok done");
    handle->busy_count = 3;
    Message message("scan");
    EXPECT_EQ(command(handle, message), 0);
    EXPECT_EQ(message.text(), "done");
    EXPECT_EQ(handle->busy_count, 0);
    EXPECT_EQ(logTexts().size(), 20U);
}

TEST_F(WwanmdTimeouts, AfterTwentyOneBusyAnswersTheCommandEnds) {
    const Handle handle = connect();
    modem.tell("busy 21  dialling");
    modem.tell("raw");
    Message message("scan");
    EXPECT_EQ(command(handle, message), -1);
    EXPECT_EQ(message.text(), " dialling");
    EXPECT_EQ(handle->busy_count, 1);
    EXPECT_EQ(handle->failures, 0);
    const auto lines = logTexts();
    ASSERT_EQ(lines.size(), 23U);
    for (size_t i = 0; i < 21; ++i) EXPECT_THAT(lines[i], busyWithin(5));
    EXPECT_EQ(lines[21], "wwanmd0 is busy");
    EXPECT_EQ(lines[22], "command failed");
}

TEST_F(WwanmdTimeouts, TheSeventeenthBusyCommandInARowReconnects) {
    const Handle handle = connect();
    modem.tell("busy 21");
    modem.tell("raw");
    for (int i = 1; i <= 16; ++i) {
        Message message("scan", 60);  // a machine that stands still for 5 s does not count
        EXPECT_EQ(command(handle, message), -1);
        EXPECT_EQ(handle->busy_count, i);
    }
    EXPECT_EQ(modem.happened(), std::vector<std::string>(16, "command scan"));
    Message message("scan", 60);
    EXPECT_EQ(command(handle, message), -1);
    EXPECT_EQ(handle->busy_count, 0);
    EXPECT_NE(handle->fd, -1);
    EXPECT_THAT(modem.happened(),
                testing::UnorderedElementsAre("command scan", "closed", "connected", "command init tester"));
    modem.tell("normal");
    Message next("signal");
    EXPECT_EQ(command(handle, next), 0);
}

TEST_F(WwanmdTimeouts, OneBudgetCoversAllPassesOfOneReceive) {
    const Handle handle = connect();
    // "BUSY" at once, and the answer when less than one second is left of five.
    modem.tell("busyfor 4300");
    modem.tell("raw BUSYstill");
    Message message("scan");
    EXPECT_EQ(command(handle, message), -1);
    EXPECT_EQ(message.text(), "still");
    EXPECT_THAT(logTexts(), ElementsAre(busyWithin(5), StartsWith("wwanmd0 is busy, remaining timeout is 0."),
                                        "wwanmd0 is busy", "command failed"));
    EXPECT_EQ(handle->busy_count, 1);

    // "BUSY" at once and nothing more: the wait ends as a failure, when the rest of the budget is used up.
    modem.tell("busyfor 60000");
    const Stopwatch watch;
    Message forgotten("scan");
    EXPECT_EQ(command(handle, forgotten), -1);
    EXPECT_GE(watch.elapsed(), milliseconds(5000));
    EXPECT_EQ(forgotten.text(), "(none)");
    EXPECT_EQ(handle->failures, 1);
}

TEST_F(WwanmdTimeouts, AfterATimeoutTheNextCommandIsSentOnANewConnection) {
    const Handle handle = connect();
    modem.tell("echo");
    modem.tell("times 5800");
    Message first("first");
    EXPECT_EQ(command(handle, first), -1);
    EXPECT_EQ(handle->failures, 1);
    EXPECT_THAT(modem.happened(), ElementsAre("command first"));
    modem.tell("times 2000");
    Message second("second");
    EXPECT_EQ(command(handle, second), 0);
    EXPECT_EQ(second.text(), " second");
    EXPECT_EQ(handle->flags, 1);
    EXPECT_THAT(modem.happened(),
                testing::UnorderedElementsAre("closed", "connected", "command init tester", "command second"));
    Message third("third");
    EXPECT_EQ(command(handle, third), 0);
    EXPECT_EQ(third.text(), " third");
    EXPECT_THAT(modem.happened(), ElementsAre("command third"));
}

TEST_F(WwanmdTimeouts, WhatCameTooLateIsReportedAndTheConnectionIsNewAllTheSame) {
    const Handle handle = connect();
    modem.tell("echo");
    modem.tell("times 5500,7500");
    Message first("first");
    EXPECT_EQ(command(handle, first), -1);
    waitReadable(handle);
    modem.tell("times 3000");
    log.take();
    Message second("second");
    EXPECT_EQ(command(handle, second), 0);
    EXPECT_EQ(second.text(), " second");
    EXPECT_THAT(logTexts(), ElementsAre("flushed 8 bytes from wwanmd0 before sending"));
}

TEST_F(WwanmdTimeouts, AnotherReceiveGoesOnWaitingForAnAnswerThatTimedOut) {
    const Handle handle = connect();
    modem.tell("echo");
    modem.tell("times 7000");
    Message first("first");
    EXPECT_EQ(command(handle, first), -1);
    Message again;
    EXPECT_EQ(wwanmd_recv(handle.get(), &again), 0);
    EXPECT_EQ(again.text(), " first");
    EXPECT_EQ(handle->flags, 3) << "it may come once more";
    modem.happened();
    modem.tell("times 0");
    Message second("second");
    EXPECT_EQ(command(handle, second), 0);
    EXPECT_EQ(handle->flags, 1);
    EXPECT_THAT(modem.happened(),
                testing::UnorderedElementsAre("closed", "connected", "command init tester", "command second"));
}

TEST_F(WwanmdTimeouts, ABusyCommandWhoseTimeIsUpIsCountedAndFollowedByANewConnection) {
    const Handle handle = connect();
    modem.tell("on scan = BUSY");
    modem.tell("times 4500,6000");
    handle->busy_count = 3;
    Message scan("scan");
    EXPECT_EQ(command(handle, scan), -1);
    EXPECT_EQ(handle->busy_count, 4);
    modem.happened();
    modem.tell("times 1000");
    Message again("scan");
    EXPECT_EQ(command(handle, again), -1);  // BUSY once, then nothing
    EXPECT_EQ(handle->busy_count, 4) << "kept by the new connection";
    EXPECT_EQ(handle->failures, 1);
    EXPECT_THAT(modem.happened(), testing::IsSupersetOf({"closed", "connected", "command init tester"}));
}

TEST_F(WwanmdTimeouts, AConnectionThatCannotBeRenewedFailsTheCommandAndTheNextOneTriesAgain) {
    const Handle handle = connect();
    modem.tell("silent");
    Message message("signal");
    EXPECT_EQ(command(handle, message), -1);
    modem.tell("handshake error");
    log.take();
    EXPECT_EQ(command(handle, message), -1);
    EXPECT_EQ(handle->fd, -1);
    EXPECT_EQ(handle->flags, 1);
    EXPECT_NE(handle->last_io.tv_sec, 0);
    EXPECT_THAT(logTexts(), ElementsAre("receiving from wwanmd0 failed (1 failures)", "command failed",
                                        "cannot initialize wwanmd0 (Success)"));
    modem.tell("normal");
    EXPECT_EQ(command(handle, message), 0);
}

TEST_F(WwanmdTimeouts, AResetThatBeginsAfterATimeoutIsSeenByTheNextSend) {
    const Handle handle = connect();
    modem.tell("silent");
    Message message("signal");
    EXPECT_EQ(command(handle, message), -1);
    modem.tell("reset on");
    handle->last_io = {};
    EXPECT_EQ(wwanmd_send(handle.get(), &message), -11);
    EXPECT_NE(handle->last_io.tv_sec, 0);
    EXPECT_EQ(handle->fd, -1);
    modem.tell("reset off");
}

// Many processes give commands whose answers come at all times and in all orders.
class WwanmdLate : public WwanmdTest, public testing::WithParamInterface<const char *> {
protected:
    static constexpr int processes = 32;
    static constexpr int rounds = 5;
    static constexpr int wrong = 99;

    // Number of commands that were answered, unless one got the answer to another.
    static int giveCommands(int process) {
        const Handle handle(wwanmd_init(0, "tester"));
        if (handle == nullptr) return 0;
        int answered = 0;
        for (int round = 0; round < rounds; ++round) {
            const std::string text = "command " + std::to_string(process) + " " + std::to_string(round);
            Message message(text, 5 + process % 6);
            if (wwanmd_command(handle.get(), &message) != 0) continue;
            if (message.text() != " " + text) return wrong;
            ++answered;
        }
        return answered;
    }
};

TEST_P(WwanmdLate, AnswersAreNeverTakenForThoseToLaterCommands) {
    modem.tell("echo");
    modem.tell(std::string("times ") + GetParam());
    std::vector<pid_t> children;
    for (int i = 0; i < processes; ++i) children.push_back(vxtest::startChild([i] { return giveCommands(i); }));
    int answered = 0;
    for (const pid_t child : children) {
        const int result = vxtest::waitChild(child);
        ASSERT_LE(result, rounds);
        answered += result;
    }
    EXPECT_GT(answered, 0);
    EXPECT_LT(answered, processes * rounds);
}

INSTANTIATE_TEST_SUITE_P(Delays, WwanmdLate,
                         testing::Values("9000 11000 0 16000 9500 25000 12000 40000 4000",           // once each
                                         "11000,11000 9000 14000,40000 12000,25000 4500",            // late ones twice
                                         "10500 9000 10200 9500 19500 9400 29000 9300 3000 7000"));  // in another order

}  // namespace
