// SPDX-License-Identifier: MIT
#include "support/files.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vxtest {

void makeDirs(const std::string &path) { std::filesystem::create_directories(path); }

void writeFile(const std::string &path, const std::string &text) {
    const auto parent = std::filesystem::path(path).parent_path();
    if (!parent.empty()) makeDirs(parent);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    if (!file) throw std::runtime_error("cannot write " + path);
}

std::string readFile(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

bool exists(const std::string &path) {
    return std::filesystem::symlink_status(path).type() != std::filesystem::file_type::not_found;
}

std::string repeated(size_t count, char c) {
    std::string text;
    text.append(count, c);
    return text;
}

}  // namespace vxtest
