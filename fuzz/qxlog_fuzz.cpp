// SPDX-License-Identifier: MIT
// A device log of any content gets an entry whose text is the first piece of the input.
#include <unistd.h>
#include <vxutils/qxlog.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "fuzz/stage.h"

namespace {
constexpr const char *logFile = "/var/log/qxlog";
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 32768) return 0;
    stage::Pieces pieces(stage::text(data, size));
    const std::string message(pieces.next());
    const std::string_view old = pieces.next();
    FILE *const out = std::fopen(logFile, "we");
    stage::check(out != nullptr && std::fwrite(old.data(), 1, old.size(), out) == old.size());
    std::fclose(out);

    const bool nothing = message.empty() || message[0] == '\0';
    stage::check(qxlog(7, message.c_str()) == (nothing ? -1 : 0));
    if (nothing) return 0;
    std::vector<char> text(65536);
    stage::check(qxlog_read(text.data(), text.size()) >= 0);
    FILE *const in = std::fopen(logFile, "re");
    stage::check(in != nullptr);
    std::vector<char> whole(131072);
    const size_t length = std::fread(whole.data(), 1, whole.size(), in);
    std::fclose(in);
    stage::check(length > 0 && whole[length - 1] == '\n');
    const std::string_view lines(whole.data(), length);
    stage::check(std::count(lines.begin(), lines.end(), '\n') <= 33);
    const std::string_view entry = lines.substr(0, lines.find('\n'));
    stage::check(std::none_of(entry.begin(), entry.end(), [](char c) { return static_cast<unsigned char>(c) < ' '; }));
    return 0;
}
