// SPDX-License-Identifier: MIT
// The modem client: arguments, commands and answers at their limits, threads, markers that the caller may not read.
#include <vxutils/wwanmd.h>

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <string>
#include <thread>
#include <vector>

#include "support/process.h"
#include "support/wwanmd.h"

namespace {

using namespace vxtest::wwanmd;

using Wwanmd = WwanmdTest;

static_assert(sizeof(wwanmd_handle::last_io.tv_sec) == 8);

// ---- connecting

TEST_F(Wwanmd, NumbersOfNoCardAreRefusedEverywhere) {
    wwanmd_handle handle{};
    handle.fd = -1;
    Message message("x");
    for (const int card : {-1, 6, 7, 9, 16, 1000}) {
        const LogLine refusal{LOG_ERR, "invalid wwan card " + std::to_string(card)};
        handle.card = card;
        EXPECT_EQ(wwanmd_init(card, "tester"), nullptr);
        EXPECT_EQ(wwanmd_in_reset(card), -1);
        EXPECT_EQ(wwanmd_is_suspended(card), -1);
        EXPECT_EQ(wwanmd_open(&handle), -1);
        EXPECT_EQ(wwanmd_command(&handle, &message), -1);
        EXPECT_EQ(wwanmd_send(&handle, &message), -1);
        EXPECT_EQ(wwanmd_recv(&handle, &message), -1);
        EXPECT_EQ(log.take(), std::vector<LogLine>(7, refusal));
    }
    EXPECT_EQ(message.text(), "x");
}

TEST_F(Wwanmd, BothRangesOfCardsAreServed) {
    for (const int card : {0, 5, 10, 15}) {
        Modem own(card);
        const Handle handle(wwanmd_init(card, "tester"));
        ASSERT_NE(handle, nullptr) << card;
        EXPECT_EQ(handle->card, card);
        EXPECT_THAT(own.happened(), ElementsAre("connected", "command init tester"));
    }
}

TEST_F(Wwanmd, NullIsTakenAsDocumented) {
    wwanmd_handle handle{};
    Message message;
    wwanmd_free(nullptr);
    wwanmd_close(nullptr);
    EXPECT_EQ(wwanmd_open(nullptr), -1);
    EXPECT_EQ(wwanmd_command(nullptr, &message), -1);
    EXPECT_EQ(wwanmd_command(&handle, nullptr), -1);
    EXPECT_EQ(wwanmd_send(nullptr, &message), -1);
    EXPECT_EQ(wwanmd_send(&handle, nullptr), -1);
    EXPECT_EQ(wwanmd_recv(nullptr, &message), -1);
    EXPECT_EQ(wwanmd_recv(&handle, nullptr), -1);
    EXPECT_TRUE(log.take().empty());
}

TEST_F(Wwanmd, ApplicationNamesHaveOneToFifteenCharacters) {
    for (const char *name : {static_cast<const char *>(nullptr), "", "abcdefghijklmnop"}) {
        EXPECT_EQ(wwanmd_init(0, name), nullptr);
        EXPECT_THAT(logTexts(), ElementsAre("invalid app name for wwanmd connection"));
    }
    const Handle handle(wwanmd_init(0, "abcdefghijklmno"));
    ASSERT_NE(handle, nullptr);
    EXPECT_STREQ(handle->app, "abcdefghijklmno");
    EXPECT_THAT(modem.happened(), ElementsAre("connected", "command init abcdefghijklmno"));
}

TEST_F(Wwanmd, ManyThreadsConnectAtOnceUnderTheSameAndOtherNames) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([i] {
            for (int round = 0; round < 10; ++round) {
                const std::string name = "app " + std::to_string(i % 2) + " " + std::to_string(round);
                const Handle handle(wwanmd_init(0, name.c_str()));
                ASSERT_NE(handle, nullptr);
                EXPECT_EQ(handle->app, name);
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
}

// ---- commands and answers

TEST_F(Wwanmd, ShortAnswersAreJudgedByTheirLength) {
    const Handle handle = connect();
    struct Case {
        const char *answer;
        int result;
        const char *text;
    };
    for (const Case &one : {Case{"OK", 0, ""}, Case{"ERROR", -1, ""}, Case{"ERRORx", -1, "x"}, Case{"OKO", 0, "O"}}) {
        modem.tell(std::string("raw ") + one.answer);
        Message message("c");
        EXPECT_EQ(command(handle, message), one.result) << one.answer;
        EXPECT_EQ(message.text(), one.text) << one.answer;
    }
    log.take();
    for (const char *answer : {"O", "E", "BU", "BUS", "NOPE", "ERRO", "ok", "hello"}) {
        modem.tell(std::string("raw ") + answer);
        Message message("c");
        EXPECT_EQ(command(handle, message), -1) << answer;
        EXPECT_EQ(message.text(), "(none)") << answer;
        EXPECT_EQ(message.data[0], '\0') << answer;
        EXPECT_THAT(logTexts(), ElementsAre("invalid response received from wwanmd0",
                                            "receiving from wwanmd0 failed (1 failures)", "command failed"));
    }
}

TEST_F(Wwanmd, CommandsEndAt8190Bytes) {
    const Handle handle = connect();
    for (const int length : {8189, 8190}) {
        Message longest(std::string(static_cast<size_t>(length), 'a'));
        EXPECT_EQ(command(handle, longest), 0);
    }
    EXPECT_THAT(modem.happened(),
                ElementsAre("command " + std::string(8189, 'a'), "command " + std::string(8190, 'a')));
    for (const int length : {8191, 8192, 100000}) {
        Message tooLong(std::string(8192, 'a'));
        tooLong.len = length;
        EXPECT_EQ(command(handle, tooLong), -1);
        EXPECT_EQ(tooLong.len, length);
        EXPECT_THAT(logTexts(), ElementsAre("buffer length exceeded"));
    }
    EXPECT_TRUE(modem.happened().empty());
}

TEST_F(Wwanmd, ACommandOfNoLengthIsANewlineAlone) {
    const Handle handle = connect();
    for (const int length : {0, -1, -100000}) {
        struct {
            std::array<char, 64> before;
            Message message;
        } guarded{{}, Message("stale text")};
        guarded.before.fill('g');
        guarded.message.len = length;
        EXPECT_EQ(command(handle, guarded.message), 0);
        EXPECT_EQ(std::string(guarded.before.data(), 64), std::string(64, 'g'));
    }
    EXPECT_THAT(modem.happened(), ElementsAre("command ", "command ", "command "));
}

TEST_F(Wwanmd, AnswersMayHoldAnyBytes) {
    const Handle handle = connect();
    modem.tell("raw OK\\x00\\x01\\xff\\x0a\\x00z");
    Message message("dump");
    EXPECT_EQ(command(handle, message), 0);
    EXPECT_EQ(message.text(), std::string("\0\x01\xff\n\0z", 6));
    modem.tell("raw ERROR\\x00\\x00");
    Message failing("dump");
    EXPECT_EQ(command(handle, failing), -1);
    EXPECT_EQ(failing.text(), std::string("\0\0", 2));
}

TEST_F(Wwanmd, AnswersFillTheReceiveTo8191Bytes) {
    const Handle handle = connect();
    for (const int size : {8190, 8191}) {
        modem.tell("fill " + std::to_string(size));
        Message message("dump");
        EXPECT_EQ(command(handle, message), 0);
        EXPECT_EQ(message.text(), std::string(static_cast<size_t>(size) - 2, 'x'));
        EXPECT_EQ(message.data[message.len], '\0');
    }
    EXPECT_TRUE(log.take().empty());
}

TEST_F(Wwanmd, WhatIsBeyondOneReceiveIsStale) {
    const Handle handle = connect();
    modem.tell("fill 8192");
    Message message("dump");
    EXPECT_EQ(command(handle, message), 0);
    EXPECT_EQ(message.len, 8189);
    modem.tell("ok");
    Message next("next");
    EXPECT_EQ(command(handle, next), 0);
    EXPECT_EQ(next.text(), "");
    EXPECT_THAT(logTexts(), ElementsAre("flushed 1 bytes from wwanmd0 before sending"));
}

TEST_F(Wwanmd, AnAnswerInPiecesIsItsFirstPiece) {
    const Handle handle = connect();
    modem.tell("ok abcdef");
    modem.tell("pieces 4");
    Message message("dump");
    EXPECT_EQ(command(handle, message), 0);
    EXPECT_EQ(message.text(), "ab");
    waitReadable(handle);
    modem.tell("normal");
    Message next("next");
    EXPECT_EQ(command(handle, next), 0);
    EXPECT_EQ(next.text(), "\n");
    EXPECT_THAT(logTexts(), ElementsAre("flushed 4 bytes from wwanmd0 before sending"));
}

TEST_F(Wwanmd, OneReceiveIsThrownAwayAndNoMore) {
    const Handle handle = connect();
    modem.tell("stale " + std::string(8191, 'x') + "OKrest");
    waitReadable(handle);
    Message message("news");
    EXPECT_EQ(command(handle, message), 0);
    EXPECT_THAT(message.text(), StartsWith("rest"));
    EXPECT_THAT(logTexts(), ElementsAre("flushed 8191 bytes from wwanmd0 before sending"));
}

// ---- reset, suspend, SIGPIPE

TEST_F(Wwanmd, AMarkerThatTheCallerMayNotReadIsNone) {
    modem.tell("suspend on");
    modem.tell("reset on");
    const std::string directory = "/tmp/status/wwanmd/card0/";
    const auto asUser = [](int (*probe)(int)) {
        return vxtest::inChild([&] { return ::setuid(65534) == 0 ? probe(0) : 99; });
    };
    for (const char *marker : {"suspended", "reset"}) ASSERT_EQ(::chmod((directory + marker).c_str(), 0644), 0);
    EXPECT_EQ(asUser(wwanmd_is_suspended), 1);
    EXPECT_EQ(asUser(wwanmd_in_reset), 1);
    for (const char *marker : {"suspended", "reset"}) ASSERT_EQ(::chmod((directory + marker).c_str(), 0600), 0);
    EXPECT_EQ(asUser(wwanmd_is_suspended), 0);
    EXPECT_EQ(asUser(wwanmd_in_reset), 0);
    modem.tell("reset off");
}

}  // namespace
