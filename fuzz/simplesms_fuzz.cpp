// SPDX-License-Identifier: MIT
// An incoming message's file: any bytes are split without a fault, and as the rules of the format say it.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "vxutils/simplesms_text.h"

namespace {

constexpr size_t longestFile = 4096;

void require(bool condition) {
    if (!condition) std::abort();
}

std::vector<std::string> pieces(const std::string &text, char separator) {
    std::istringstream stream(text);
    std::vector<std::string> found;
    for (std::string piece; std::getline(stream, piece, separator);) {
        if (!piece.empty()) found.push_back(piece);
    }
    return found;
}

// The rules once more, over streams.
vx::SmsParts model(const std::string &header) {
    vx::SmsParts parts;
    for (const std::string &line : pieces(header, '\n')) {
        const std::vector<std::string> words = pieces(line, ' ');
        const std::string kind = words.empty() ? "" : words[0];
        if (kind == "From:") {
            parts.number = words.size() > 1 ? words[1] : "";
        } else if (kind == "Received:") {
            parts.received.clear();
            for (size_t i = 1; i < words.size(); ++i) parts.received += (i > 1 ? " " : "") + words[i];
        } else {
            parts.unrecognized.push_back(line);
        }
    }
    return parts;
}

void check(const std::string &file) {
    vx::SmsParts parts;
    const size_t end = file.find("\n\n");
    require(vx::splitSms(file, parts) == (end != std::string::npos));
    if (end == std::string::npos) return;
    const vx::SmsParts expected = model(file.substr(0, end));
    require(parts.number == expected.number);
    require(parts.received == expected.received);
    require(parts.unrecognized == expected.unrecognized);
    require(parts.text == file.substr(end + 2));
}

}  // namespace

// The bytes as a file, and as what follows a good beginning, where the words are.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > longestFile) return 0;
    const std::string bytes(reinterpret_cast<const char *>(data), size);
    check(bytes);
    check("From: 1\nReceived: " + bytes);
    return 0;
}
