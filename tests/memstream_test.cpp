// SPDX-License-Identifier: MIT
#include <vxutils/memstream.h>

#include <clocale>
#include <cstddef>
#include <cstring>
#include <string>

#include "support/resources.h"

namespace {

// What the C library's assertion handler prints.
std::string assertion(const std::string &function, const std::string &expression) {
    return "vxutils/memstream:[0-9]+: " + function + ": Assertion `" + expression + "' failed";
}

TEST(MemStreamPrintf, AppendsUntilItIsFull) {
    char buffer[8];
    mem_stream stream = {buffer, sizeof buffer};
    EXPECT_EQ(mem_stream_printf(&stream, "abc"), 0);
    EXPECT_EQ(stream.buf_size, 5U);
    EXPECT_EQ(stream.buf, buffer + 3);
    EXPECT_EQ(mem_stream_printf(&stream, "%s", "defgh"), 1);
    EXPECT_STREQ(buffer, "abcdefg");
    EXPECT_EQ(stream.buf_size, 1U);
    EXPECT_EQ(stream.buf, buffer + 7);
    EXPECT_EQ(mem_stream_printf(&stream, "x"), 1);
    EXPECT_STREQ(buffer, "abcdefg");
    EXPECT_EQ(stream.buf_size, 1U);
    EXPECT_EQ(stream.buf, buffer + 7);
    EXPECT_EQ(mem_stream_get_num_chars_written(&stream, sizeof buffer), 7U);
    EXPECT_EQ(mem_stream_get_num_bytes_written(&stream, sizeof buffer, 1), 8U);
}

TEST(MemStreamPrintf, ATextThatJustFitsFillsTheStreamWithoutBeingCut) {
    char buffer[4];
    mem_stream stream = {buffer, sizeof buffer};
    EXPECT_EQ(mem_stream_printf(&stream, "%d", 123), 0);
    EXPECT_EQ(stream.buf_size, 1U);
    EXPECT_EQ(mem_stream_printf(&stream, "%s", ""), 0) << "an empty text always fits";
    EXPECT_EQ(mem_stream_printf(&stream, "4"), 1);
    EXPECT_STREQ(buffer, "123");
}

TEST(MemStreamPrintf, KeepsTheFreeEndAtTheTerminator) {
    vxtest::GuardedBuffer guarded(16);
    mem_stream stream = {guarded.data(), guarded.size()};
    for (int i = 0; i < 20; ++i) {
        mem_stream_printf(&stream, "%d,", i);
        EXPECT_EQ(*stream.buf, '\0');
        EXPECT_EQ(stream.buf + stream.buf_size, guarded.data() + guarded.size());
    }
    EXPECT_STREQ(guarded.data(), "0,1,2,3,4,5,6,7");
}

TEST(MemStreamPrintf, WithNoByteLeftWritesNothing) {
    char byte = 'x';
    mem_stream stream = {&byte, 0};
    EXPECT_EQ(mem_stream_printf(&stream, "%s", ""), 1);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(stream.buf, &byte);
    EXPECT_EQ(stream.buf_size, 0U);
}

TEST(MemStreamPrintf, SizeOneHoldsOnlyTheTerminator) {
    char byte = 'x';
    mem_stream stream = {&byte, 1};
    EXPECT_EQ(mem_stream_printf(&stream, "a"), 1);
    EXPECT_EQ(byte, '\0');
    EXPECT_EQ(stream.buf_size, 1U);
}

TEST(MemStreamPuts, AppendsUntilItIsFull) {
    char buffer[8];
    mem_stream stream = {buffer, sizeof buffer};
    EXPECT_EQ(mem_stream_puts(&stream, "abc"), 0);
    EXPECT_EQ(stream.buf_size, 5U);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(mem_stream_puts(&stream, ""), 0);
    EXPECT_EQ(mem_stream_puts(&stream, "defgh"), 1);
    EXPECT_STREQ(buffer, "abcdefg");
    EXPECT_EQ(stream.buf_size, 1U);
    EXPECT_EQ(stream.buf, buffer + 7);
    EXPECT_EQ(mem_stream_puts(&stream, "x"), 1);
    EXPECT_STREQ(buffer, "abcdefg");
}

TEST(MemStreamPuts, TheLimitIsTheTextAndItsTerminator) {
    for (const size_t size : {3U, 4U, 5U}) {
        vxtest::GuardedBuffer guarded(size);
        mem_stream stream = {guarded.data(), size};
        EXPECT_EQ(mem_stream_puts(&stream, "abcd"), size == 5 ? 0 : 1);
        EXPECT_STREQ(guarded.data(), std::string("abcd").substr(0, size - 1).c_str());
        EXPECT_EQ(stream.buf_size, 1U);
    }
}

TEST(MemStreamPuts, WithNoByteLeftWritesNothing) {
    char byte = 'x';
    mem_stream stream = {&byte, 0};
    EXPECT_EQ(mem_stream_puts(&stream, ""), 1);
    EXPECT_EQ(mem_stream_puts(&stream, "abc"), 1);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(stream.buf_size, 0U);
}

TEST(MemStreamPuts, CopiesFormatsAsTheyStand) {
    char buffer[16];
    mem_stream stream = {buffer, sizeof buffer};
    EXPECT_EQ(mem_stream_puts(&stream, "100%s%n"), 0);
    EXPECT_STREQ(buffer, "100%s%n");
}

TEST(MemStreamFreeSpaceLeft, IsRoomForOneCharacter) {
    char buffer[2];
    mem_stream stream = {buffer, 2};
    EXPECT_EQ(mem_stream_free_space_left(&stream), 1);
    stream.buf_size = 1;
    EXPECT_EQ(mem_stream_free_space_left(&stream), 0);
    stream.buf_size = 0;
    EXPECT_EQ(mem_stream_free_space_left(&stream), 0);
}

TEST(MemStreamCounts, OfAFreshAndAFullStream) {
    char buffer[8];
    mem_stream stream = {buffer, sizeof buffer};
    EXPECT_EQ(mem_stream_get_num_chars_written(&stream, 8), 0U);
    EXPECT_EQ(mem_stream_get_num_bytes_written(&stream, 8, 1), 1U);
    EXPECT_EQ(mem_stream_get_num_bytes_written(&stream, 8, -5), 1U) << "any flag but 0";
    EXPECT_EQ(mem_stream_get_num_bytes_written(&stream, 8, 0), 0U);
    mem_stream_puts(&stream, "abcdefghijk");
    EXPECT_EQ(mem_stream_get_num_chars_written(&stream, 8), 7U);
    EXPECT_EQ(mem_stream_get_num_bytes_written(&stream, 8, 1), 8U);
    EXPECT_EQ(mem_stream_get_num_bytes_written(&stream, 8, 0), 0U);
}

// Assertions hold in every kind of build.

using MemStreamDeathTest = testing::Test;

TEST(MemStreamDeathTest, EveryFunctionRefusesANullStream) {
    EXPECT_DEATH(mem_stream_printf(nullptr, "a"), assertion("mem_stream_printf", "stream != NULL"));
    EXPECT_DEATH(mem_stream_puts(nullptr, "a"), assertion("mem_stream_puts", "stream != NULL"));
    EXPECT_DEATH(mem_stream_free_space_left(nullptr), assertion("mem_stream_free_space_left", "stream != NULL"));
    EXPECT_DEATH(mem_stream_get_num_chars_written(nullptr, 1),
                 assertion("mem_stream_get_num_chars_written", "stream != NULL"));
    EXPECT_DEATH(mem_stream_get_num_bytes_written(nullptr, 1, 1),
                 assertion("mem_stream_get_num_bytes_written", "stream != NULL"));
}

TEST(MemStreamDeathTest, WritersRefuseNullBuffersAndTextsEvenWhenFull) {
    char byte;
    for (const size_t size : {size_t{0}, size_t{1}}) {
        mem_stream none = {nullptr, size};
        mem_stream stream = {&byte, size};
        EXPECT_DEATH(mem_stream_printf(&none, "a"), assertion("mem_stream_printf", "stream->buf != NULL"));
        EXPECT_DEATH(mem_stream_puts(&none, "a"), assertion("mem_stream_puts", "stream->buf != NULL"));
        const char *volatile text = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
        EXPECT_DEATH(mem_stream_printf(&stream, text), assertion("mem_stream_printf", "format != NULL"));
#pragma GCC diagnostic pop
        EXPECT_DEATH(mem_stream_puts(&stream, text), assertion("mem_stream_puts", "str != NULL"));
    }
}

TEST(MemStreamDeathTest, ATextThatCannotBeFormattedIsRefused) {
    char buffer[8];
    mem_stream stream = {buffer, sizeof buffer};
    ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr);
    EXPECT_DEATH(mem_stream_printf(&stream, "%lc", static_cast<wint_t>(0xd800)),
                 assertion("mem_stream_printf", "num_chars >= 0"));
}

TEST(MemStreamDeathTest, ATotalSizeBelowWhatIsLeftIsRefusedAlsoWithoutTheFlag) {
    char buffer[8];
    mem_stream stream = {buffer, sizeof buffer};
    EXPECT_DEATH(mem_stream_get_num_chars_written(&stream, 7),
                 assertion("mem_stream_get_num_chars_written", "orig_buf_size >= stream->buf_size"));
    EXPECT_DEATH(mem_stream_get_num_bytes_written(&stream, 7, 1),
                 assertion("mem_stream_get_num_bytes_written", "orig_buf_size >= stream->buf_size"));
    EXPECT_DEATH(mem_stream_get_num_bytes_written(&stream, 7, 0),
                 assertion("mem_stream_get_num_bytes_written", "orig_buf_size >= stream->buf_size"));
}

TEST(MemStreamDeathTest, AFailedAssertionAborts) {
    EXPECT_EXIT(mem_stream_puts(nullptr, "a"), testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
