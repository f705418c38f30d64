// SPDX-License-Identifier: MIT
#include <vxutils/hardware.h>

#include <unistd.h>
#include <vxutils/file.h>
#include <vxutils/strutil.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "vxutils/hardware_oem_file.h"
#include "vxutils/internal/guarded_open.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/number.h"

namespace {

constexpr const char *generationFile = "/proc/sysinfo/qxhw";
constexpr const char *productNameFile = "/proc/sysinfo/bd/0/prod_name";
constexpr const char *extensionVariantFile = "/proc/sysinfo/bd/1/prod_variant";
constexpr const char *oemFile = "/etc/oem/oem.conf";
constexpr const char *simDevice = "/dev/sim";
constexpr const char *progressMarkers[] = {
    "/tmp/progress/swupdate",        "/tmp/progress/bdupdate",      "/tmp/progress/fwupdate", "/tmp/progress/config",
    "/tmp/progress/switch-software", "/tmp/progress/switch-config", "/tmp/progress/sshkeys",
};

constexpr int unknown = -1;
constexpr int generationWithPoe = 18;
constexpr size_t textSize = 1024;
constexpr size_t productSize = 128;
constexpr size_t productKeySize = 31;

int generation = unknown;
char oemValue[vx::oemLineSize];
char product[productSize];

using Text = std::array<char, textSize>;

bool readable(const char *path) { return ::access(path, R_OK) == 0; }

}  // namespace

namespace vx {

bool findOemValue(FILE *file, std::string_view key, char *value) {
    std::array<char, oemLineSize + 1> line;
    while (std::fgets(line.data(), line.size(), file) != nullptr) {
        std::string_view text = line.data();
        if (text.ends_with('\n')) text.remove_suffix(1);
        if (!text.starts_with(key) || text.substr(key.size(), 1) != "=") continue;
        text.remove_prefix(key.size() + 1);
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
        std::memcpy(value, text.data(), text.size());
        value[text.size()] = '\0';
        return true;
    }
    return false;
}

}  // namespace vx

extern "C" {

int qxhw(void) {
    if (generation != unknown) return generation;
    Text buffer;
    const char *text = readfile_r(generationFile, buffer.data(), buffer.size());
    if (*text != '\0') generation = vx::toInt(text);
    return generation;
}

const char *oem(const char *key) {
    const vx::FilePtr file(key != nullptr ? std::fopen(oemFile, "re") : nullptr);
    // The buffer is emptied last: the key may be what the last call returned.
    if (!file || !vx::findOemValue(file.get(), key, oemValue)) oemValue[0] = '\0';
    return oemValue;
}

// Quirk Q88.
const char *get_product(void) {
    Text buffer;
    const char *name = readfile_r(productNameFile, buffer.data(), buffer.size());
    if (!readable(oemFile)) {
        std::snprintf(product, sizeof product, "QX%s", name);
        return product;
    }
    std::array<char, productKeySize> key;
    std::snprintf(key.data(), key.size(), "ProductType.QX%s", name);
    const char *value = oem(key.data());
    if (*value == '\0') value = oem("ProductType");
    strlcpy(product, value, sizeof product);
    return product;
}

int get_extension_variant(void) {
    Text buffer;
    const char *text = readfile_r(extensionVariantFile, buffer.data(), buffer.size());
    return *text != '\0' ? vx::toInt(text) : unknown;
}

int has_poe(void) { return qxhw() == generationWithPoe && get_extension_variant() == 0 ? 1 : 0; }

int has_sim_holder(void) { return readable(simDevice) ? 1 : 0; }

int in_maintenance(void) {
    // /tmp/progress may have been made by any user.
    const auto present = [](const char *marker) { return readable(marker) && vx::isBelievable(marker); };
    return std::any_of(std::begin(progressMarkers), std::end(progressMarkers), present) ? 1 : 0;
}

}  // extern "C"
