// SPDX-License-Identifier: MIT
// The configuration daemon's client: NULL, keys, values, lists, requests and buffers at their limits, odd answers.
#include <vxutils/configd.h>

#include <syslog.h>
#include <vxutils/list.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/configd_client.h"
#include "support/resources.h"

namespace {

using namespace vxtest::configd;

using ConfigdOpen = ConfigdTest;
using ConfigdFetch = ConfigdTest;
using ConfigdGet = ConfigdTest;
using ConfigdSet = ConfigdTest;
using ConfigdDone = ConfigdTest;
using ConfigdTransport = ConfigdTest;

// ---- null pointers

TEST_F(ConfigdOpen, NullIsRefusedOrIgnoredEverywhere) {
    auto array = entries({{"a", "1"}});
    char buffer[8] = "";
    EXPECT_EQ(configd_add_query(nullptr, "a"), -1);
    EXPECT_STREQ(configd_fetch(nullptr, "a"), "");
    EXPECT_EQ(configd_get(nullptr, array.data()), -1);
    EXPECT_EQ(configd_set(nullptr, array.data()), -1);
    EXPECT_EQ(configd_done(nullptr), -1);
    EXPECT_EQ(configd_send(nullptr, "x", 1), -1);
    EXPECT_EQ(configd_recv(nullptr, buffer, sizeof buffer), -1);
    EXPECT_EQ(configd_prepare_get(nullptr, array.data()), -1);
    EXPECT_EQ(__configd_open(nullptr), -1);
    configd_clear(nullptr);
    configd_close(nullptr);
    __configd_close(nullptr);
    const Handle handle = openHandle();
    const char *volatile noFormat = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    EXPECT_EQ(configd_add_query(handle.get(), noFormat), -1);
    EXPECT_STREQ(configd_fetch(handle.get(), noFormat), "");
#pragma GCC diagnostic pop
    EXPECT_EQ(configd_set(handle.get(), nullptr), -1);
    EXPECT_EQ(configd_send(handle.get(), nullptr, 1), -1);
    EXPECT_EQ(configd_recv(handle.get(), nullptr, 1), -1);
    EXPECT_EQ(configd_prepare_get(handle.get(), nullptr), -1);
    EXPECT_EQ(daemon.requests(), 0);
    EXPECT_EQ(log.take(), Log{});
}

// ---- a list of queries

TEST_F(ConfigdFetch, The513thKeyIsRefused) {
    const Handle handle = openHandle();
    for (int i = 0; i < 512; ++i) ASSERT_EQ(configd_add_query(handle.get(), "key.%d", i), 0);
    EXPECT_EQ(configd_add_query(handle.get(), "one more"), -1);
    EXPECT_EQ(configd_add_query(handle.get(), "key.77"), 0);  // is there already
    EXPECT_EQ(handle->count, 512);
    int i = 0;
    for (const list_link *link = handle->queries.next; link != &handle->queries; link = link->next, ++i) {
        EXPECT_EQ(reinterpret_cast<const configd_entry *>(link)->key, "key." + std::to_string(i));
    }
    EXPECT_EQ(i, 512);
    std::vector<std::pair<std::string, std::string>> pairs;
    for (i = 0; i < 512; ++i) daemon.tell("set key." + std::to_string(i) + " value of " + std::to_string(i));
    for (i = 0; i < 512; ++i) {
        ASSERT_EQ(configd_fetch(handle.get(), "key.%d", i), "value of " + std::to_string(i));
    }
    EXPECT_EQ(daemon.requests(), 512);
    EXPECT_STREQ(configd_fetch(handle.get(), "key.512"), "");
}

TEST_F(ConfigdFetch, KeysAreCutTo254CharactersWhenAddedAndWhenFetched) {
    const Handle handle = openHandle();
    for (const size_t length : {253u, 254u, 255u, 256u, 1000u}) {
        configd_clear(handle.get());
        const std::string key(length, 'k');
        const std::string cut = key.substr(0, 254);
        daemon.tell("set " + cut + " " + std::to_string(length));
        EXPECT_EQ(configd_add_query(handle.get(), "%s", key.c_str()), 0);
        EXPECT_EQ(reinterpret_cast<configd_entry *>(handle->queries.next)->key, cut);
        EXPECT_EQ(configd_fetch(handle.get(), "%s", key.c_str()), std::to_string(length));
    }
    configd_clear(handle.get());
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    const std::string plain(300, 'p');  // a format without a conversion
    EXPECT_EQ(configd_add_query(handle.get(), plain.c_str()), 0);
#pragma GCC diagnostic pop
    EXPECT_EQ(reinterpret_cast<configd_entry *>(handle->queries.next)->key, plain.substr(0, 254));
}

TEST_F(ConfigdFetch, AnEmptyKeyIsAKeyLikeAnyOther) {
    const Handle handle = openHandle();
    EXPECT_STREQ(configd_fetch(handle.get(), "%s", ""), "");
    EXPECT_EQ(log.take(), (Log{{LOG_DEBUG, "key '' not found"}}));
    configd_clear(handle.get());
    daemon.tell(R"(raw all\n\0)");
    daemon.tell("trace on");
    for (int i = 0; i < 2; ++i) EXPECT_EQ(configd_add_query(handle.get(), "%s", ""), 0);
    EXPECT_EQ(handle->count, 1);
    EXPECT_STREQ(configd_fetch(handle.get(), "%s", ""), "all");
    EXPECT_EQ(daemon.tell("trace off"), (Lines{R"(request "?\n\0")", R"(answer "all\n\0")"}));
    EXPECT_EQ(log.take(), Log{});
}

// The C locale has no byte for this character: vsnprintf() fails.
TEST_F(ConfigdFetch, AKeyThatCannotBePrintedIsNotAdded) {
    const Handle handle = openHandle();
    EXPECT_EQ(configd_add_query(handle.get(), "%ls", L"\u0100"), -1);
    EXPECT_EQ(handle->count, 0);
    EXPECT_STREQ(configd_fetch(handle.get(), "%ls", L"\u0100"), "");
    EXPECT_EQ(log.take(), (Log{{LOG_DEBUG, "key '' not found"}}));
}

// ---- values one by one

TEST_F(ConfigdGet, ARecordWithAnEmptyKeyIsAskedForWhenItIsReadAlone) {
    const Handle handle = openHandle();
    daemon.tell(R"(raw all\n\0)");
    daemon.tell("trace on");
    auto none = entries({});
    EXPECT_EQ(configd_prepare_get(handle.get(), none.data()), 0);
    EXPECT_STREQ(none[0].value, "all");
    EXPECT_EQ(daemon.tell("trace off"), (Lines{R"(request "?\n\0")", R"(answer "all\n\0")"}));
}

TEST_F(ConfigdGet, AKeyThatFillsItsFieldToTheLastByteIsReadNoFurther) {
    const Handle handle = openHandle();
    auto array = entries({{std::string(256, 'k'), ""}});
    std::memset(array[0].value, 'v', sizeof array[0].value);
    daemon.tell("trace on");
    EXPECT_EQ(configd_prepare_get(handle.get(), array.data()), 0);
    EXPECT_EQ(daemon.tell("trace off")[0], "request \"?" + std::string(256, 'k') + "\\n\\0\"");
}

TEST_F(ConfigdGet, AnAnswerOfTwoBytesIsAnEmptyValue) {
    const Handle handle = openHandle();
    for (const char *two : {R"(\n\0)", "xy"}) {
        daemon.tell(std::string("raw ") + two);
        EXPECT_EQ(value(handle.get(), "a"), "");
    }
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdGet, OnlyTheLastTwoBytesAreCutOffWhateverTheyAre) {
    const Handle handle = openHandle();
    daemon.tell("raw abcd");
    EXPECT_EQ(value(handle.get(), "a"), "ab");
    daemon.tell(R"(raw ab\0cd\n\0)");
    EXPECT_EQ(value(handle.get(), "a"), "ab");
}

TEST_F(ConfigdGet, AValueIsCutTo1023Characters) {
    const Handle handle = openHandle();
    for (const size_t length : {1022u, 1023u, 1024u, 1025u, 4000u, 16381u, 16382u, 20000u}) {
        daemon.tell("raw " + std::string(length, 'v') + R"(\n\0)");
        EXPECT_EQ(value(handle.get(), "a"), std::string(std::min<size_t>(length, 1023), 'v')) << length;
    }
}

// ---- writing

// Records whose request text has exactly this length.
std::vector<configd_entry> changeOf(size_t length) {
    std::vector<std::pair<std::string, std::string>> pairs;
    constexpr size_t whole = 1000;
    for (size_t left = length; left > 0;) {
        const size_t piece = left >= 2 * whole ? whole : std::min(left, whole + 20);
        pairs.emplace_back("k" + std::to_string(100 + pairs.size()), std::string(piece - 6, 'v'));
        left -= piece;
    }
    return entries(pairs);
}

TEST_F(ConfigdSet, ATextOf16381CharactersIsSentAndALongerOneIsNot) {
    const Handle handle = openHandle();
    for (const size_t length : {16380u, 16381u}) EXPECT_EQ(configd_set(handle.get(), changeOf(length).data()), 0);
    EXPECT_EQ(daemon.requests(), 2);
    for (const size_t length : {16382u, 16383u, 16384u, 16385u, 17500u, 100000u}) {
        EXPECT_EQ(configd_set(handle.get(), changeOf(length).data()), -1) << length;
    }
    EXPECT_EQ(daemon.requests(), 2);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdSet, FieldsFullToTheLastByteAreReadNoFurther) {
    const Handle handle = openHandle();
    const auto array = entries({{std::string(256, 'k'), std::string(1024, 'v')}});
    EXPECT_EQ(configd_set(handle.get(), array.data()), 0);
    EXPECT_EQ(daemon.get(std::string(256, 'k')), std::string(1024, 'v'));
}

// ---- committing

TEST_F(ConfigdDone, ANulMayFollowTheAnswer) {
    const Handle handle = openHandle();
    daemon.tell(R"(raw Ready\0)");
    EXPECT_EQ(configd_done(handle.get()), 0);
    daemon.tell(R"(raw Busy\0)");
    EXPECT_EQ(configd_done(handle.get()), 1);
}

// ---- building blocks

TEST_F(ConfigdTransport, SendAndReceiveRefuseEmptyBuffers) {
    const Handle handle = openHandle();
    char buffer[4] = "";
    for (const int size : {0, -1, INT_MIN}) {
        EXPECT_EQ(configd_send(handle.get(), "x", size), -1);
        EXPECT_EQ(configd_recv(handle.get(), buffer, size), -1);
    }
    EXPECT_EQ(daemon.requests(), 0);
}

TEST_F(ConfigdTransport, ReceivingZeroesTheBufferAndTakesOneByteLessThanItHolds) {
    const Handle handle = openHandle();
    daemon.tell("raw abcdef");
    for (const int size : {1, 2, 6, 7, 8, 64}) {
        vxtest::GuardedBuffer buffer(static_cast<size_t>(size));
        std::memset(buffer.data(), '#', buffer.size());
        ASSERT_EQ(configd_send(handle.get(), "?a\n", 4), 4);
        const int expected = std::min(size - 1, 6);
        EXPECT_EQ(configd_recv(handle.get(), buffer.data(), size), expected);
        std::string whole = std::string("abcdef").substr(0, static_cast<size_t>(expected));
        whole.resize(buffer.size());
        EXPECT_EQ(std::string(buffer.data(), buffer.size()), whole);
    }
}

}  // namespace
