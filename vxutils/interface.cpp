// SPDX-License-Identifier: MIT
#include <vxutils/interface.h>

#include <dirent.h>
#include <unistd.h>
#include <vxutils/file.h>
#include <vxutils/strutil.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "vxutils/interface_bridge.h"
#include "vxutils/internal/guarded_open.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/shell_output.h"

namespace {

constexpr const char *linkDirectory = "/tmp/status/link-manager";
constexpr const char *hotLink = "/tmp/status/link-manager/hotlink";
constexpr char linkStateFormat[] = "/tmp/status/link-manager/%s/state";
constexpr char wlanModeFormat[] = "/tmp/status/wlan/status-wlan%d";
constexpr const char *secondWlanModule = "/proc/sysinfo/wlan1/type";
constexpr const char *bridgeTool = "/usr/sbin/brctl show 2> /dev/null";

constexpr size_t prefixSize = 14;
constexpr size_t digits = 6;
constexpr size_t displaySize = 15;
constexpr size_t statusSize = 1024;
constexpr size_t toolLineLength = 1023;

// A name taken apart; no number is a count of 0 digits.
struct InterfaceName {
    std::array<char, prefixSize + 1> prefix{};
    size_t prefixLength = 0;
    int number = 0;
    size_t numberDigits = 0;
    int subNumber = 0;
    size_t subNumberDigits = 0;
    size_t length = 0;

    std::string_view text() const { return {prefix.data(), prefixLength}; }
};

void addDigit(char digit, int &number, size_t &count) {
    if (count == digits) return;
    number = number * 10 + (digit - '0');
    ++count;
}

InterfaceName takeApart(const char *name) {
    InterfaceName parts;
    bool dashSeen = false;
    const char *next = name;
    for (; *next != '\0'; ++next) {
        if (*next == '-') {
            dashSeen = true;
        } else if (*next >= '0' && *next <= '9') {
            if (dashSeen) {
                addDigit(*next, parts.subNumber, parts.subNumberDigits);
            } else {
                addDigit(*next, parts.number, parts.numberDigits);
            }
        } else if (parts.numberDigits == 0 && parts.prefixLength < prefixSize) {
            parts.prefix[parts.prefixLength++] = *next;
        }
    }
    parts.length = static_cast<size_t>(next - name);
    return parts;
}

// The static buffer, filled from its beginning and cut at its end.
class Display {
public:
    Display &operator<<(std::string_view text) {
        const size_t taken = std::min(text.size(), displaySize - length_);
        std::memcpy(buffer_.data() + length_, text.data(), taken);
        length_ += taken;
        buffer_[length_] = '\0';
        return *this;
    }
    Display &operator<<(int number) {
        std::array<char, displaySize> text;
        const auto end = std::to_chars(text.data(), text.data() + text.size(), number).ptr;
        return *this << std::string_view(text.data(), static_cast<size_t>(end - text.data()));
    }
    const char *text() const { return buffer_.data(); }

private:
    static std::array<char, displaySize + 1> buffer_;
    size_t length_ = 0;
};

std::array<char, displaySize + 1> Display::buffer_;

// Text of a status file, empty when it cannot be read or a stranger may have made it.
class StatusText {
public:
    explicit StatusText(const char *path) {
        if (vx::isBelievable(path)) text_ = readfile_r(path, buffer_.data(), buffer_.size());
    }
    StatusText(const StatusText &) = delete;
    StatusText &operator=(const StatusText &) = delete;

    bool empty() const { return text_.empty(); }
    bool startsWith(std::string_view text) const { return text_.starts_with(text); }

private:
    std::array<char, statusSize> buffer_;
    std::string_view text_;
};

// One more for a WLAN module that is access point and something else at once.
int wlanModeOffset(int number) {
    std::array<char, sizeof wlanModeFormat + digits> path;
    std::snprintf(path.data(), path.size(), wlanModeFormat, number);
    const StatusText mode(path.data());
    return mode.startsWith("dualmode") || mode.startsWith("mesh-ap") ? 1 : 0;
}

void displayWlan(Display &display, std::string_view prefix, const InterfaceName &name) {
    const int sub = name.subNumber + wlanModeOffset(name.number);
    if (StatusText(secondWlanModule).empty()) {
        display << prefix << sub + 1;
    } else {
        display << prefix << name.number + 1 << "-" << sub;
    }
}

// Quirk Q79.
void displayPpp(Display &display, const InterfaceName &name) {
    constexpr int firstSerial = 10;
    constexpr int lastSerial = 19;
    constexpr size_t firstPppoe = 20;
    if (name.number >= firstSerial && name.number <= lastSerial) {
        display << "SERIAL" << name.number - 9;
    } else if (name.length - firstPppoe <= 9) {  // the length of the name, not its number; shorter names wrap around
        display << "PPPOE" << name.number - 19;
    } else {
        display << "PPP" << name.number + 1;
    }
}

}  // namespace

const char *interfaceize(const char *name) {
    if (name == nullptr || *name == '\0') return "";
    InterfaceName parts = takeApart(name);
    const bool ppp = parts.text() == "ppp";
    const bool gre = parts.text() == "gretun";
    const bool wlan = parts.text().starts_with("wlan");
    const std::string_view prefix(strtoupper(parts.prefix.data()), parts.prefixLength);

    Display display;
    if (parts.numberDigits == 0) {
        display << prefix;
    } else if (ppp) {
        displayPpp(display, parts);
    } else if (gre) {
        display << "GRE" << parts.number + 1;
    } else if (parts.subNumberDigits == 0) {
        display << prefix << parts.number + 1;
    } else if (wlan) {
        displayWlan(display, prefix, parts);
    } else {
        display << prefix << parts.number + 1 << "-" << parts.subNumber + 1;
    }
    return display.text();
}

int wanlink_is_up(void) { return access(hotLink, R_OK) == 0 && vx::isBelievable(hotLink) ? 1 : 0; }

int wanlink_count(void) {
    const vx::DirPtr directory(opendir(linkDirectory));
    if (directory == nullptr) return 0;
    int count = 0;
    while (const dirent *entry = readdir(directory.get())) {
        if (!std::string_view(entry->d_name).starts_with("wanlink")) continue;
        std::array<char, sizeof linkStateFormat + sizeof entry->d_name> path;
        std::snprintf(path.data(), path.size(), linkStateFormat, entry->d_name);
        const StatusText state(path.data());
        if (!state.empty() && !state.startsWith("disabled")) ++count;
    }
    return count;
}

// Quirk Q80.
int bridge_members(const char *bridge, char *buffer, size_t size) {
    if (bridge == nullptr || *bridge == '\0' || buffer == nullptr || size == 0) return -1;
    *buffer = '\0';
    vx::ShellOutput tool(bridgeTool);
    if (!tool.running()) return -1;

    vx::BridgeTable table(bridge);
    const size_t room = size - 1;
    size_t total = 0;
    while (const auto line = tool.nextLine(toolLineLength)) {
        const std::string_view member = table.member(*line);
        if (member.empty()) continue;
        const size_t used = std::min(total, room);
        std::snprintf(buffer + used, room - used, "%.*s ", static_cast<int>(member.size()), member.data());
        total += member.size() + 1;
    }
    return static_cast<int>(total);
}
