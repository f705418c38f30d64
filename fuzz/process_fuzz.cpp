// SPDX-License-Identifier: MIT
// Files of /proc/PID of any content: the parent is the fourth word, names end within their buffers.
#include <vxutils/process.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "fuzz/stage.h"

namespace {

// The parent's number, word by word.
int slowParent(std::string_view content) {
    const std::string line(content.substr(0, 254).data(),
                           ::strnlen(content.data(), std::min<size_t>(content.size(), 254)));
    size_t at = 0;
    for (int word = 1;; ++word) {
        at = line.find_first_not_of(' ', at);
        if (at == std::string::npos || line[at] == '\n') return -1;
        size_t end = at;
        while (end < line.size() && line[end] != ' ' && line[end] != '\n') ++end;
        if (word == 4) {
            const long long number = std::strtoll(line.substr(at, end - at).c_str(), nullptr, 10);
            return number >= INT_MIN && number <= INT_MAX ? static_cast<int>(number) : 0;
        }
        if (end < line.size() && line[end] == '\n') return -1;
        at = end;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    stage::files = {"/proc/", stage::text(data, size)};
    stage::check(get_parent_pid(4711) == slowParent(stage::files.content));
    stage::check(std::strlen(procname(4711)) <= 255);
    for (const size_t room : {size_t{2}, size_t{16}, size_t{300}}) {
        std::string caller(room, '#');
        const int result = get_caller(caller.data(), room);
        const size_t length = ::strnlen(caller.data(), room);
        stage::check(length < room && (result == 0 || length == 0));
    }
    stage::files = {};
    return 0;
}
