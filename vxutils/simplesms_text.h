// SPDX-License-Identifier: MIT
// Content of an incoming message's file.
#pragma once

#include <string>
#include <vector>

namespace vx {

struct SmsParts {
    std::string number;
    std::string received;
    std::string text;
    std::vector<std::string> unrecognized;  // header lines
};

// Splits a file's text; false when it has no empty line.
bool splitSms(const std::string &file, SmsParts &parts);

}  // namespace vx
