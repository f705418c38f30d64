// SPDX-License-Identifier: MIT
// vx board: what board this is.
#include <unistd.h>
#include <vxutils/hardware.h>

#include "commands/commands.h"
#include "core/failure.h"
#include "core/file.h"

namespace tool {

namespace {

constexpr const char *oemPath = "/etc/oem/oem.conf";

Value unlessNegative(int number) { return number >= 0 ? Value(number) : Value(); }

int board(const Arguments &arguments, Output &out) {
    if (const char *key = arguments.text("oem")) {
        readFile(oemPath,
                 oemPath);  // the library takes for empty what it cannot read, and waits for the writer of a FIFO
        const std::string value = oem(key);
        if (value.empty()) throw Failure(named(key), std::string("not in ") + oemPath);
        out.print(Record{{"key", key}, {"value", value}}, Plain::value);
        return statusDone;
    }
    if (::access("/proc/sysinfo", F_OK) != 0) throw Failure("/proc/sysinfo", "no board data on this machine");
    out.print(Record{{"product", get_product()},
                     {"generation", unlessNegative(qxhw())},
                     {"extension", unlessNegative(get_extension_variant())},
                     {"poe", has_poe() == 1},
                     {"sim_holder", has_sim_holder() == 1},
                     {"maintenance", in_maintenance() == 1}},
              Plain::fields);
    return statusDone;
}

constexpr Option options[] = {{0, "oem", "KEY", "print a value of /etc/oem/oem.conf"}};
constexpr Verb verbs[] = {{"", "print what board this is", options, {}, board}};

}  // namespace

const Command boardCommand{"board", "identity of the board", {}, verbs};

}  // namespace tool
