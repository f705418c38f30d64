// SPDX-License-Identifier: MIT
// port_settings FILE: settings of the ports. The file brings the defaults, the configuration daemon what differs from
// them.
#include <vxutils/configdaemonclient.h>
#include <vxutils/configreader.h>

#include <cstdio>

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: port_settings FILE\n");
        return 2;
    }
    ConfigReader defaults;
    if (!defaults.initialize(argv[1], 64)) return 1;
    const ConfigDaemonClient daemon;

    const long count = defaults.getValueAsInt("port.count", 0);
    for (long i = 0; i < count; ++i) {
        const auto port = static_cast<unsigned long>(i);
        const String name = defaults.getIndexedValue("port.%lu.name", port, "unnamed");
        // A number that the daemon does not have reads as empty: only then the file's counts.
        String text;
        long enabled = defaults.getIndexedValueAsInt("port.%lu.enabled", port, 1);
        if (daemon.getIndexedValue("port.%lu.enabled", port, text).length() > 0) {
            daemon.getIndexedValueAsInt("port.%lu.enabled", port, enabled);
        }
        std::printf("port %ld (%s): enabled %ld\n", i, name.c_str(), enabled);
    }
    std::printf("wrote port.count: %s\n", daemon.setValueAsInt("port.count", count) ? "yes" : "no");
    return 0;
}
