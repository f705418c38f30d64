// SPDX-License-Identifier: MIT
// Files of any content: the values are those that a slow reading of the rules gives.
#include <sys/mman.h>
#include <unistd.h>
#include <vxutils/configreader.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

namespace {

using Values = std::map<std::string, std::string>;

bool isBlank(char c) { return static_cast<unsigned char>(c) <= 32; }

void slowLine(std::string line, Values &values) {
    line.resize(std::min(line.find('\0'), line.size()));
    const size_t equals = line.find('=');
    if (line.empty() || line[0] == '#' || equals == std::string::npos) return;
    std::string key = line.substr(0, equals);
    std::string value = line.substr(equals + 1);
    for (size_t i = 0; i < key.size();) {
        if (isBlank(key[i])) {
            key.erase(i, 1);
            i = 1;
        } else {
            ++i;
        }
    }
    while (!value.empty() && isBlank(value.front())) value.erase(0, 1);
    while (!value.empty() && isBlank(value.back())) value.pop_back();
    values.emplace(key, value);
}

Values slowReading(std::string_view text) {
    Values values;
    while (!text.empty()) {
        const size_t newline = text.find('\n');
        const size_t end = std::min({newline == std::string_view::npos ? text.size() : newline + 1, size_t{1022}});
        slowLine(std::string(text.substr(0, end)), values);
        text.remove_prefix(end);
    }
    return values;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const int fd = ::memfd_create("reader", MFD_CLOEXEC);
    static const bool quiet = std::freopen("/dev/null", "w", stdout) != nullptr;  // of the duplicates
    if (!quiet || size > 32768) return 0;
    if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) std::abort();
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);

    ConfigReader reader;
    if (!reader.initialize(path, size % 512)) std::abort();
    const String none("(none)");
    for (const auto &[key, value] : slowReading({reinterpret_cast<const char *>(data), size})) {
        if (value != reader.getValue(key.c_str(), none).c_str()) std::abort();
        (void)reader.getValueAsInt(key.c_str(), 0);
        (void)reader.getIndexedValueAsInt("%lu", size, 0);
    }
    return 0;
}
