// SPDX-License-Identifier: MIT
// vx sysinfo: the variables that describe the device.
#include <vxutils/systeminfo.h>

#include <memory>

#include "commands/commands.h"
#include "core/failure.h"
#include "core/file.h"
#include "core/owned.h"

namespace tool {

namespace {

constexpr const char *path = "/etc/default/system-info";

using Table = Owned<systeminfo_table, &systeminfo_free>;

// An unquoted value holds the line feed that ends it.
Record recordOf(const systeminfo_var &variable) {
    return {{"name", variable.name}, {"value", withoutLineEnd(variable.value)}};
}

const systeminfo_var *find(const systeminfo_table &table, const std::string &name) {
    for (int i = 0; i < table.count; ++i) {
        if (name == table.vars[i].name) return &table.vars[i];
    }
    return nullptr;
}

int sysinfo(const Arguments &arguments, Output &out) {
    readFile(path, path);  // the library takes for empty what it cannot read, and waits for the writer of a FIFO
    const Table table(systeminfo_init());
    if (!table) throw Failure(path, "holds more than 256 variables, or memory is short");
    std::vector<Record> values;
    for (const std::string &name : arguments.words()) {
        const systeminfo_var *variable = find(*table, name);
        if (variable == nullptr) throw Failure(named(name), std::string("not in ") + path);
        values.push_back(recordOf(*variable));
    }
    if (arguments.size() == 0) {
        for (int i = 0; i < table->count; ++i) values.push_back(recordOf(table->vars[i]));
    }
    out.print(values, arguments.size() == 1 ? Plain::value : Plain::pair);
    return statusDone;
}

std::vector<std::string> nameWords(const Arguments &) {
    const Table table(systeminfo_init());
    std::vector<std::string> words;
    for (int i = 0; table && i < table->count; ++i) words.emplace_back(table->vars[i].name);
    return words;
}

constexpr Argument names[] = {{"NAME", Count::any, nameWords}};
constexpr Verb verbs[] = {{"", "print the device's variables, all or some", {}, names, sysinfo}};

}  // namespace

const Command sysinfoCommand{"sysinfo", "system information of the device", {}, verbs};

}  // namespace tool
