// SPDX-License-Identifier: MIT
#include <vxutils/systeminfo.h>

#include <string>

#include "support/files.h"
#include "torture/faults.h"

using torture::Run;

namespace {

void readFile(Run &run) {
    systeminfo_table *table = run([] { return systeminfo_init(); });
    const bool whole = table != nullptr && systeminfo_getint(table, "NUMBER") == 7 &&
                       std::string(systeminfo_getvar(table, "NAME")) == "some name";
    run.outcome("systeminfo_init", whole,
                (table == nullptr && run.told()) || run.failed("fgets") || run.failed("malloc"));
    run([&] { systeminfo_free(table); });
}

}  // namespace

int main(int argc, char **argv) {
    vxtest::writeFile("/etc/default/system-info", "NAME=\"some name\"\nNUMBER=7\n");
    return torture::torment(argc, argv, {{"systeminfo: read", readFile}});
}
