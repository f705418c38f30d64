// SPDX-License-Identifier: MIT
// Files of the box.
#pragma once

#include <string>

namespace vxtest {

void makeDirs(const std::string &path);                            // like mkdir -p
void writeFile(const std::string &path, const std::string &text);  // makes the directories too; throws on failure
std::string readFile(const std::string &path);                     // "" when it cannot be read
bool exists(const std::string &path);                              // of the entry itself, links not followed

// `count` times the character. Compilers warn wrongly about std::string(300, 'x') + "tail".
std::string repeated(size_t count, char c);

}  // namespace vxtest
