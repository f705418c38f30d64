// SPDX-License-Identifier: MIT
// A plug-in with every entry point. It tells what happened in a text that the test hands to its initialisation.
#include <string>

namespace {

std::string *diary = nullptr;
int factory = 0;

}  // namespace

extern "C" {

int plugin_full_calls = 0;  // seen by plug-ins that are loaded later

void dynamic_module_init(void *arg);
void dynamic_module_done();
void *getClassFactory();

void dynamic_module_init(void *arg) {
    diary = static_cast<std::string *>(arg);
    if (diary != nullptr) *diary += "init;";
    ++plugin_full_calls;
}

void dynamic_module_done() {
    if (diary != nullptr) *diary += "done;";
}

void *getClassFactory() {
    if (diary != nullptr) *diary += "factory;";
    ++factory;
    return &factory;
}
}

namespace {

// The library's own end: what happens in dlclose().
struct Farewell {
    ~Farewell() {
        if (diary != nullptr) *diary += "closed;";
    }
} farewell;

}  // namespace
