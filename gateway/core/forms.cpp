// SPDX-License-Identifier: MIT
#include "gateway/core/forms.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "gateway/core/wallclock.h"

namespace vxgateway {

namespace {

// Types of values that are whole numbers, with their limits, inclusive.
struct NumberType {
    std::string_view name;
    long long least;
    long long most;
};
constexpr std::array numberTypes{
    NumberType{"INPUT", 1, 200},        NumberType{"OUTPUT", 1, 200},        NumberType{"LEVEL", 0, 1},
    NumberType{"MS", 0, 600000},        NumberType{"COUNT", 0, 1000000},     NumberType{"PERCENT", 0, 100},
    NumberType{"SUPPLY", 1, 2},         NumberType{"MILLIVOLTS", 0, 100000}, NumberType{"RAW", 0, 65535},
    NumberType{"DBM", -140, 0},         NumberType{"ERRNO", 0, 4095},        NumberType{"ID", 0, 4294967295},
    NumberType{"PARAM", 0, 4294967295}, NumberType{"MIB", 1, 65536},         NumberType{"TIME", 0, 4102444800},
    NumberType{"LINES", 0, 200},
};

// One fixed word, or a choice of several.
bool isLiteral(std::string_view token) {
    return token[0] != '[' && std::strchr("ABCDEFGHIJKLMNOPQRSTUVWXYZ", token[0]) == nullptr;
}

std::vector<std::string_view> pieces(std::string_view text, char separator) {
    std::vector<std::string_view> found;
    while (!text.empty()) {
        const size_t end = std::min(text.find(separator), text.size());
        found.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return found;
}

std::string_view bare(std::string_view token) { return token[0] == '[' ? token.substr(1, token.size() - 2) : token; }

bool takesAll(std::string_view token) {
    return bare(token) == "TEXT" || bare(token) == "ANSWER" || bare(token) == "TIMES";
}

bool isTimes(const std::string &word) {
    for (const auto piece : pieces(word, ',')) {
        if (!number(std::string(piece), 0, 600000)) return false;
    }
    return !word.empty() && word.back() != ',';
}

// Nothing when the word is a value of this type; else what the type takes.
std::optional<std::string> refusal(std::string_view type, const Words &words, size_t at) {
    const std::string &word = words[at];
    const auto known =
        std::find_if(numberTypes.begin(), numberTypes.end(), [&](const NumberType &t) { return t.name == type; });
    if (known != numberTypes.end()) {
        if (number(word, known->least, known->most)) return std::nullopt;
        return "a whole number from " + std::to_string(known->least) + " to " + std::to_string(known->most);
    }
    if (type == "TIMES") {
        if (std::all_of(words.begin() + static_cast<std::ptrdiff_t>(at), words.end(), isTimes)) return std::nullopt;
        return "milliseconds apart by commas";
    }
    if (type == "ANSWER") {
        if (join(words, at, words.size()).find(" = ") != std::string::npos) return std::nullopt;
        return "COMMAND = ANSWER";
    }
    if (type == "KEY" || type == "NAME") {
        if (!word.empty() && word.find_first_of(" =") == std::string::npos && word.find("..") == std::string::npos)
            return std::nullopt;
        return "a name without blanks, '=' and '..'";
    }
    if (type == "SECONDS") {
        if (seconds(word)) return std::nullopt;
        return "seconds from 0 to 86400";
    }
    if (type == "WHEN") {
        if (clockMove(word)) return std::nullopt;
        return "real, +N or -N with s, m, h, d, w or y, YYYY-MM-DDThh:mm:ss or @SECONDS";
    }
    return word.empty() ? std::optional<std::string>("a text") : std::nullopt;
}

bool fits(std::string_view token, const std::string &word) {
    for (const auto choice : pieces(token, '|')) {
        if (choice == word) return true;
    }
    return false;
}

bool startsOrder(const std::string &word) {
    return std::any_of(forms().begin(), forms().end(), [&](const Form &form) {
        return form.group == Group::order && fits(pieces(form.syntax, ' ')[0], word);
    });
}

struct Candidate {
    const Form *form;
    std::vector<std::string_view> tokens;
};

std::string expected(const std::vector<Candidate> &candidates, size_t at) {
    std::vector<std::string> names;
    for (const Candidate &candidate : candidates) {
        if (at >= candidate.tokens.size()) continue;
        for (const auto name : pieces(bare(candidate.tokens[at]), '|')) {
            if (std::find(names.begin(), names.end(), name) == names.end()) names.emplace_back(name);
        }
    }
    std::string text;
    for (size_t i = 0; i < names.size(); ++i) text += (i == 0 ? "" : i + 1 == names.size() ? " or " : ", ") + names[i];
    return text;
}

}  // namespace

const std::vector<Form> &forms() {
    static const std::vector<Form> table{
        {Group::order, "input INPUT LEVEL", "moves a digital input"},
        {Group::order, "pulse INPUT COUNT", "gives a digital input this many pulses"},
        {Group::order, "voltage SUPPLY MILLIVOLTS", "sets a supply voltage"},
        {Group::order, "converter RAW", "sets the raw value of the analog converter"},
        {Group::order, "usb in|out", "puts a USB disk in, or takes it out"},
        {Group::order, "sd in|out", "puts an SD card in, or takes it out"},
        {Group::order, "disk fill|free data|usb|log|status", "fills a file system to its last byte, or frees it again"},
        {Group::order, "wan cut|restore", "pulls the cable of the WAN link, or plugs it in"},
        {Group::order, "wan lose|carry", "the line loses all packets, or carries them"},
        {Group::order, "wan loss PERCENT", "the line loses this share of the packets, spread evenly"},
        {Group::order, "wan delay MS", "the line takes this time, each way"},
        {Group::order, "wan route|noroute", "sets a route to the target, or removes it"},
        {Group::order, "modem signal DBM", "the modem answers \"signal\" with this strength"},
        {Group::order, "modem reset|suspend on|off", "the modem's card is in reset, or suspended"},
        {Group::order, "modem ok|error|raw [TEXT]", "answers commands with OK, ERROR or nothing, and the text"},
        {Group::order, "modem fill COUNT", "answers commands with this many bytes"},
        {Group::order, "modem echo|silent|drop|deaf|clog|normal|hangup|sync|die", "as wwanmd --help says"},
        {Group::order, "modem on ANSWER", "answers one command its own way: modem on signal = OK -67 dBm"},
        {Group::order, "modem busy COUNT [TEXT]", "says BUSY this many times before each answer"},
        {Group::order, "modem busyfor MS [TEXT]", "says BUSY once, answers this much later"},
        {Group::order, "modem late MS", "answers late"},
        {Group::order, "modem times TIMES", "answers several times, after these milliseconds"},
        {Group::order, "modem pieces COUNT", "answers in pieces of this many bytes"},
        {Group::order, "modem handshake ok|error|silent|busy", "answers new connections so"},
        {Group::order, "modem stale TEXT", "sends a text unasked"},
        {Group::order, "config set KEY [TEXT]", "changes a configuration value"},
        {Group::order, "config normal|silent|short|long|wrong|empty|deaf|restart", "as configd --help says"},
        {Group::order, "config late MS", "answers late"},
        {Group::order, "config times TIMES", "answers several times, after these milliseconds"},
        {Group::order, "config raw TEXT", "answers with this text"},
        {Group::order, "config pieces COUNT", "sends an answer as datagrams of this many bytes"},
        {Group::order, "config mute [KEY]", "never answers requests for this key; without: answers all again"},
        {Group::order, "config busy [COUNT]", "answers commits with Busy"},
        {Group::order, "config die [COUNT]", "dies at the request of this number from now, without a number at once"},
        {Group::order, "config trace on|off", "notes requests and answers in the peer's log"},
        {Group::order, "board text KEY TEXT", "has a file (din1/value, din1/frequency, dout1/value) read as this text"},
        {Group::order, "board gone|unclosable KEY", "has no such file; fails to close it"},
        {Group::order, "board refuse KEY ERRNO", "fails writes to the file with this error number"},
        {Group::order, "board frequency INPUT COUNT COUNT COUNT", "sets the three numbers of a pulse counter"},
        {Group::order, "board inputs|outputs LINES", "has this many inputs, outputs"},
        {Group::order, "board in INPUT LEVEL", "moves a digital input"},
        {Group::order, "board pulse INPUT COUNT", "gives a digital input this many pulses"},
        {Group::order, "board normal", "forgets text, gone, refuse and unclosable"},
        {Group::order, "manager hold|resume|away|remove|make", "the event manager, as eventmanager --help says"},
        {Group::order, "clock WHEN", "sets the programs' clock: +2y, -30m, 2028-02-29T23:59:59 (UTC) or @SECONDS"},
        {Group::order, "clock real", "the programs' clock is the machine's again"},
        {Group::order, "sms receive NUMBER TEXT", "a short message comes in"},
        {Group::order, "start|stop|kill config|modem|events|board|wan", "a peer is started, ended, killed"},
        {Group::order, "program signal HUP|INT|TERM|KILL|STOP|CONT|USR1|USR2", "signals the program under test"},
        {Group::order, "program descriptors COUNT", "the program may have this many descriptors from now on"},
        {Group::order, "program memory MIB", "the program may have this much address space from now on"},
        {Group::order, "scenario play NAME", "plays a scenario of the catalogue, or of a file (a name with a '/')"},
        {Group::order, "scenario stop", "ends the scenario that is being played"},
        {Group::order, "note TEXT", "notes a text in the record"},
        {Group::query, "show", "everything below at once"},
        {Group::query, "status [NAME]", "the status tree, or one value of it"},
        {Group::query, "events", "what the event manager got"},
        {Group::query, "log", "what the system log got"},
        {Group::query, "devlog", "the device log, the newest line first"},
        {Group::query, "sms", "short messages sent"},
        {Group::query, "power", "reboots that were asked for"},
        {Group::query, "inputs", "levels of the digital inputs"},
        {Group::query, "outputs", "changes of the digital outputs; with --json their levels too"},
        {Group::query, "clock", "the programs' clock and how far it is ahead of the machine's"},
        {Group::query, "config list", "the configuration store"},
        {Group::query, "config get KEY", "one value of it, from the daemon"},
        {Group::query, "config requests", "how many requests the configuration daemon got"},
        {Group::query, "manager count", "how many events the event manager read"},
        {Group::query, "peers", "the gateway's peers"},
        {Group::query, "scenario", "the scenario that was played last, line by line, always as JSON"},
        {Group::query, "scenario list", "the catalogue of scenarios"},
        {Group::query, "record", "everything noted since the start, with times"},
        {Group::query, "now", "seconds since the gateway's start, for wait --since"},
        {Group::query, "watch", "prints the record as it grows, until it is ended"},
        {Group::query, "watch last COUNT", "the same, after its newest entries"},
        {Group::wait, "wait", "waits for a condition: wait CONDITION [--for S] [--since TIME]"},
        {Group::condition, "status NAME TEXT", "the status value is this text"},
        {Group::condition, "event ID [PARAM]", "the event manager got this event"},
        {Group::condition, "output OUTPUT LEVEL", "the digital output has this level"},
        {Group::condition, "log TEXT", "a line of the system log matches this regular expression (POSIX, extended)"},
        {Group::condition, "sms TEXT", "a short message that was sent matches"},
        {Group::condition, "power TEXT", "a reboot or power-off was asked for whose line matches"},
        {Group::condition, "program running|ended", "the program under test runs, has ended"},
        {Group::internal, "deliver sms|power TEXT", "said by the gateway's scripts"},
    };
    return table;
}

std::optional<Problem> check(Group group, const Words &words, size_t first) {
    for (size_t i = first; i < words.size(); ++i) {
        // A peer takes one order a line.
        if (words[i].find_first_of(std::string("\n\r\0", 3)) != std::string::npos)
            return Problem{i, "a line feed in a word"};
    }
    std::vector<Candidate> left;
    for (const Form &form : forms()) {
        if (form.group == group) left.push_back({&form, pieces(form.syntax, ' ')});
    }
    for (size_t at = 0; first + at < words.size(); ++at) {
        const std::string &word = words[first + at];
        std::vector<Candidate> still;
        std::string wanted;
        for (const Candidate &candidate : left) {
            if (at >= candidate.tokens.size()) continue;
            const std::string_view token = candidate.tokens[at];
            if (isLiteral(token)) {
                if (fits(token, word)) still.push_back(candidate);
                continue;
            }
            const auto problem = refusal(bare(token), words, first + at);
            if (!problem) {
                if (takesAll(token)) return std::nullopt;
                still.push_back(candidate);
            } else {
                wanted = std::string(bare(token)) + " is " + *problem;
            }
        }
        if (still.empty()) {
            const std::string words_expected = expected(left, at);
            if (words_expected.empty()) return Problem{first + at, "nothing can follow here: '" + word + "'"};
            if (!wanted.empty()) return Problem{first + at, wanted.append(", not '").append(word).append("'")};
            return Problem{first + at,
                           std::string("unknown word '").append(word).append("', expected ").append(words_expected)};
        }
        left = std::move(still);
    }
    const size_t count = words.size() - first;
    const bool complete = std::any_of(left.begin(), left.end(), [&](const Candidate &candidate) {
        return candidate.tokens.size() == count || candidate.tokens[count][0] == '[';
    });
    if (complete) return std::nullopt;
    return Problem{words.size(), "missing: " + expected(left, count)};
}

Group groupOf(const Words &words) {
    if (words.empty()) return Group::order;
    // Words that orders and queries share are told apart by the second one.
    for (const Group group : {Group::query, Group::internal}) {
        for (const Form &form : forms()) {
            if (form.group != group) continue;
            const auto tokens = pieces(form.syntax, ' ');
            if (!fits(tokens[0], words[0])) continue;
            if (tokens.size() > 1 && isLiteral(tokens[1])) {
                if (words.size() > 1 && fits(tokens[1], words[1])) return group;
                continue;
            }
            if (words.size() == 1 || !startsOrder(words[0])) return group;
        }
    }
    return words[0] == "wait" ? Group::wait : Group::order;
}

std::optional<long long> number(const std::string &text, long long least, long long most) {
    const size_t digits = !text.empty() && text[0] == '-' ? 1 : 0;
    if (text.size() == digits || text.size() > 12 || text.find_first_not_of("0123456789", digits) != std::string::npos)
        return std::nullopt;
    // One spelling for each number: words are kept and handed on as they are.
    if (text[digits] == '0' && text.size() > 1) return std::nullopt;
    const long long value = std::strtoll(text.c_str(), nullptr, 10);
    if (value < least || value > most) return std::nullopt;
    return value;
}

std::optional<double> seconds(const std::string &text) {
    const size_t point = std::min(text.find('.'), text.size());
    if (point == 0 || text.size() > 10 || text.find_first_not_of("0123456789.") != std::string::npos)
        return std::nullopt;
    if (point < text.size() &&
        (text.size() - point > 4 || text.size() - point == 1 || text.find('.', point + 1) != std::string::npos)) {
        return std::nullopt;
    }
    const double value = std::strtod(text.c_str(), nullptr);
    return value <= 86400 ? std::optional(value) : std::nullopt;
}

std::string join(const Words &words, size_t first, size_t last) {
    std::string text;
    for (size_t i = first; i < last; ++i) text += (i == first ? "" : " ") + words[i];
    return text;
}

Words split(const std::string &line) {
    Words words;
    for (const auto piece : pieces(line, ' ')) {
        if (!piece.empty()) words.emplace_back(piece);
    }
    return words;
}

}  // namespace vxgateway
