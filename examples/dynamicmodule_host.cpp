// SPDX-License-Identifier: MIT
// Loads the plug-in at PATH and has it greet NAME.
#include <vxutils/dynamicmodule.h>

#include <cstdio>

#include "plugins/dynamicmodule_greeter.h"

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s PATH NAME\n", argv[0]);
        return 1;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    CDynamicModule plugin(argv[1]);
    if (plugin.load(argv[2]) == -1) {
        const char *reason = plugin.lastError();
        fprintf(stderr, "%s\n", reason != nullptr ? reason : "no reason given");
        return 1;
    }
    auto *factory = static_cast<GreeterFactory *>(plugin.getClassFactory());
    if (factory == nullptr) return 1;
    factory->create()->greet(argv[2]);
    return 0;  // the plug-in is shut down and closed here
}
