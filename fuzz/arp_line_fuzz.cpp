// SPDX-License-Identifier: MIT
// Lines of an ARP table and hosts, any text: the address is the one that a slow reading of the line's words gives.
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "fuzz/split.h"
#include "vxutils/ping_arp_line.h"

namespace {

// The base is the one that the prefix says; what follows the digits is ignored. Nothing for a number that is too large
// for the kernel to write.
std::optional<uint32_t> number(const std::string &word) {
    const bool hexadecimal = word.compare(0, 2, "0x") == 0 || word.compare(0, 2, "0X") == 0;
    const uint64_t base = hexadecimal ? 16 : word[0] == '0' ? 8 : 10;
    uint64_t value = 0;
    for (size_t at = hexadecimal ? 2 : 0; at < word.size(); ++at) {
        const size_t digit = std::string("0123456789abcdef").find(static_cast<char>(std::tolower(word[at] & 0x7f)));
        if ((word[at] & 0x80) != 0 || digit >= base) break;
        value = value * base + digit;
        if (value > UINT32_MAX) return std::nullopt;
    }
    return static_cast<uint32_t>(value);
}

std::optional<std::array<uint8_t, 6>> hardwareAddress(const std::string &word) {
    const auto bytes = split(word, ":");
    std::array<uint8_t, 6> address{};
    if (bytes.size() != address.size()) return std::nullopt;
    for (size_t i = 0; i < address.size(); ++i) {
        if (bytes[i].empty() || bytes[i].size() > 2) return std::nullopt;
        for (const char c : bytes[i]) {
            if (std::isxdigit(static_cast<unsigned char>(c)) == 0) return std::nullopt;
        }
        address[i] = static_cast<uint8_t>(std::stoul(bytes[i], nullptr, 16));
    }
    return address;
}

void compare(const std::string &line, const std::string &host) {
    std::vector<std::string> words;
    for (const std::string &word : split(line, " \t\r\n")) {
        if (!word.empty()) words.push_back(word);
    }
    std::optional<std::array<uint8_t, 6>> expected;
    if (line.compare(0, host.size() + 1, host + " ") == 0 && words.size() >= 4) {
        const auto flags = number(words[2]);
        if (!flags.has_value()) return;
        if ((*flags & 2) != 0) expected = hardwareAddress(words[3]);
    }
    if (vx::arp::lookUp(line, host) != expected) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1 || size > 512) return 0;
    const size_t hostLength = data[0] % size;
    const std::string line(reinterpret_cast<const char *>(data) + 1, size - 1);
    const std::string host = line.substr(0, hostLength);
    compare(line, host);
    compare(host + line.substr(hostLength), "192.0.2.1");
    compare(host + "  0x1  0x2  02:00:5e:10:ff:0a * wan0\n", host);
    compare("192.0.2.1 0x1 0x2 " + line, "192.0.2.1");
    compare("192.0.2.1 0x1 " + line + " 02:00:5e:10:ff:0a", "192.0.2.1");
    return 0;
}
