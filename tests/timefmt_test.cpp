// SPDX-License-Identifier: MIT
#include <sys/sysinfo.h>
#include <vxutils/timefmt.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"

namespace {

std::atomic<time_t> pretendedTime{-1};

}  // namespace

// The program's own time() is found before the C library's: by the library too, so that a test can choose the moment.
time_t time(time_t *result) noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
    const time_t pretended = pretendedTime.load();
    const time_t seconds = pretended >= 0 ? pretended : now.tv_sec;
    if (result != nullptr) *result = seconds;
    return seconds;
}

namespace {

// Stops the C library's clock at one second.
class AtTime {
public:
    explicit AtTime(time_t t) { pretendedTime = t; }
    ~AtTime() { pretendedTime = -1; }
    AtTime(const AtTime &) = delete;
    AtTime &operator=(const AtTime &) = delete;
};

// Sets the local time zone for one test.
class Zone {
public:
    explicit Zone(const char *rule) { ::setenv("TZ", rule, 1); }
    ~Zone() { ::unsetenv("TZ"); }
    Zone(const Zone &) = delete;
    Zone &operator=(const Zone &) = delete;
};

constexpr const char *centralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr time_t leapNoon = 1709208000;  // 2024-02-29 12:00:00 UTC

timespec at(time_t seconds, long nanoseconds) {
    timespec t{};
    t.tv_sec = seconds;
    t.tv_nsec = nanoseconds;
    return t;
}

// ---------------------------------------------------------------------------------------------------- jiffy

TEST(Jiffy, IsTheUptimeInSeconds) {
    struct sysinfo before {};
    struct sysinfo after {};
    ASSERT_EQ(::sysinfo(&before), 0);
    const long now = jiffy();
    ASSERT_EQ(::sysinfo(&after), 0);
    EXPECT_GT(now, 0);
    EXPECT_GE(now, before.uptime);
    EXPECT_LE(now, after.uptime);
}

// ----------------------------------------------------------------------------------------------- timeformat

TEST(TimeFormat, PrintsDateAndTimeWithLeadingZeros) {
    const Zone utc("UTC");
    const time_t early = 981173106;  // 2001-02-03 04:05:06
    EXPECT_STREQ(timeformat(&early), "2001-02-03 04:05:06");
    EXPECT_STREQ(timeformat(&leapNoon), "2024-02-29 12:00:00");
    const time_t zero = 0;
    EXPECT_STREQ(timeformat(&zero), "1970-01-01 00:00:00");
    const time_t minusOne = -1;
    EXPECT_STREQ(timeformat(&minusOne), "1969-12-31 23:59:59");
}

TEST(TimeFormat, PrintsTimesBeyondTheYear2038) {
    const Zone utc("UTC");
    const time_t afterTheWrap = 2147483648;
    EXPECT_STREQ(timeformat(&afterTheWrap), "2038-01-19 03:14:08");
}

TEST(TimeFormat, TakesTheLocalZoneAndSeesItChange) {
    {
        const Zone zone(centralEurope);
        EXPECT_STREQ(timeformat(&leapNoon), "2024-02-29 13:00:00");
        const time_t summer = 1719748800;  // 2024-06-30 12:00:00 UTC
        EXPECT_STREQ(timeformat(&summer), "2024-06-30 14:00:00");
    }
    const Zone zone("EST5");
    EXPECT_STREQ(timeformat(&leapNoon), "2024-02-29 07:00:00");
}

TEST(TimeFormat, OfNullIsNow) {
    const Zone utc("UTC");
    const AtTime noon(leapNoon);
    EXPECT_STREQ(timeformat(nullptr), "2024-02-29 12:00:00");
}

TEST(TimeFormat, PrintsYearsOfAnyLength) {
    const Zone utc("UTC");
    const time_t far = 253402300800;
    EXPECT_STREQ(timeformat(&far), "10000-01-01 00:00:00");
    const time_t lastYear = 67768036191676799;  // the last second whose year count from 1900 is an int
    EXPECT_STREQ(timeformat(&lastYear), "2147485547-12-31 23:59:59");
    const time_t firstYear = -67768040609740800;
    EXPECT_STREQ(timeformat(&firstYear), "-2147481748-01-01 00:00:00");
    const time_t ancient = -62167219200;
    EXPECT_STREQ(timeformat(&ancient), "0000-01-01 00:00:00");
    const time_t older = ancient - 1;
    EXPECT_STREQ(timeformat(&older), "-001-12-31 23:59:59");
}

TEST(TimeFormat, ATimeWithoutCalendarYearIsTheEpoch) {
    const Zone utc("UTC");
    for (const time_t beyond :
         {time_t{67768036191676800}, time_t{-67768040609740801}, time_t{INT64_MAX}, time_t{INT64_MIN}}) {
        EXPECT_STREQ(timeformat(&beyond), "1970-01-01 00:00:00");
    }
}

TEST(TimeFormat, ReturnsTheSameBufferEveryTime) {
    const time_t one = 86400;
    const char *first = timeformat(&one);
    EXPECT_EQ(timeformat(nullptr), first);
}

// ------------------------------------------------------------------------------------------------ timeparse

TEST(TimeParse, ReadsATwoDigitYear) {
    const Zone utc("UTC");
    EXPECT_EQ(timeparse("24-02-29 12:00:00"), leapNoon);
    EXPECT_EQ(timeparse("70-01-01 00:00:01"), 1);
    EXPECT_EQ(timeparse("69-12-31 23:59:59"), -1);
    EXPECT_EQ(timeparse("68-01-01 00:00:00"), 3092601600);  // 2068
}

TEST(TimeParse, FallsBackToAFourDigitYear) {
    const Zone utc("UTC");
    EXPECT_EQ(timeparse("2024-02-29 12:00:00"), leapNoon);
    EXPECT_EQ(timeparse("1970-01-01 00:00:07"), 7);
    EXPECT_EQ(timeparse("2038-01-19 03:14:08"), 2147483648);
}

TEST(TimeParse, IsZeroForWhatIsNoTimeStamp) {
    const Zone utc("UTC");
    for (const char *text :
         {"", "today", "2024-02-29", "2024-02-29 12:00", "24/02/29 12:00:00", "2024-13-01 00:00:00",
          "2024-02-32 00:00:00", "2024-02-29 24:00:00", "2024-02-29 12:60:00", "20240229 12:00:00"}) {
        EXPECT_EQ(timeparse(text), 0) << text;
    }
    EXPECT_EQ(timeparse(nullptr), 0);
    EXPECT_EQ(timeparse("70-01-01 00:00:00"), 0) << "the time stamp of that result";
    EXPECT_EQ(timeparse("69-12-31 23:59:59"), -1);
}

TEST(TimeParse, IgnoresWhatFollowsTheSeconds) {
    const Zone utc("UTC");
    EXPECT_EQ(timeparse("2024-02-29 12:00:00.75 UTC"), leapNoon);
}

TEST(TimeParse, ReadsNumbersWithBlanksInsteadOfZeros) {
    const Zone utc("UTC");
    EXPECT_EQ(timeparse("24-2-9 1:2:3"), timeparse("2024-02-09 01:02:03"));
    EXPECT_EQ(timeparse(" 24- 2- 9  1: 2: 3"), timeparse("2024-02-09 01:02:03"));
    EXPECT_EQ(timeparse("24 -02-09 01:02:03"), 0) << "not after a number";
}

TEST(TimeParse, CarriesADayThatItsMonthDoesNotHave) {
    const Zone utc("UTC");
    EXPECT_EQ(timeparse("2023-02-31 00:00:00"), timeparse("2023-03-03 00:00:00"));
}

TEST(TimeParse, ShiftsByTheZoneOffsetTwice) {
    {
        const Zone zone("EAST-2");
        EXPECT_EQ(timeparse("2024-02-29 12:00:00"), leapNoon - 2 * 7200);
    }
    const Zone zone("WEST5");
    EXPECT_EQ(timeparse("2024-02-29 12:00:00"), leapNoon + 2 * 18000);
    EXPECT_EQ(timeparse("70-01-01 00:00:00"), 2 * 18000);
    EXPECT_EQ(timeparse("69-12-31 14:00:00"), 0) << "ten hours before, whatever the text says";
}

// Another thread may be reading the record that gmtime() and localtime() return.
TEST(TimeParse, LeavesTheRecordOfTheCLibraryAlone) {
    const Zone zone("WEST5");
    const time_t when = 1;
    const struct tm *record = gmtime(&when);
    const struct tm before = *record;
    EXPECT_EQ(timeparse("2024-02-29 12:00:00"), leapNoon + 2 * 18000);
    EXPECT_EQ(record->tm_year, before.tm_year);
    EXPECT_EQ(record->tm_sec, before.tm_sec);
}

TEST(TimeParse, TakesDaylightSavingTimeToBeOff) {
    const Zone zone(centralEurope);
    EXPECT_EQ(timeparse("2024-06-30 12:00:00"), 1719748800 - 2 * 3600);
}

TEST(TimeParse, UndoesTimeFormatInUtc) {
    const Zone utc("UTC");
    for (time_t t = 1; t < 4102444800; t += 98765431) EXPECT_EQ(timeparse(timeformat(&t)), t);
}

// --------------------------------------------------------------------------------------- diffts, uselapsed

TEST(DiffTs, SubtractsSecondsAndNanoseconds) {
    const timespec d = diffts(at(10, 100), at(12, 300));
    EXPECT_EQ(d.tv_sec, 2);
    EXPECT_EQ(d.tv_nsec, 200);
}

TEST(DiffTs, BorrowsASecondForNegativeNanoseconds) {
    const timespec d = diffts(at(10, 999999999), at(12, 0));
    EXPECT_EQ(d.tv_sec, 1);
    EXPECT_EQ(d.tv_nsec, 1);
}

TEST(DiffTs, OfEqualTimesIsZero) {
    const timespec d = diffts(at(7, 7), at(7, 7));
    EXPECT_EQ(d.tv_sec, 0);
    EXPECT_EQ(d.tv_nsec, 0);
}

TEST(DiffTs, BackwardsHasNegativeSecondsAndPositiveNanoseconds) {
    const timespec d = diffts(at(1, 500000000), at(1, 0));
    EXPECT_EQ(d.tv_sec, -1);
    EXPECT_EQ(d.tv_nsec, 500000000);
}

TEST(DiffTs, KeepsSecondsOfMoreThan32Bits) {
    EXPECT_EQ(diffts(at(0, 0), at(INT64_C(5000000000), 0)).tv_sec, 5000000000);
    EXPECT_EQ(diffts(at(0, 0), at(INT64_MAX, 999999999)).tv_sec, INT64_MAX);
    (void)diffts(at(INT64_MIN, 999999999), at(INT64_MAX, 0));  // wraps: any value, but no undefined behaviour
}

TEST(UsElapsed, CountsMicroseconds) {
    EXPECT_EQ(uselapsed(at(1, 0), at(2, 0)), 1000000);
    EXPECT_EQ(uselapsed(at(1, 999999000), at(2, 0)), 1);
    EXPECT_EQ(uselapsed(at(5, 5), at(5, 5)), 0);
}

TEST(UsElapsed, IsNegativeBackwards) { EXPECT_EQ(uselapsed(at(2, 0), at(1, 0)), -1000000); }

TEST(UsElapsed, CutsNanosecondsTowardZero) {
    EXPECT_EQ(uselapsed(at(0, 0), at(0, 999)), 0);
    EXPECT_EQ(uselapsed(at(0, 0), at(0, 1999)), 1);
    EXPECT_EQ(uselapsed(at(0, 999), at(0, 0)), 0);
    EXPECT_EQ(uselapsed(at(0, 1999), at(0, 0)), -1);
    // one second less 1999 ns: the nanoseconds are cut on their own, before they meet the second
    EXPECT_EQ(uselapsed(at(0, 1999), at(1, 0)), 999999);
    EXPECT_EQ(uselapsed(at(0, 1), at(1, 0)), 1000000);
    EXPECT_EQ(uselapsed(at(1, 0), at(0, 999999000)), -1);
    EXPECT_EQ(uselapsed(at(1, 0), at(0, 999999999)), -1) << "earlier by a nanosecond";
}

TEST(UsElapsed, IsA64BitCount) {
    EXPECT_EQ(uselapsed(at(0, 0), at(INT64_C(9000000000), 0)), INT64_C(9000000000000000));
    (void)uselapsed(at(INT64_MIN, 0), at(INT64_MAX, 0));
}

// ----------------------------------------------------------------------------------------------------- mkid

TEST(MkId, HasTheTimeInItsHighAndRandomInItsLowHalf) {
    const AtTime moment(0x12345678);
    ::srandom(4711);
    const auto expected = static_cast<uint32_t>(::random()) & 0xFFFF;
    ::srandom(4711);
    EXPECT_EQ(mkid(), 0x56780000 | expected);
}

TEST(MkId, NeverHas0xFFFFInEitherHalf) {
    const AtTime moment(0x1FFFF);
    ::srandom(1);
    long calls = 0;
    while ((::random() & 0xFFFF) != 0xFFFF) ++calls;
    ::srandom(1);
    for (long i = 0; i < calls; ++i) (void)::random();
    EXPECT_EQ(mkid(), 0U);

    const AtTime before(0xFFFE);
    EXPECT_EQ(mkid() >> 16, 0xFFFEU);
}

TEST(MkId, SeedsNothing) {
    ::srandom(99);
    (void)mkid();
    const long after = ::random();
    ::srandom(99);
    (void)::random();
    EXPECT_EQ(::random(), after);
}

// ---------------------------------------------------------------------------------------------- format_size

struct Size {
    int64_t bytes;
    const char *text;
};

TEST(FormatSize, ShowsAtMostFourDigitsBelowTerabytes) {
    const Size sizes[] = {
        {0, "0 B"},
        {1, "1 B"},
        {9999, "9999 B"},
        {10000, "10 KB"},
        {10239, "10 KB"},
        {10240, "10 KB"},
        {10751, "10 KB"},
        {10752, "11 KB"},
        {10239487, "9999 KB"},
        {10239488, "10 MB"},
        {10485760, "10 MB"},
        {104857600, "100 MB"},
        {INT64_C(10485759999), "10 GB"},
        {INT64_C(10995116277760), "10 TB"},
        {INT64_C(10240) << 40, "10240 TB"},
        {INT64_C(12345) << 40, "12345 TB"},
        {INT64_MAX, "8388608 TB"},
    };
    for (const Size &size : sizes) EXPECT_STREQ(format_size(size.bytes), size.text) << size.bytes;
}

TEST(FormatSize, PrintsNegativeCountsInBytes) {
    EXPECT_STREQ(format_size(-1), "-1 B");
    EXPECT_STREQ(format_size(-123456789), "-123456789 B");
    EXPECT_STREQ(format_size(INT64_MIN), "-9223372036854775808 B");
}

TEST(FormatSize, RoundsEachStepToTheNearest1024th) {
    for (int64_t n = 1; n > 0 && n < INT64_MAX / 3; n = n * 3 + 1) {
        int64_t expected = n;
        int unit = 0;
        while (expected >= 10000 && unit < 4) {
            expected = (expected + 512) / 1024;
            ++unit;
        }
        const std::string letter = unit == 0 ? "" : std::string(1, " KMGT"[unit]);
        EXPECT_EQ(format_size(n), std::to_string(expected) + " " + letter + "B");
    }
}

// ---------------------------------------------------------------------------------------------- format_rate

TEST(FormatRate, ShowsOneDecimalAndAtLeastKilobits) {
    const Size rates[] = {
        {0, "0.0 Kbit/s"},
        {1, "0.0 Kbit/s"},
        {6, "0.1 Kbit/s"},
        {7, "0.1 Kbit/s"},
        {1000, "7.8 Kbit/s"},
        {1280, "10.0 Kbit/s"},
        {125000, "976.6 Kbit/s"},
        {127998, "1000.0 Kbit/s"},
        {128000, "1.0 Mbit/s"},
        {1250000, "9.5 Mbit/s"},
        {125000000, "953.7 Mbit/s"},
        {INT64_C(125000000000), "931.3 Gbit/s"},
        {INT64_C(137438953472), "1.0 Tbit/s"},
        {INT64_C(137438953472) * 2000, "2000.0 Tbit/s"},
    };
    for (const Size &rate : rates) EXPECT_STREQ(format_rate(rate.bytes), rate.text) << rate.bytes;
}

TEST(FormatRate, StepsToTheNextUnitAbove99999Hundredths) {
    EXPECT_STREQ(format_rate(127999), "1000.0 Kbit/s");  // 99999 hundredths exactly
    EXPECT_STREQ(format_rate(128000), "1.0 Mbit/s");     // one more
}

TEST(FormatRate, RoundsExactHalvesUpInEachStep) {
    EXPECT_STREQ(format_rate(163184), "1.3 Mbit/s");  // 127487.5 and then 124.5 hundredths
    EXPECT_STREQ(format_rate(163183), "1.2 Mbit/s");
}

TEST(FormatRate, FollowsTheSameIntegerStepsForEveryRate) {
    for (int64_t bytes = 1; bytes > 0 && bytes < INT64_MAX / 800 / 3; bytes = bytes * 3 + 1) {
        int64_t x = bytes * 800;
        int unit = 0;
        do {
            x = (x + 512) / 1024;
            ++unit;
        } while (x > 99999 && unit < 4);
        const int64_t y = x + 5;
        const std::string expected =
            std::to_string(y / 100) + "." + std::to_string(y / 10 % 10) + " " + " KMGT"[unit] + "bit/s";
        EXPECT_EQ(format_rate(bytes), expected) << bytes;
    }
}

TEST(FormatRate, FollowsTheStepsForNegativeRatesToo) {
    const Size rates[] = {
        {-1, "0.0 Kbit/s"},             // -1 hundredth, rounded up
        {-6, "0.0 Kbit/s"},             // -5
        {-1000, "-7.-7 Kbit/s"},        // -781, rounded to -776
        {-1280, "-9.-9 Kbit/s"},        // -1000, rounded to -995
        {-1000000, "-7812.-4 Kbit/s"},  // no unit above the first
    };
    for (const Size &rate : rates) EXPECT_STREQ(format_rate(rate.bytes), rate.text) << rate.bytes;
}

TEST(FormatRate, OfTheLargestAndTheSmallestNumberDoesNotWrapAround) {
    EXPECT_STREQ(format_rate(INT64_MAX), "67108864.0 Tbit/s");
    EXPECT_STREQ(format_rate(INT64_MIN), "-72057594037927935.-9 Kbit/s");
}

TEST(StaticBuffers, AreOnePerFunction) {
    const time_t noon = leapNoon;
    const Zone utc("UTC");
    const char *when = timeformat(&noon);
    const char *size = format_size(10485760);
    const char *rate = format_rate(1000);
    const char *element = xml_readattr("<a>x</a>", "a");
    EXPECT_STREQ(when, "2024-02-29 12:00:00");
    EXPECT_STREQ(size, "10 MB");
    EXPECT_STREQ(rate, "7.8 Kbit/s");
    EXPECT_STREQ(element, "x");
}

// --------------------------------------------------------------------------------------------- xml_readattr

TEST(XmlReadAttr, GivesTheTextBetweenTheTags) {
    EXPECT_STREQ(xml_readattr("<doc><name>abc</name></doc>", "name"), "abc");
    EXPECT_STREQ(xml_readattr("<name></name>", "name"), "");
    EXPECT_STREQ(xml_readattr("<name> a&amp;b\n</name>", "name"), " a&amp;b\n");
}

TEST(XmlReadAttr, TakesTheFirstOpeningAndTheFirstClosingTag) {
    EXPECT_STREQ(xml_readattr("<a>1</a><a>2</a>", "a"), "1");
    EXPECT_STREQ(xml_readattr("<a><a>1</a></a>", "a"), "<a>1");
    EXPECT_STREQ(xml_readattr("</a><a>1</a>", "a"), "1");
}

TEST(XmlReadAttr, KnowsNoAttributesAndNoLongerNames) {
    EXPECT_EQ(xml_readattr("<name lang=\"en\">abc</name>", "name"), nullptr);
    EXPECT_EQ(xml_readattr("<names>abc</names>", "name"), nullptr);
    EXPECT_STREQ(xml_readattr("<n%s>abc</n%s>", "n%s"), "abc");
}

TEST(XmlReadAttr, IsNullWithoutAnOpeningOrClosingTag) {
    EXPECT_EQ(xml_readattr("<name>abc", "name"), nullptr);
    EXPECT_EQ(xml_readattr("<name>abc</nam>", "name"), nullptr);
    EXPECT_EQ(xml_readattr("abc</name>", "name"), nullptr);
    EXPECT_EQ(xml_readattr("<name>", "name"), nullptr);
}

TEST(XmlReadAttr, IsNullForNullAndEmptyArguments) {
    EXPECT_EQ(xml_readattr(nullptr, "name"), nullptr);
    EXPECT_EQ(xml_readattr("", "name"), nullptr);
    EXPECT_EQ(xml_readattr("<name>abc</name>", nullptr), nullptr);
    EXPECT_EQ(xml_readattr("<>abc</>", ""), nullptr);
}

TEST(XmlReadAttr, SeesTheClosingTagOnlyWithin1023Characters) {
    const std::string close = "</n>";
    const std::string fits(1023 - close.size(), 'x');
    EXPECT_EQ(xml_readattr(("<n>" + fits + close).c_str(), "n"), fits);
    EXPECT_EQ(xml_readattr(("<n>" + fits + close + "tail").c_str(), "n"), fits);
    EXPECT_EQ(xml_readattr(("<n>x" + fits + close).c_str(), "n"), nullptr);
    EXPECT_EQ(xml_readattr(("<n>" + std::string(100000, 'x') + close).c_str(), "n"), nullptr);
}

TEST(XmlReadAttr, TakesTagsAsLongAsTheirClosingTagFits) {
    const std::string longest(1020, 't');
    EXPECT_STREQ(xml_readattr(("<" + longest + "></" + longest + ">").c_str(), longest.c_str()), "");
    EXPECT_EQ(xml_readattr(("<" + longest + ">x</" + longest + ">").c_str(), longest.c_str()), nullptr);
    const std::string longer(1021, 't');
    EXPECT_EQ(xml_readattr(("<" + longer + "></" + longer + ">").c_str(), longer.c_str()), nullptr);
    EXPECT_EQ(xml_readattr(("<" + longest + "></" + longest + ">").c_str(), longer.c_str()), nullptr) << "never cut";
    const std::string huge(100000, 't');
    EXPECT_EQ(xml_readattr(("<" + huge + "></" + huge + ">").c_str(), huge.c_str()), nullptr);
}

TEST(XmlReadAttr, DoesNotReadPastTheDocument) {
    const std::string text = "<n>abc</n>";
    vxtest::GuardedBuffer document(text.size() + 1);
    text.copy(document.data(), text.size());
    document.data()[text.size()] = '\0';
    EXPECT_STREQ(xml_readattr(document.data(), "n"), "abc");
    EXPECT_EQ(xml_readattr(document.data(), "m"), nullptr);
}

TEST(XmlReadAttr, TakesItsOwnResultAsATag) {
    const char *tag = xml_readattr("<wanted>name</wanted>", "wanted");
    ASSERT_STREQ(tag, "name");
    EXPECT_STREQ(xml_readattr("<>nameless</><name>wan1</name>", tag), "wan1");
}

TEST(XmlReadAttr, LeavesNothingOfTheResultBefore) {
    char *first = xml_readattr("<n>something long</n>", "n");
    EXPECT_EQ(xml_readattr("<m>x</m>", "n"), nullptr);
    EXPECT_STREQ(first, "");
    EXPECT_EQ(xml_readattr("<n>y</n>", "n"), first);
    first = xml_readattr("<o><n>inner</n></o>", "o");
    EXPECT_EQ(xml_readattr(first, "n"), nullptr);  // its own buffer is cleared before it is searched
}

// -------------------------------------------------------------------------------------------------- example

TEST(TimeFmtExample, TellsWhatATransferTook) {
    const Zone utc("UTC");
    const auto output = vxtest::run({vxtest::built("examples/timefmt_transfer"), "104857600", "24-02-29 12:00:00"});
    EXPECT_EQ(output.status, 0);
    EXPECT_THAT(output.text, testing::HasSubstr("started 2024-02-29 12:00:00\n"));
    EXPECT_THAT(output.text, testing::HasSubstr("moved   100 MB in 8.5 s\n"));
    EXPECT_THAT(output.text, testing::HasSubstr("rate    94.1 Mbit/s\n"));
    EXPECT_EQ(vxtest::run({vxtest::built("examples/timefmt_transfer"), "1", "soon"}).status, 1);
}

}  // namespace
