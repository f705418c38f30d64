// SPDX-License-Identifier: MIT
// Configuration files of any content: a main file and, after the first byte 0xFF, one that it may include. Without
// includes the entries must be those that a slow reading of the rules gives.
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/cfread.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct Entry {
    std::string key;
    std::string value;
    bool operator==(const Entry &) const = default;
};

struct Reading {
    std::vector<Entry> entries;
    bool failed = false;
    bool operator==(const Reading &) const = default;
};

// A directory in memory, since each run writes two files; gone at the end.
class Directory {
public:
    Directory() {
        char name[] = "/dev/shm/cfread_fuzz.XXXXXX";
        if (::mkdtemp(name) == nullptr) std::abort();
        path_ = name;
    }
    ~Directory() {
        for (const char *file : {"/main", "/more"}) ::unlink((path_ + file).c_str());
        ::rmdir(path_.c_str());
    }
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

const std::string &directory() {
    static const Directory made;
    return made.path();
}

void write(const std::string &path, std::string_view text) {
    FILE *file = std::fopen(path.c_str(), "we");
    if (file == nullptr || std::fwrite(text.data(), 1, text.size(), file) != text.size()) std::abort();
    std::fclose(file);
}

int collect(const char *key, const char *value, void *arg, int) {
    static_cast<Reading *>(arg)->entries.push_back({key, value});
    return 0;
}

// One line as the rules say, nothing clever.
bool slowLine(std::string_view line, Reading &reading) {
    Entry entry;
    bool inValue = false;
    for (const char c : line) {
        if (c == '\n' || c == '\r') {
            reading.entries.push_back(entry);
            return true;
        }
        if (c == '\0') return false;
        if (static_cast<unsigned char>(c) >= 128) continue;
        std::string &part = inValue ? entry.value : entry.key;
        if (c == ' ' && (!inValue || part.empty())) continue;
        if (c == '=' && !inValue) {
            inValue = true;
            continue;
        }
        part += c;
        if (part.size() > 255) return false;
    }
    return false;
}

Reading slowReading(std::string_view text) {
    Reading reading;
    while (!text.empty() && !reading.failed) {
        const size_t end = std::min({text.find('\n') + 1 == 0 ? text.size() : text.find('\n') + 1, size_t{1023}});
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end);
        if (line[0] != '#') reading.failed = !slowLine(line, reading);
    }
    return reading;
}

void check(bool holds) {
    if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const int once = [] {
        const rlimit few{64, 64};  // a file may include itself until they run out
        ::setrlimit(RLIMIT_NOFILE, &few);
        return ::setlogmask(LOG_MASK(LOG_DEBUG));  // the messages go nowhere
    }();
    (void)once;
    if (size > 32768) return 0;
    std::string text(reinterpret_cast<const char *>(data), size);
    std::replace(text.begin(), text.end(), '/', '.');  // includes stay in the directory
    const size_t split = std::min(text.find('\xff'), text.size());
    const std::string main = directory() + "/main";
    write(main, std::string_view(text).substr(0, split));
    write(directory() + "/more", std::string_view(text).substr(split));

    Reading all;
    all.failed = cfread_parse_with_callback(main.c_str(), collect, &all, 1) != 0;
    cfread_table *table = cfread_open(main.c_str());
    check((table == nullptr) == all.failed);
    if (table != nullptr) {
        int found = 0;
        for (auto entry = all.entries.rbegin(); entry != all.entries.rend(); ++entry) {
            if (entry->key.empty() || entry->value.empty()) continue;
            const auto later = [&](const Entry &other) { return other.key == entry->key && !other.value.empty(); };
            if (std::any_of(all.entries.rbegin(), entry, later)) continue;
            const cfread_entry *kept = cfread_find_entry(table, entry->key.c_str());
            check(kept != nullptr && entry->value == kept->value && table->entries[kept->index] == kept);
            ++found;
        }
        check(found == table->count);
    }
    cfread_close(table);
    if (("\n" + text.substr(0, split)).find("include ") == std::string::npos) {
        check(all == slowReading(std::string_view(text).substr(0, split)));
    }
    return 0;
}
