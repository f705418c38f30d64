// SPDX-License-Identifier: MIT
#include <vxutils/adc.h>

#include <locale.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <filesystem>

#include "support/board.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace {

using testing::ElementsAre;
using vxtest::LogLine;

const std::string iio = "/sys/bus/iio/devices/iio:device0/";
const std::string hwmon = "/sys/bus/i2c/devices/0-0058/da9063-hwmon/hwmon/";
const char *const raw = "/tmp/raw";
const char *const scale = "/tmp/scale";

class Adc : public testing::Test {
protected:
    Adc() {
        vxtest::prepareBoardFiles();
        for (const char *path : {"/sys/bus/iio", "/sys/bus/i2c", raw, scale}) std::filesystem::remove_all(path);
    }

    vxtest::SyslogCapture log;
    float value = 77;
};

TEST_F(Adc, ReadsANumberWithoutScale) {
    const vxtest::NoLeaks leaks;
    vxtest::writeFile(raw, "123\n");
    EXPECT_EQ(adc_read(raw, nullptr, &value), 0);
    EXPECT_EQ(value, 123.0F);
    vxtest::writeFile(raw, "0\n");
    EXPECT_EQ(adc_read(raw, nullptr, &value), 0);
    EXPECT_EQ(value, 0.0F);
    vxtest::writeFile(raw, "  42 mV\n");
    EXPECT_EQ(adc_read(raw, nullptr, &value), 0);
    EXPECT_EQ(value, 42.0F);
}

TEST_F(Adc, MultipliesByTheScaleFile) {
    vxtest::writeFile(raw, "1000\n");
    vxtest::writeFile(scale, "0.439453125\n");
    EXPECT_EQ(adc_read(raw, scale, &value), 0);
    EXPECT_EQ(value, 439.453125F);
    vxtest::writeFile(scale, "-2e-1");
    EXPECT_EQ(adc_read(raw, scale, &value), 0);
    EXPECT_EQ(value, -200.0F);
    vxtest::writeFile(scale, "no number");
    EXPECT_EQ(adc_read(raw, scale, &value), 0);
    EXPECT_EQ(value, 0.0F);
}

TEST_F(Adc, TheFactorHasADecimalPointInEveryLocale) {
    vxtest::writeFile("/tmp/comma.def",
                      "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \"\"\ngrouping -1\nEND LC_NUMERIC\n");
    vxtest::run({"/bin/sh", "-c", "localedef -c -i /tmp/comma.def -f UTF-8 /tmp/comma"});
    vxtest::writeFile(raw, "100\n");
    vxtest::writeFile(scale, "0.5\n");
    constexpr int noLocale = 77;
    const int result = vxtest::inChild([] {
        ::setenv("LOCPATH", "/tmp", 1);
        const locale_t comma = ::newlocale(LC_NUMERIC_MASK, "comma", nullptr);
        if (comma == nullptr) return noLocale;
        ::uselocale(comma);
        if (std::strtod("0,5", nullptr) != 0.5) return 1;
        float volts = 0;
        return adc_read(raw, scale, &volts) == 0 && volts == 50.0F ? 0 : 2;
    });
    if (result == noLocale) GTEST_SKIP() << "this machine cannot make a locale with a decimal comma";
    EXPECT_EQ(result, 0);
}

TEST_F(Adc, FailsWithZeroWhereAFileIsMissingOrEmpty) {
    const auto fails = [this](const char *rawPath, const char *scalePath) {
        value = 77;
        return adc_read(rawPath, scalePath, &value) == -1 && value == 0.0F;
    };
    EXPECT_TRUE(fails(nullptr, nullptr));
    EXPECT_TRUE(fails(raw, nullptr));
    vxtest::writeFile(raw, " \n");
    EXPECT_TRUE(fails(raw, nullptr));
    vxtest::writeFile(raw, "-1\n");
    EXPECT_TRUE(fails(raw, nullptr));
    vxtest::writeFile(raw, "5\n");
    EXPECT_TRUE(fails(raw, scale));
    vxtest::writeFile(scale, "\n");
    EXPECT_TRUE(fails(raw, scale));
    vxtest::writeFile(scale, "1\n");
    EXPECT_FALSE(fails(raw, scale));
    EXPECT_EQ(adc_read(raw, scale, nullptr), -1);
    EXPECT_EQ(adc_read(nullptr, nullptr, nullptr), -1);
    EXPECT_TRUE(log.take().empty());
}

