// SPDX-License-Identifier: MIT
// Any line: split as the rules say it, and nothing written beyond an argument's room.
#include <vxutils/command.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr size_t longestLine = 4096;
constexpr size_t mostArguments = 255;

void require(bool condition) {
    if (!condition) std::abort();
}

// The rules once more, argument by argument instead of character by character.
std::optional<std::vector<std::string>> model(const std::string &line) {
    const std::string blanks = " \t\n";
    std::vector<std::string> arguments;
    for (size_t at = line.find_first_not_of(blanks); at != std::string::npos; at = line.find_first_not_of(blanks, at)) {
        const bool quoted = line[at] == '"' || line[at] == '\'';
        const size_t first = quoted ? at + 1 : at;
        const size_t end = quoted ? line.find(line[at], first) : line.find_first_of(blanks, first);
        if (quoted && end == std::string::npos) return std::nullopt;
        arguments.push_back(line.substr(first, end - first));
        if (end == std::string::npos) break;
        at = quoted ? end + 1 : end;
    }
    if (arguments.size() > mostArguments) return std::nullopt;
    return arguments;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string bytes(reinterpret_cast<const char *>(data), size < longestLine ? size : longestLine);
    const std::string line = bytes.c_str();
    char **argv = nullptr;
    int argc = -1;
    const int result = makeargv(line.c_str(), &argv, &argc);
    const auto expected = model(line);
    require((result == 0) == expected.has_value());
    if (result != 0) {
        require(argv == nullptr && argc == -1);
        return 0;
    }
    require(static_cast<size_t>(argc) == expected->size());
    for (size_t i = 0; i < mostArguments; ++i) {
        require((argv[i] != nullptr) == (i < expected->size()));
        if (argv[i] == nullptr) continue;
        require(argv[i] == (*expected)[i]);
        std::strcpy(argv[i], line.c_str());  // each has room for the whole line
    }
    freeargv(argv);
    return 0;
}
