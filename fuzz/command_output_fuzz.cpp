// SPDX-License-Identifier: MIT
// Output of commands of any content: the first byte chooses the size of the buffer and how the command ends.
#include <vxutils/cellular.h>
#include <vxutils/command.h>
#include <vxutils/interface.h>

#include <cstring>
#include <vector>

#include "fuzz/stage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    stage::command = stage::Command{stage::text(data + 1, size - 1), data[0] % 4 == 0 ? 256 : 0};
    const size_t room = data[0] % 128U + 1;
    std::vector<char> out(room, '#');
    (void)eval_command("command", out.data(), room);
    stage::check(::strnlen(out.data(), room) < room);
    (void)bridge_members("br0", out.data(), room);
    stage::check(::strnlen(out.data(), room) < room);
    stage::check(::strnlen(pdb_find_provider("26201"), 64) < 64);
    stage::command.reset();
    return 0;
}
