// SPDX-License-Identifier: MIT
#include "gateway/core/record.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

#include "gateway/core/json.h"

namespace vxgateway {

namespace {

constexpr std::array<const char *, 8> severities{"emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"};
constexpr std::array<const char *, 24> facilities{"kern",   "user",   "mail",   "daemon", "auth",     "syslog",
                                                  "lpr",    "news",   "uucp",   "cron",   "authpriv", "ftp",
                                                  "ntp",    "audit",  "alert",  "clock",  "local0",   "local1",
                                                  "local2", "local3", "local4", "local5", "local6",   "local7"};

}  // namespace

const std::string &Entry::field(std::string_view name) const {
    static const std::string none;
    const auto found = std::find_if(fields.begin(), fields.end(), [&](const Field &one) { return one.name == name; });
    return found == fields.end() ? none : found->value;
}

std::string Entry::json() const {
    Json object = Json::object();
    object.add("time", secondsText(time_us)).text("kind", kind);
    for (const Field &one : fields) object.add(one.name, one.isNumber ? one.value : jsonString(one.value));
    return object.done();
}

std::string secondsText(long long us) {
    std::array<char, 32> text;
    (void)std::snprintf(text.data(), text.size(), "%lld.%06lld", us / 1000000, us % 1000000);
    return text.data();
}

Entry logEntry(std::string_view datagram) {
    constexpr size_t timeLength = 16;
    while (!datagram.empty() && (datagram.back() == '\n' || datagram.back() == '\0')) datagram.remove_suffix(1);
    unsigned long priority = 13;  // user.notice, as for a datagram without one
    const size_t close = datagram.substr(0, 5).find('>');
    if (!datagram.empty() && datagram[0] == '<' && close != std::string_view::npos) {
        priority =
            std::strtoul(std::string(datagram.substr(1, close - 1)).c_str(), nullptr, 10) % (facilities.size() * 8);
        datagram.remove_prefix(close + 1);
        if (datagram.size() >= timeLength && datagram[3] == ' ' && datagram[timeLength - 1] == ' ')
            datagram.remove_prefix(timeLength);
    }
    Entry entry;
    entry.kind = "log";
    entry.line = std::string(severities[priority % 8]) + " " + std::string(datagram);
    std::string_view text = datagram;
    std::string_view identity;
    std::string_view pid;
    const size_t colon = text.find(": ");
    const size_t blank = text.find(' ');
    if (colon != std::string_view::npos && blank == colon + 1) {
        identity = text.substr(0, colon);
        text.remove_prefix(colon + 2);
        const size_t bracket = identity.find('[');
        if (bracket != std::string_view::npos && identity.back() == ']') {
            pid = identity.substr(bracket + 1, identity.size() - bracket - 2);
            identity = identity.substr(0, bracket);
        }
    }
    const bool isNumber = !pid.empty() && pid.size() < 10 &&
                          pid.find_first_not_of("0123456789") == std::string_view::npos && pid[0] != '0';
    entry.fields = {{"priority", severities[priority % 8]},
                    {"facility", facilities[priority / 8]},
                    {"identity", std::string(identity)},
                    {"pid", std::string(isNumber ? pid : "null"), true},
                    {"text", std::string(text)}};
    return entry;
}

}  // namespace vxgateway
