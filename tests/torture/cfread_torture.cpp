// SPDX-License-Identifier: MIT
#include <vxutils/cfread.h>

#include <string>

#include "support/files.h"
#include "torture/faults.h"

using torture::Run;

namespace {

const char *const path = "/tmp/torture/conf";

void prepare() {
    std::string text = "first=1\ninclude more\n";
    for (int i = 0; i < 300; ++i) text += "key" + std::to_string(i) + "=value " + std::to_string(i) + "\n";
    vxtest::writeFile(path, text);
    vxtest::writeFile("/tmp/torture/more", "second=2\n");
}

void clean() {
    ::unlink(path);
    ::unlink("/tmp/torture/more");
}

bool holds(const cfread_table *table, const char *key, const std::string &value) {
    const cfread_entry *entry = cfread_find_entry(table, key);
    return entry != nullptr && entry->value == value;
}

void table(Run &run) {
    prepare();
    cfread_table *table = run([] { return cfread_open(path); });
    const bool whole = table != nullptr && holds(table, "first", "1") && holds(table, "second", "2") &&
                       holds(table, "key299", "value 299");
    // A read that fails ends the file: what was read until then is there.
    run.outcome("cfread_open", whole, table == nullptr || run.failed("read"), table == nullptr ? "cfread: " : nullptr);
    if (table != nullptr) {
        const cfread_entry *entry = run([&] { return cfread_set_entry(table, "first", "new"); });
        run.outcome("cfread_set_entry", entry != nullptr && holds(table, "first", "new"), entry == nullptr, "cfread: ");
        run.always("other entries stay", !whole || holds(table, "key7", "value 7"));
    }
    run([&] { cfread_close(table); });
    clean();
}

int count(const char * /*key*/, const char * /*value*/, void *counter, int /*empty*/) {
    const torture::Disarmed quiet;
    ++*static_cast<int *>(counter);
    return 0;
}

void callback(Run &run) {
    prepare();
    int entries = 0;
    const int result = run([&] { return cfread_parse_with_callback(path, count, &entries, 0); });
    run.outcome("cfread_parse_with_callback", result == 0 && entries == 302, result == -1 || run.failed("read"),
                result == -1 ? "cfread: " : nullptr);
    clean();
}

}  // namespace

int main(int argc, char **argv) {
    return torture::torment(argc, argv, {{"cfread: table", table}, {"cfread: callback", callback}});
}
