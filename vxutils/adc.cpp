// SPDX-License-Identifier: MIT
#include <vxutils/adc.h>

#include <locale.h>  // newlocale
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/file.h>
#include <vxutils/strutil.h>

#include <array>
#include <cstdio>
#include <cstdlib>  // strtod_l

#include "vxutils/internal/log.h"
#include "vxutils/internal/number.h"

namespace {

constexpr const char *alphaRawFile = "/sys/bus/iio/devices/iio:device0/in_voltage0_raw";
constexpr const char *alphaScaleFile = "/sys/bus/iio/devices/iio:device0/in_voltage_scale";
constexpr double alphaFactor = 30.379;
constexpr double betaFactor = 28.561;

constexpr const char *deltaPath = "/sys/bus/i2c/devices/0-0058/da9063-hwmon/hwmon/hwmon%d/in%d_input";
constexpr int deltaInputs = 2;
constexpr int monitors = 10;
constexpr size_t deltaPathSize = 128;

constexpr size_t textSize = 128;

// Where one input's file was found; empty at first.
char deltaFound[deltaInputs][deltaPathSize];

bool isRegularFile(const char *path, bool &exists) {
    struct stat status {};
    exists = ::lstat(path, &status) == 0;
    return exists && S_ISREG(status.st_mode);
}

// Reads a factor as drivers write it, with a decimal point. The program's locale may have a comma there. The C library
// has the "C" locale ready: asking for it allocates nothing and cannot fail.
double toFactor(const char *text) {
    const locale_t cLocale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    const double factor = ::strtod_l(text, nullptr, cLocale);
    ::freelocale(cLocale);
    return factor;
}

// Multiplies what a converter gave by the board's factor, which leaves a failure's 0 as it is.
int multiplied(int result, float *value, double factor) {
    if (value != nullptr) *value = static_cast<float>(static_cast<double>(*value) * factor);
    return result;
}

}  // namespace

extern "C" {

int adc_read(const char *raw_path, const char *scale_path, float *value) {
    if (value != nullptr) *value = 0;
    if (value == nullptr || raw_path == nullptr) return -1;
    std::array<char, textSize> buffer;
    const char *text = readfile_r(raw_path, buffer.data(), buffer.size());
    if (*text == '\0') return -1;
    const int raw = vx::toInt(text);
    if (raw < 0) return -1;
    double factor = 1;
    if (scale_path != nullptr) {
        text = readfile_r(scale_path, buffer.data(), buffer.size());
        if (*text == '\0') return -1;
        factor = toFactor(text);
    }
    *value = static_cast<float>(raw * factor);
    return 0;
}

int qxalpha_adc_supported(void) { return ::access(alphaRawFile, R_OK) == 0 ? 1 : 0; }

int qxalpha_adc_read(const char *path, float *value) {
    return multiplied(adc_read(path, alphaScaleFile, value), value, alphaFactor);
}

int qxbeta_adc_read(const char *path, float *value) {
    return multiplied(adc_read(path, nullptr, value), value, betaFactor);
}

int qxgamma_adc_read(const char *path, float *value, float factor) {
    return multiplied(adc_read(path, nullptr, value), value, static_cast<double>(factor));
}

const char *qxdelta_get_adc_vin_path(int input) {
    if (input < 1 || input > deltaInputs) return nullptr;
    char *found = deltaFound[input - 1];
    found[0] = '\0';
    for (int monitor = 0; monitor < monitors; ++monitor) {
        std::array<char, deltaPathSize> path;
        std::snprintf(path.data(), path.size(), deltaPath, monitor, input);
        bool exists = false;
        if (isRegularFile(path.data(), exists)) {
            strlcpy(found, path.data(), deltaPathSize);
            return found;
        }
        if (exists) {
            vx::log(LOG_ERR, "D9063 Module error. The %s exists, but it is not a regular file.", path.data());
        }
    }
    vx::log(LOG_ERR,
            "D9063 Module error. No file under the assumption "
            "/sys/bus/i2c/devices/0-0058/da9063-hwmon/hwmon/*/in%d_input was found.",
            input);
    return found;
}

}  // extern "C"
