// SPDX-License-Identifier: MIT
// A modem daemon whose answers are the pieces of the input; when they are used up it hangs up.
#include <sys/stat.h>
#include <syslog.h>
#include <vxutils/wwanmd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "fuzz/stage.h"

namespace {

stage::Answers answers;

// The library would wait for an empty answer until its time-out ends: it is not sent.
std::optional<std::string> answer(std::string_view) {
    auto piece = answers.next();
    return piece.has_value() && piece->empty() ? std::nullopt : piece;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool started = [] {
        ::setlogmask(LOG_MASK(LOG_DEBUG));  // the messages go nowhere
        ::mkdir("/var/run/wwanmd0", 0755);
        stage::startStreamPeer("/var/run/wwanmd0/server", answer);
        return true;
    }();
    stage::check(started);
    if (size > 32768) return 0;
    const std::string input = "OK\xff" + std::string(stage::text(data, size));  // of the handshake
    // A busy modem is waited for by the clock.
    if (input.find("BUSY") != std::string::npos) return 0;
    answers.play(input);
    stage::noPauses = true;
    wwanmd_handle *const handle = wwanmd_init(0, "fuzz");
    stage::check(handle != nullptr);
    const auto message = std::make_unique<wwanmd_msg>();
    for (int i = 0; i < 3; ++i) {
        std::strcpy(message->data, "AT+CSQ");
        message->len = 6;
        message->timeout = 5;
        const int result = wwanmd_command(handle, message.get());
        stage::check(result == 0 || result == -1);
        stage::check(message->len >= -1 && message->len < static_cast<int>(sizeof message->data));
        stage::check(message->len == -1 || message->data[message->len] == '\0');
    }
    wwanmd_free(handle);
    stage::noPauses = false;
    return 0;
}
