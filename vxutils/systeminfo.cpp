// SPDX-License-Identifier: MIT
#include <vxutils/systeminfo.h>

#include <vxutils/strutil.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>

#include "vxutils/internal/handles.h"
#include "vxutils/internal/number.h"
#include "vxutils/systeminfo_reader.h"

namespace {

constexpr const char *path = "/etc/default/system-info";
constexpr int lineSize = 1023;  // 1022 characters and a NUL; quirk Q95

using Table = std::unique_ptr<systeminfo_table, vx::Release<&systeminfo_free>>;

// Returns the text between double quotes; a value without an opening quote as it is.
// Quirk Q38.
char *unquote(char *value) {
    if (*value != '"') return value;
    ++value;
    value[std::strcspn(value, "\"\n")] = '\0';
    return value;
}

// Returns false when the table is full or memory is short.
bool addPair(systeminfo_table &table, const char *name, const char *value) {
    if (static_cast<size_t>(table.count) == std::size(table.vars)) return false;
    systeminfo_var &var = table.vars[table.count];
    var.name = ::strdup(name);
    var.value = ::strdup(value);
    if (var.name == nullptr || var.value == nullptr) return false;
    ++table.count;
    return true;
}

// Returns false when the line holds a variable that cannot be added.
bool readLine(systeminfo_table &table, char *line) {
    char *name = line + std::strspn(line, " ");
    char *equals = std::strchr(name, '=');
    if (*name == '#' || equals == nullptr || equals[1] == '\0') return true;
    *equals = '\0';
    return addPair(table, name, unquote(equals + 1));
}

const char *findValue(const systeminfo_table *table, const char *name) {
    if (table == nullptr || name == nullptr) return "";
    for (int i = 0; i < table->count; ++i) {
        if (std::strcmp(table->vars[i].name, name) == 0) return table->vars[i].value;
    }
    return "";
}

}  // namespace

systeminfo_table *vx::readSystemInfo(FILE *file) {
    Table table(static_cast<systeminfo_table *>(zalloc(sizeof(systeminfo_table))));
    if (!table) return nullptr;
    char line[lineSize];
    while (std::fgets(line, sizeof line, file) != nullptr && line[0] != '\0') {
        if (!readLine(*table, line)) return nullptr;
    }
    return table.release();
}

systeminfo_table *systeminfo_init(void) {
    const vx::FilePtr file(std::fopen(path, "re"));
    return file ? vx::readSystemInfo(file.get()) : nullptr;
}

const char *systeminfo_getvar(const systeminfo_table *table, const char *name) { return findValue(table, name); }

int systeminfo_getint(const systeminfo_table *table, const char *name) {
    const char *value = findValue(table, name);
    return *value == '\0' ? -1 : vx::toInt(value);
}

void systeminfo_free(systeminfo_table *table) {
    if (table == nullptr) return;
    for (const systeminfo_var &var : table->vars) {
        std::free(var.name);
        std::free(var.value);
    }
    std::free(table);
}
