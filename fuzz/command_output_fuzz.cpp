// SPDX-License-Identifier: MIT
// Output of commands of any content: the first byte chooses the size of the buffer and how the command ends. What
// eval_command() stores and counts is what a slow reading gives.
#include <vxutils/cellular.h>
#include <vxutils/command.h>
#include <vxutils/interface.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/stage.h"

namespace {

struct Reading {
    std::string text;
    int count = 0;
};

// Lines, or pieces of 1022 characters, each up to its first NUL, for as long as there is room.
Reading slowReading(std::string_view output, size_t size) {
    Reading reading;
    while (!output.empty() && reading.text.size() + 1 < size) {
        const std::string_view piece = output.substr(0, std::min(output.find('\n'), size_t{1021}) + 1);
        output.remove_prefix(piece.size());
        reading.text += piece.substr(0, piece.find('\0'));
    }
    reading.count = static_cast<int>(reading.text.size());
    reading.text.resize(std::min(reading.text.size(), std::max(size, size_t{2}) - 2));
    return reading;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    stage::command = stage::Command{stage::text(data + 1, size - 1), data[0] % 4 == 0 ? 256 : 0};
    const size_t room = data[0] % 128U + 1;
    std::vector<char> out(room, '#');
    const int count = eval_command("command", out.data(), room);
    const Reading expected = slowReading(stage::command->output, room);
    stage::check(out.data() == expected.text);
    stage::check(count == (stage::command->status == 0 ? expected.count : -1));
    std::fill(out.begin(), out.end(), '#');
    (void)bridge_members("br0", out.data(), room);
    stage::check(::strnlen(out.data(), room) < room);
    stage::check(::strnlen(pdb_find_provider("26201"), 64) < 64);
    stage::command.reset();
    return 0;
}
