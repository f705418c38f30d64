// SPDX-License-Identifier: MIT
// Files of any content, read as one value, as an address and line by line: lines are those of a slow reading.
#include <sys/socket.h>
#include <vxutils/adc.h>
#include <vxutils/file.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz/stage.h"

namespace {

constexpr std::string_view blanks = " \t\r\n";

void checkValue(const std::string &path, std::string_view content) {
    const size_t room = content.empty() ? 1 : static_cast<unsigned char>(content[0]) + size_t{1};
    std::vector<char> value(room, '#');
    const char *const text = readfile_r(path.c_str(), value.data(), room);
    stage::check(text >= value.data() && text < value.data() + room);
    const size_t length = ::strnlen(text, room - static_cast<size_t>(text - value.data()));
    stage::check(text + length < value.data() + room);
    if (length == 0) return;
    stage::check(blanks.find(text[0]) == std::string_view::npos);
    stage::check(blanks.find(text[length - 1]) == std::string_view::npos);
    if (content.find('\0') != std::string_view::npos) return;  // the rest of its line is left out
    stage::check(content.find(std::string_view(text, length)) != std::string_view::npos);
}

// Pieces of at most 1023 bytes, which a line feed ends too; each up to its first NUL, carriage return or line feed.
std::vector<std::string> slowLines(std::string_view content) {
    std::vector<std::string> lines;
    while (!content.empty()) {
        const size_t feed = content.substr(0, 1023).find('\n');
        const std::string_view piece = content.substr(0, feed == std::string_view::npos ? 1023 : feed + 1);
        content.remove_prefix(piece.size());
        lines.emplace_back(piece.substr(0, piece.find_first_of(std::string_view("\0\r\n", 3))));
    }
    return lines;
}

void checkLines(const std::string &path, std::string_view content) {
    list_link head{&head, &head};
    stage::check(read_file_lines(path.c_str(), &head) >= 0);
    std::vector<std::string> lines;
    while (list_empty(&head) == 0) {
        auto *const line = reinterpret_cast<file_line *>(head.next);
        lines.emplace_back(line->data);
        list_del(&line->list);
        std::free(line->data);
        std::free(line);
    }
    stage::check(lines == slowLines(content));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 65536) return 0;
    const std::string_view content = stage::text(data, size);
    const std::string &path = stage::file(content);
    checkValue(path, content);
    checkLines(path, content);
    sockaddr_storage address{};
    const int result = readaddress(path.c_str(), reinterpret_cast<sockaddr *>(&address));
    stage::check(result != 0 || address.ss_family == AF_INET || address.ss_family == AF_INET6);
    float volts = 1;
    const int converted = adc_read(path.c_str(), path.c_str(), &volts);
    stage::check(converted == 0 || volts == 0);
    return 0;
}
