// SPDX-License-Identifier: MIT
// A plug-in with every entry point. It tells what happened in a text that the test hands to its initialisation, and in
// the system log if that text asks for it.
#include <syslog.h>

#include <string>

namespace {

std::string *diary = nullptr;
int factory = 0;

void note(const std::string &event) {
    if (diary == nullptr) return;
    if (diary->rfind("aloud;", 0) == 0) ::syslog(LOG_INFO, "%s", event.c_str());
    *diary += event + ";";
}

}  // namespace

extern "C" {

int plugin_full_calls = 0;  // seen by plug-ins that are loaded later

void dynamic_module_init(void *arg);
void dynamic_module_done();
void *getClassFactory();

void dynamic_module_init(void *arg) {
    diary = static_cast<std::string *>(arg);
    note("init");
    ++plugin_full_calls;
}

void dynamic_module_done() { note("done"); }

void *getClassFactory() {
    note("factory");
    ++factory;
    return &factory;
}
}

namespace {

// The library's own end: what happens in dlclose().
struct Farewell {
    ~Farewell() { note("closed"); }
} farewell;

}  // namespace
