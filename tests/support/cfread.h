// SPDX-License-Identifier: MIT
// What the tests of configuration files share: files, tables, and what their slots hold.
#pragma once

#include <gtest/gtest.h>
#include <syslog.h>
#include <vxutils/cfread.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/files.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace vxtest::cfread {

using Log = std::vector<LogLine>;
using Pairs = std::vector<std::pair<std::string, std::string>>;

using Table = std::unique_ptr<cfread_table, decltype(&cfread_close)>;

constexpr const char *mainFile = "/etc/vx/main.conf";

inline Table openFile(const char *path = mainFile) { return Table(cfread_open(path), &cfread_close); }

inline Table openText(const std::string &text) {
    writeFile(mainFile, text);
    return openFile();
}

// What the slots hold, in their order.
inline Pairs slots(const Table &table) {
    Pairs pairs;
    for (int i = 0; i < table->size; ++i) {
        const cfread_entry *entry = table->entries[i];
        if (entry == nullptr) continue;
        EXPECT_EQ(entry->index, i);
        pairs.emplace_back(entry->key, entry->value);
    }
    EXPECT_EQ(pairs.size(), static_cast<size_t>(table->count));
    return pairs;
}

inline Pairs read(const std::string &text) {
    const Table table = openText(text);
    EXPECT_NE(table, nullptr) << text;
    return table != nullptr ? slots(table) : Pairs{};
}

inline std::string value(const Table &table, const char *key) {
    const cfread_entry *entry = cfread_find_entry(table.get(), key);
    return entry != nullptr ? entry->value : "(none)";
}

inline Log error(const std::string &text) { return {{LOG_ERR, text}}; }

class Cfread : public testing::Test {
protected:
    SyslogCapture log;
    NoLeaks leaks;
};

}  // namespace vxtest::cfread
