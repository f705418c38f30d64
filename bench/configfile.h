// SPDX-License-Identifier: MIT
// What the benchmarks of both configuration readers share: the files, the keys, and the reader that a program would
// otherwise write for the same lines.
#ifndef VXUTILS_BENCH_CONFIGFILE_H
#define VXUTILS_BENCH_CONFIGFILE_H

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <unordered_map>
#include <vector>

namespace vxbench {

using Map = std::unordered_map<std::string, std::string>;

inline std::string keyOf(long number) { return "network.interface." + std::to_string(number); }

// A file of `keys` entries, made once; removed with the box.
inline std::string fileOf(long keys) {
    const std::string path = "/tmp/configfile_bench." + std::to_string(keys);
    if (::access(path.c_str(), R_OK) == 0) return path;
    std::ofstream file(path);
    for (long i = 0; i < keys; ++i) file << keyOf(i) << " = value of " << i << '\n';
    file.close();
    if (!file) std::exit(1);
    return path;
}

// Keys of such a file in no order, of the type that the reader takes.
template <typename Text>
std::vector<Text> someKeys(long keys) {
    std::vector<Text> some;
    uint32_t random = 1;
    for (int i = 0; i < 1024; ++i) {
        random = random * 1664525u + 1013904223u;
        some.push_back(Text(keyOf(static_cast<long>(random >> 8) % keys).c_str()));
    }
    return some;
}

// Reads the lines into a map; `store`(map, key, value) says which of two equal keys wins.
template <typename Store>
Map readMap(const std::string &path, Store store) {
    Map values;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') continue;
        const size_t equals = line.find('=');
        if (equals == std::string::npos) continue;
        const size_t keyEnd = line.find_last_not_of(' ', equals - 1);
        const size_t valueStart = line.find_first_not_of(' ', equals + 1);
        if (keyEnd == std::string::npos || valueStart == std::string::npos) continue;
        store(values, line.substr(0, keyEnd + 1), line.substr(valueStart));
    }
    return values;
}

}  // namespace vxbench

#endif
