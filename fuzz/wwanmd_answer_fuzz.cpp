// SPDX-License-Identifier: MIT
// A modem daemon whose answers are the pieces of the input; for an empty piece, and when they are used up, it hangs up.
// After a "BUSY" it goes on with the next piece. Results, texts, requests and the handle's state must be those that a
// slow reading of the protocol predicts.
#include <sys/stat.h>
#include <syslog.h>
#include <vxutils/wwanmd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "fuzz/stage.h"

namespace {

using stage::check;

constexpr int mostAnswers = 21;  // to one command, all but the last "BUSY"
constexpr size_t longestAnswer = 8191;
constexpr size_t longestInput = 16000;  // what is too long for one answer is thrown away in one piece
constexpr int mostCommands = 24;

stage::Answers answers;
stage::Requests requests;

bool isBusy(std::string_view text) { return text.starts_with("BUSY"); }

stage::Reply answer(std::string_view request) {
    requests.add(request);
    stage::Reply reply{{}, false};
    do {
        const std::string piece = answers.next().value_or("");
        reply.hangUp = piece.empty();
        if (!reply.hangUp) reply.parts.push_back(piece);
    } while (!reply.hangUp && isBusy(reply.parts.back()) && reply.parts.size() < mostAnswers);
    return reply;
}

struct Outcome {
    int result;
    int length;
    std::string text;
};

// The rules once more, with the state of a handle.
class Model {
public:
    explicit Model(std::string_view input) : pieces_(input) {}

    bool open() {
        failures_ = busyCount_ = 0;
        hungUp_ = false;
        connected_ = exchange("init fuzz\n").result == 0;
        return connected_;
    }

    Outcome command(const std::string &text) {
        if (!connected_ && !open()) return {-1, static_cast<int>(text.size()), text};
        const std::string request = text.ends_with('\n') ? text : text + "\n";
        if (hungUp_) {  // the client reconnects at once, but the command is lost
            open();
            return {-1, static_cast<int>(request.size()), request};
        }
        Outcome outcome = exchange(request);
        if (failures_ > 3 || busyCount_ > 16) open();
        return outcome;
    }

    void checkState(const wwanmd_handle &handle) const {
        check((handle.fd != -1) == connected_ && handle.flags == 1);
        check(handle.failures == failures_ && handle.busy_count == busyCount_);
    }

    [[nodiscard]] bool usedUp() const { return pieces_.empty(); }

private:
    Outcome exchange(const std::string &request) {
        check(requests.take() == request);
        failures_ = 0;  // sent
        std::string got;
        for (int pass = 0; pass < mostAnswers; ++pass) {
            got = pieces_.next().substr(0, longestAnswer);
            if (!isBusy(got)) return judged(got);
        }
        ++busyCount_;
        return {-1, static_cast<int>(got.size()) - 4, got.substr(4)};
    }

    Outcome judged(const std::string &got) {
        if (got.starts_with("OK")) {
            busyCount_ = 0;
            return {0, static_cast<int>(got.size()) - 2, got.substr(2)};
        }
        ++failures_;
        hungUp_ = got.empty();
        if (got.starts_with("ERROR")) return {-1, static_cast<int>(got.size()) - 5, got.substr(5)};
        return {-1, -1, ""};
    }

    stage::Pieces pieces_;
    bool connected_ = false;
    bool hungUp_ = false;
    int failures_ = 0;
    int busyCount_ = 0;
};

// All of the message's room counts: zeros follow the text.
void checkCommand(wwanmd_handle *handle, Model &model, const std::string &text) {
    const auto message = std::make_unique<wwanmd_msg>();
    text.copy(message->data, text.size());
    message->len = static_cast<int>(text.size());
    message->timeout = 5;
    const int result = wwanmd_command(handle, message.get());

    Outcome expected = model.command(text);
    expected.text.resize(sizeof message->data);
    check(result == expected.result && message->len == expected.length);
    check(std::memcmp(message->data, expected.text.data(), sizeof message->data) == 0);
    model.checkState(*handle);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool started = [] {
        ::setlogmask(LOG_MASK(LOG_DEBUG));  // the messages go nowhere
        ::mkdir("/var/run/wwanmd0", 0755);
        stage::startStreamPeer("/var/run/wwanmd0/server", answer);
        return true;
    }();
    check(started);
    if (size > longestInput) return 0;
    const std::string input = "OK\xff" + std::string(stage::text(data, size));  // of the handshake
    for (stage::Pieces pieces(input); !pieces.empty();) {
        const std::string_view piece = pieces.next();
        if (isBusy(piece) && piece.size() > longestAnswer) return 0;  // its rest would be one more answer
    }
    answers.play(input);
    stage::noPauses = true;
    wwanmd_handle *const handle = wwanmd_init(0, "fuzz");
    check(handle != nullptr);
    Model model(input);
    check(model.open());
    const std::string commands[] = {"AT+CSQ", "AT+CREG?\n", ""};
    int left = mostCommands;
    for (int i = 0; i < left; ++i) {
        if (model.usedUp() && left == mostCommands) left = i + 3;  // the daemon hangs up, and then the next two
        checkCommand(handle, model, commands[i % 3]);
    }
    wwanmd_free(handle);
    check(!requests.take().has_value());
    stage::noPauses = false;
    return 0;
}
