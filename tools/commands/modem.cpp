// SPDX-License-Identifier: MIT
// vx modem: the modem daemon of a card.
#include <sys/socket.h>
#include <unistd.h>
#include <vxutils/wwanmd.h>

#include <charconv>
#include <cstring>
#include <memory>

#include "commands/commands.h"
#include "core/failure.h"
#include "core/owned.h"
#include "core/socket.h"

namespace tool {

namespace {

constexpr const char *application = "vx";
constexpr int64_t lastCard = 15;
constexpr int64_t shortestWait = 5;
constexpr int64_t longestWait = 300;
constexpr int64_t defaultWait = 10;

int cardOf(const Arguments &arguments) {
    const auto card = static_cast<int>(arguments.number("card", 0, 0, lastCard));
    if (card > 5 && card < 10) throw Usage{"--card: cards are 0 to 5 and 10 to 15"};
    return card;
}

std::string nameOf(int card) { return "card " + std::to_string(card); }

using Handle = Owned<wwanmd_handle, &wwanmd_free>;

Handle open(int card) { return Handle(wwanmd_init(card, application)); }

Failure cannotConnect(int card) {
    // The library has waited for the marker's end already.
    const std::string marker = "/tmp/status/wwanmd/card" + std::to_string(card) + "/reset";
    if (::access(marker.c_str(), F_OK) == 0) return {nameOf(card), "the card is being reset"};
    const std::string path = "/var/run/wwanmd" + std::to_string(card) + "/server";
    if (!answers(path, SOCK_STREAM)) {
        if (errno == EACCES) return systemFailure(path);
        return {nameOf(card), "no modem daemon at " + path + ": " + std::strerror(errno)};
    }
    return {nameOf(card), "the modem daemon at " + path + " refuses the connection; the system log has more"};
}

std::string trimmed(std::string_view text) {
    constexpr const char *blanks = " \t\r\n";
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return std::string(text.substr(first, text.find_last_not_of(blanks) - first + 1));
}

// Sends one command; its answer without the word that tells of success. By steps: where a command cannot be sent, the
// message still is the command, which must not be shown as the daemon's words.
std::string ask(const Arguments &arguments, const std::string &command) {
    const int card = cardOf(arguments);
    const auto message = std::make_unique<wwanmd_msg>();
    message->timeout = static_cast<int>(arguments.number("wait", defaultWait, shortestWait, longestWait));
    if (command.size() > sizeof message->data - 2) throw Usage{"TEXT is longer than 8190 bytes"};
    std::memcpy(message->data, command.data(), command.size());
    message->len = static_cast<int>(command.size());
    const Handle handle = open(card);
    if (!handle) throw cannotConnect(card);
    int result = wwanmd_send(handle.get(), message.get());
    message->len = -1;
    if (result == 0) result = wwanmd_recv(handle.get(), message.get());
    if (message->len < 0) throw Failure(nameOf(card), "no answer from the modem daemon");
    std::string text = trimmed({message->data, static_cast<size_t>(message->len)});
    if (result == 0) return text;
    throw Failure(nameOf(card), "the modem daemon refuses or is busy" + (text.empty() ? "" : ": " + text));
}

int send(const Arguments &arguments, Output &out) {
    if (arguments[0].find('\n') != std::string::npos) throw Usage{"TEXT holds a line feed"};
    const std::string answer = ask(arguments, arguments[0]);
    out.print(Record{{"card", cardOf(arguments)}, {"answer", answer}}, Plain::value);
    return statusDone;
}

int signal(const Arguments &arguments, Output &out) {
    const std::string answer = ask(arguments, "signal");
    int64_t dbm = 0;
    const auto [end, error] = std::from_chars(answer.data(), answer.data() + answer.size(), dbm);
    const bool isDbm = error == std::errc() && std::string_view(end) == " dBm";
    out.print(Record{{"card", cardOf(arguments)}, {"answer", answer}, {"dbm", isDbm ? Value(dbm) : Value()}},
              Plain::value);
    return statusDone;
}

int state(const Arguments &arguments, Output &out) {
    const int card = cardOf(arguments);
    const bool suspended = wwanmd_is_suspended(card) == 1;
    const bool reset = wwanmd_in_reset(card) == 1;
    const bool answers = !reset && open(card) != nullptr;
    out.print(Record{{"card", card}, {"daemon", answers}, {"reset", reset}, {"suspended", suspended}}, Plain::fields);
    return statusDone;
}

constexpr Option options[] = {{0, "card", "N", "card, 0 to 5 or 10 to 15 (0)"}};
constexpr Option waitOptions[] = {{0, "wait", "SECONDS", "how long to wait for the answer, 5 to 300 (10)"}};
constexpr Argument text[] = {{"TEXT", Count::one}};

constexpr Verb verbs[] = {
    {"send", "send a command to the modem daemon and print its answer", waitOptions, text, send},
    {"signal", "print the signal strength", waitOptions, {}, signal},
    {"state", "print whether the daemon answers, and whether the card is in reset or suspended", {}, {}, state},
};

}  // namespace

const Command modemCommand{"modem", "modem daemons of the WWAN cards", options, verbs};

}  // namespace tool
