// SPDX-License-Identifier: MIT
// Takes lines "key = value" apart and prints them as a table: what String is used for all day.
#include <stdio.h>
#include <vxutils/vxstring.h>

namespace {

struct Setting {
    String key;
    String value;
};

// False for a line without "=".
bool parse(const String &line, Setting &setting) {
    const long equals = line.indexOf('=');
    if (equals < 0) return false;
    setting.key = line.substring(0, equals);
    setting.key.trim();
    setting.key.toUpperCase();
    setting.value = line.substring(equals + 1);
    setting.value.trim();
    return true;
}

String describe(const Setting &setting) {
    String line;
    line.format("%-10s %s", setting.key.c_str(), setting.value.c_str());
    if (setting.key.endsWith("APN")) line.concatf(" (length %d)", static_cast<int>(setting.value.length()));
    return line;
}

}  // namespace

int main() {
    const char *const lines[] = {"hostname = gateway", "# a comment", "wan.mtu=1500", "wan.apn =  internet.example  "};
    int count = 0;
    String mtu;
    for (const char *line : lines) {
        Setting setting;
        if (!parse(line, setting)) continue;
        ++count;
        if (setting.key == "WAN.MTU") mtu = setting.value;  // shares the text, copies nothing
        puts(describe(setting).c_str());
    }
    printf("%d settings, MTU in hexadecimal 0x%x\n", count, static_cast<unsigned int>(mtu.toInteger()));
    return 0;
}
