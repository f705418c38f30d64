// SPDX-License-Identifier: MIT
// A plug-in that uses a variable of another one, which has to be loaded before it. It throws when it is shut down, and
// what its initialisation is asked to throw.
extern "C" {

extern int plugin_full_calls;
void dynamic_module_init(void *number);
void dynamic_module_done();
void *getClassFactory();

void dynamic_module_init(void *number) {
    if (number != nullptr) throw *static_cast<int *>(number);
}
void dynamic_module_done() { throw 42; }
void *getClassFactory() { return &plugin_full_calls; }
}
