// SPDX-License-Identifier: MIT
#include <unistd.h>
#include <vxutils/adc.h>
#include <vxutils/cellular.h>
#include <vxutils/hardware.h>
#include <vxutils/storage.h>

#include <cmath>
#include <cstdlib>
#include <string>

#include "support/board.h"
#include "support/files.h"
#include "torture/faults.h"

using torture::Run;

namespace {

const std::string hwmon = "/sys/bus/i2c/devices/0-0058/da9063-hwmon/hwmon/hwmon0/";

void prepareOnce() {
    static const bool done = [] {
        vxtest::prepareBoardFiles();
        vxtest::writeFile("/proc/sysinfo/qxhw", "18\n");
        vxtest::writeFile("/proc/sysinfo/bd/0/prod_name", "7\n");
        vxtest::writeFile("/proc/sysinfo/bd/1/prod_variant", "0\n");
        vxtest::writeFile("/proc/sysinfo/usbport0/usbName", "1-1\n");
        vxtest::writeFile("/etc/oem/oem.conf", "ProductType=router\nProductType.QX7=gateway\n");
        vxtest::writeFile("/sys/bus/iio/devices/iio:device0/in_voltage_scale", "2\n");
        vxtest::writeFile("/sys/bus/iio/devices/iio:device0/in_voltage0_raw", "100\n");
        vxtest::writeFile(hwmon + "in1_input", "1\n");
        vxtest::writeFile("/dev/sim", "");
        vxtest::writeFile("/tmp/torture.raw", "100\n");
        [[maybe_unused]] const int status = std::system("rm -rf /sys/class/block/*");
        const std::string block = "/sys/class/block/";
        return ::symlink("../../devices/platform/soc/mmc_host/mmc0/block/mmcblk0/mmcblk0p3",
                         (block + "mmcblk0p3").c_str()) == 0 &&
               ::symlink("../../devices/platform/soc/usb1/1-1/block/sda", (block + "sda").c_str()) == 0;
    }();
    if (!done) std::abort();
}

void identify(Run &run) {
    prepareOnce();
    const std::string product = run([] { return get_product(); });
    // A file that cannot be read is an empty text, or leaves the next best name.
    run.outcome("get_product", product == "gateway",
                product == "router" || product.empty() || product.rfind("QX", 0) == 0);
    const std::string value = run([] { return oem("ProductType"); });
    run.outcome("oem", value == "router", value.empty());
    const int variant = run([] { return get_extension_variant(); });
    run.outcome("get_extension_variant", variant == 0, variant == -1);
    const int maintenance = run([] { return in_maintenance(); });
    run.always("in_maintenance", maintenance == 0);
    const int powered = run([] { return has_poe(); });
    run.outcome("has_poe", powered == 1, powered == 0);
    const int holder = run([] { return has_sim_holder(); });
    run.outcome("has_sim_holder", holder == 1, holder == 0);
    const int generation = run([] { return qxhw(); });
    run.outcome("qxhw", generation == 18, generation == -1 || generation == 1);
}

void converter(Run &run) {
    prepareOnce();
    float value = 7;
    const int read =
        run([&] { return adc_read("/tmp/torture.raw", "/sys/bus/iio/devices/iio:device0/in_voltage_scale", &value); });
    run.outcome("adc_read", read == 0 && value == 200.0F, (read == -1 && value == 0.0F) || run.wasShort());

    const int supported = run([] { return qxalpha_adc_supported(); });
    run.outcome("qxalpha_adc_supported", supported == 1, supported == 0);
    const auto board = [&](const char *what, auto reading, float expected) {
        value = 7;
        const int result = run([&] { return reading("/tmp/torture.raw", &value); });
        run.outcome(what, result == 0 && std::abs(value - expected) < 0.01F,
                    (result == -1 && value == 0.0F) || run.wasShort());
    };
    board("qxalpha_adc_read", qxalpha_adc_read, 6075.8F);
    board("qxbeta_adc_read", qxbeta_adc_read, 2856.1F);
    board(
        "qxgamma_adc_read", [](const char *path, float *volts) { return qxgamma_adc_read(path, volts, 3); }, 300);
    const std::string input = run([] { return qxdelta_get_adc_vin_path(1); });
    run.outcome("qxdelta_get_adc_vin_path", input == hwmon + "in1_input", input.empty(), "D9063");
}

void storage(Run &run) {
    prepareOnce();
    storage_list *list = run([] { return old_get_storage(0); });
    // Entries that there is no memory for, or whose link cannot be read, are left out.
    run.outcome("old_get_storage", list != nullptr && list->count == 2, list == nullptr || list->count < 2);
    if (list != nullptr && !run.disturbed()) {
        const storage_entry *const usb = run([&] { return old_get_storage_device(list, 16, 0); });
        run.always("old_get_storage_device", usb != nullptr && std::string(usb->device) == "sda");
    }
    run([&] { old_free_storage(list); });
    std::free(list);
}

void provider(Run &run) {
    vxtest::writeFile("/usr/bin/pdb", "#!/bin/sh\necho 'provider: Some Net'\n");
    static const bool executable = std::system("chmod 755 /usr/bin/pdb") == 0;
    run.always("the tool is there", executable);
    const std::string name = run([] { return pdb_find_provider("26201"); });
    run.outcome("pdb_find_provider", name == "Some Net", name.empty());
}

}  // namespace

int main(int argc, char **argv) {
    return torture::torment(argc, argv,
                            {{"hardware: identify", identify},
                             {"adc: read", converter},
                             {"storage: list", storage},
                             {"cellular: provider", provider}});
}