TEST_F(Adc, ATextThatIsNoNumberReadsAsZero) {
    vxtest::writeFile(raw, "broken\n");
    EXPECT_EQ(adc_read(raw, nullptr, &value), 0);
    EXPECT_EQ(value, 0.0F);
    vxtest::writeFile(raw, "99999999999999\n");
    EXPECT_EQ(adc_read(raw, nullptr, &value), 0);
    EXPECT_EQ(value, static_cast<float>(INT_MAX));
    vxtest::writeFile(raw, "-99999999999999\n");
    EXPECT_EQ(adc_read(raw, nullptr, &value), -1);
}

TEST_F(Adc, RawTextsHave127Characters) {
    vxtest::writeFile(raw, vxtest::repeated(126, '0') + "12");
    EXPECT_EQ(adc_read(raw, nullptr, &value), 0);
    EXPECT_EQ(value, 1.0F);
    vxtest::writeFile(raw, vxtest::repeated(127, '0') + "12");
    EXPECT_EQ(adc_read(raw, nullptr, &value), 0);
    EXPECT_EQ(value, 0.0F);
}

TEST_F(Adc, EachBoardHasItsFactor) {
    vxtest::writeFile(raw, "1000\n");
    EXPECT_EQ(qxbeta_adc_read(raw, &value), 0);
    EXPECT_FLOAT_EQ(value, 28561.0F);
    EXPECT_EQ(qxgamma_adc_read(raw, &value, 0.25F), 0);
    EXPECT_FLOAT_EQ(value, 250.0F);
    value = 77;
    EXPECT_EQ(qxalpha_adc_read(raw, &value), -1);  // its scale file is missing
    EXPECT_EQ(value, 0.0F);
    vxtest::writeFile(iio + "in_voltage_scale", "0.5\n");
    EXPECT_EQ(qxalpha_adc_read(raw, &value), 0);
    EXPECT_FLOAT_EQ(value, 15189.5F);
}

TEST_F(Adc, AFailuresZeroIsMultipliedAsWell) {
    for (const float factor : {0.25F, -1.0F}) {
        value = 77;
        EXPECT_EQ(qxgamma_adc_read("/tmp/none", &value, factor), -1);
        EXPECT_EQ(value, 0.0F) << factor;
    }
    EXPECT_EQ(qxgamma_adc_read("/tmp/none", &value, INFINITY), -1);
    EXPECT_TRUE(std::isnan(value));
}

TEST_F(Adc, BoardReadersTakeNull) {
    vxtest::writeFile(raw, "1000\n");
    EXPECT_EQ(qxalpha_adc_read(raw, nullptr), -1);
    EXPECT_EQ(qxbeta_adc_read(raw, nullptr), -1);
    EXPECT_EQ(qxgamma_adc_read(raw, nullptr, 1), -1);
    for (auto *reader : {qxalpha_adc_read, qxbeta_adc_read}) {
        value = 77;
        EXPECT_EQ(reader(nullptr, &value), -1);
        EXPECT_EQ(value, 0.0F);
    }
    value = 77;
    EXPECT_EQ(qxgamma_adc_read(nullptr, &value, 3), -1);
    EXPECT_EQ(value, 0.0F);
}

