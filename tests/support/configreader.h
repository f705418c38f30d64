// SPDX-License-Identifier: MIT
// A reader for each test of configreader.h, and the file it reads.
#pragma once

#include <gtest/gtest.h>
#include <vxutils/configreader.h>

#include <string>

#include "support/files.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace vxtest::configreader {

inline constexpr const char *path = "/etc/vx/reader.conf";

class ConfigReaderTest : public testing::Test {
protected:
    // What initialize() prints while it reads this text; `read` tells what it returned.
    std::string reading(const std::string &text, unsigned long tableSize = 16) {
        vxtest::writeFile(path, text);
        testing::internal::CaptureStdout();
        read = reader.initialize(path, tableSize);
        return testing::internal::GetCapturedStdout();
    }
    std::string value(const char *key) const { return reader.getValue(key, "(default)").c_str(); }
    // Value of the one key of a file with this line, or "(default)".
    std::string lineGives(const std::string &line, const char *key) {
        EXPECT_EQ(reading(line), "");
        return value(key);
    }

    ~ConfigReaderTest() override { EXPECT_TRUE(log.take().empty()); }  // nothing goes to the system log

    vxtest::SyslogCapture log;
    vxtest::NoLeaks leaks;
    ConfigReader reader;
    bool read = false;
};

}  // namespace vxtest::configreader
