// SPDX-License-Identifier: MIT
#include <vxutils/cellular.h>

#include <vxutils/strutil.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "vxutils/internal/handles.h"
#include "vxutils/internal/shell_output.h"

namespace {

struct Technology {
    const char *name;
    int generation;
};
constexpr Technology technologies[] = {
    {"CSD", 2},  {"GPRS", 2},  {"EDGE", 2}, {"UMTS", 3}, {"HSDPA", 3}, {"HSUPA", 3},
    {"HSPA", 3}, {"HSPA+", 3}, {"CDMA", 3}, {"LTE", 4},  {"ENDC", 5},  {"5G", 5},
};

struct Family {
    std::string_view prefix;
    int code;
};
// In the modem daemon's order: "mc509" is after "mc" and is never reached.
constexpr Family families[] = {
    {"gtm", 0x10001},  {"mc", 0x20002},     {"em", 0x40004},       {"me", 0x80004},
    {"mu", 0x80004},   {"mc509", 0x100004}, {"mpn", 0x200008},     {"mpl", 0x200008},
    {"trm", 0x400010}, {"sim", 0x800020},   {"tobyl2", 0x1000040}, {"laral6", 0x4000040},
    {"fn", 0x2000080}, {"le", 0x2000080},   {"lm", 0x2000080},     {"ln", 0x2000080},
};

constexpr const char *providerCommand = "/usr/bin/pdb -n %s";
constexpr std::string_view providerKey = "provider:";
constexpr size_t providerLineLength = 1024;

char provider[64];

// Tells what may become part of a command; not by the locale's notion of a letter. A word that begins with a dash would
// be an option of the tool.
bool isNetworkText(std::string_view text) {
    constexpr std::string_view allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789 .-_+";
    if (text.find_first_not_of(allowed) != std::string_view::npos) return false;
    return !text.starts_with('-') && text.find(" -") == std::string_view::npos;
}

// Reads the tool's output up to the line that names the provider.
// Quirk Q90.
void readProvider(vx::ShellOutput &output) {
    while (const auto line = output.nextLine(providerLineLength)) {
        if (!line->starts_with(providerKey)) continue;
        // The name begins with the second character after the colon; there may be none.
        std::array<char, providerLineLength + 1> name{};
        line->substr(std::min(providerKey.size() + 1, line->size())).copy(name.data(), providerLineLength);
        strlcpy(provider, stripwhite(name.data()), sizeof provider);
        return;
    }
}

}  // namespace

extern "C" {

int get_generation(const char *technology) {
    if (technology == nullptr) return -1;
    for (const Technology &one : technologies) {
        if (stricmp(technology, one.name) == 0) return one.generation;
    }
    return -1;
}

// Quirk Q89.
int card2family(const char *module) {
    if (module == nullptr) return 0;
    const std::string_view name = module;
    for (const Family &one : families) {
        if (name.starts_with(one.prefix)) return one.code;
    }
    return 0;
}

const char *pdb_find_provider(const char *network) {
    if (network == nullptr || *network == '\0') return nullptr;
    // The command is complete before the buffer is emptied: the network may be what the last call returned.
    char *command = nullptr;
    const bool made = isNetworkText(network) && ::asprintf(&command, providerCommand, network) != -1;
    provider[0] = '\0';
    if (!made) return provider;
    const vx::MallocText owner(command);
    vx::ShellOutput output(command);
    if (output.running()) readProvider(output);
    return provider;
}

}  // extern "C"
