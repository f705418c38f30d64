// SPDX-License-Identifier: MIT
// The board's lines as plain files or served by the driver's stand-in, for the tests of dio.h.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "support/board.h"
#include "support/syslog_capture.h"

namespace vxtest::dio {

inline const std::string tree = "/sys/devices/vantorix/";

inline std::string value(const std::string &line) { return tree + line + "/value"; }

// A tree of plain files, where the driver's answers do not matter.
class DioFiles : public testing::Test {
protected:
    DioFiles() { plainBoardTree(); }

    SyslogCapture log;
};

// The driver's stand-in.
class DioDriver : public testing::Test {
protected:
    SyslogCapture log;
    Board board{4, 2};
};

}  // namespace vxtest::dio
