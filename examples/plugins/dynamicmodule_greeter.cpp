// SPDX-License-Identifier: MIT
// A plug-in for dynamicmodule_host: it makes greeters.
#include "dynamicmodule_greeter.h"

#include <cstdio>

namespace {

class Morning final : public Greeter {
public:
    void greet(const char *whom) override { printf("Good morning, %s!\n", whom); }
};

class MorningFactory final : public GreeterFactory {
public:
    Greeter *create() override { return &only_; }

private:
    Morning only_;
};

}  // namespace

extern "C" {

void dynamic_module_init(void *arg) { printf("plug-in is ready for %s\n", static_cast<const char *>(arg)); }

void dynamic_module_done() { printf("plug-in says goodbye\n"); }

void *getClassFactory() {
    static MorningFactory factory;
    return static_cast<GreeterFactory *>(&factory);
}
}