TEST_F(Adc, TheFirstBoardShowsItsConverter) {
    EXPECT_EQ(qxalpha_adc_supported(), 0);
    vxtest::writeFile(iio + "in_voltage0_raw", "");
    EXPECT_EQ(qxalpha_adc_supported(), 1);
    ASSERT_EQ(::chmod((iio + "in_voltage0_raw").c_str(), 0600), 0);
    EXPECT_EQ(vxtest::inChild([] { return ::setuid(65534) == 0 ? qxalpha_adc_supported() : 99; }), 0) << "not readable";
}

const char *const nothingFound =
    "D9063 Module error. No file under the assumption "
    "/sys/bus/i2c/devices/0-0058/da9063-hwmon/hwmon/*/in2_input was found.";

TEST_F(Adc, TheFourthBoardsInputsAreOneAndTwo) {
    for (const int input : {INT_MIN, -1, 0, 3, INT_MAX}) EXPECT_EQ(qxdelta_get_adc_vin_path(input), nullptr) << input;
    EXPECT_TRUE(log.take().empty());
    EXPECT_STREQ(qxdelta_get_adc_vin_path(2), "");
    EXPECT_THAT(log.take(), ElementsAre(LogLine{LOG_ERR, nothingFound}));
}

TEST_F(Adc, TheFirstMonitorWithARegularFileCounts) {
    vxtest::writeFile(hwmon + "hwmon9/in1_input", "1");
    EXPECT_STREQ(qxdelta_get_adc_vin_path(1), (hwmon + "hwmon9/in1_input").c_str());
    vxtest::writeFile(hwmon + "hwmon3/in1_input", "1");
    vxtest::writeFile(hwmon + "hwmon0/in2_input", "1");
    const char *first = qxdelta_get_adc_vin_path(1);
    const char *second = qxdelta_get_adc_vin_path(2);
    EXPECT_STREQ(first, (hwmon + "hwmon3/in1_input").c_str());  // each input has a buffer of its own
    EXPECT_STREQ(second, (hwmon + "hwmon0/in2_input").c_str());
    EXPECT_TRUE(log.take().empty());
    std::filesystem::remove_all(hwmon);
    vxtest::writeFile(hwmon + "hwmon10/in1_input", "1");
    EXPECT_STREQ(qxdelta_get_adc_vin_path(1), "");
    EXPECT_EQ(log.take().size(), 1U);
}

TEST_F(Adc, WhatIsNoRegularFileIsLoggedAndPassedOver) {
    vxtest::makeDirs(hwmon + "hwmon1/in2_input");
    vxtest::writeFile(hwmon + "real", "1");
    vxtest::makeDirs(hwmon + "hwmon2");
    ASSERT_EQ(::symlink((hwmon + "real").c_str(), (hwmon + "hwmon2/in2_input").c_str()), 0);
    const auto passedOver = [](const std::string &path) {
        return LogLine{LOG_ERR, "D9063 Module error. The " + hwmon + path + " exists, but it is not a regular file."};
    };
    EXPECT_STREQ(qxdelta_get_adc_vin_path(2), "");
    EXPECT_THAT(log.take(), ElementsAre(passedOver("hwmon1/in2_input"), passedOver("hwmon2/in2_input"),
                                        LogLine{LOG_ERR, nothingFound}));
    vxtest::writeFile(hwmon + "hwmon7/in2_input", "1");
    EXPECT_STREQ(qxdelta_get_adc_vin_path(2), (hwmon + "hwmon7/in2_input").c_str());
    EXPECT_THAT(log.take(), ElementsAre(passedOver("hwmon1/in2_input"), passedOver("hwmon2/in2_input")));
}

TEST_F(Adc, TheExampleReadsTheBoardsInput) {
    vxtest::writeFile(hwmon + "hwmon3/in1_input", "12100\n");
    const auto output = vxtest::run({vxtest::built("examples/adc_voltage"), "1"});
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(output.text, "input 1: 12.10 V\n");
    EXPECT_EQ(vxtest::run({vxtest::built("examples/adc_voltage"), "2"}).text, "input 2: no converter\n");
}

}  // namespace
