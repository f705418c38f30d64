// SPDX-License-Identifier: MIT
// What the daemon dynamicmodule_host and its plug-ins agree on.
#pragma once

class Greeter {
public:
    virtual void greet(const char *whom) = 0;

protected:
    ~Greeter() = default;  // belongs to the plug-in
};

class GreeterFactory {
public:
    virtual Greeter *create() = 0;

protected:
    ~GreeterFactory() = default;
};

extern "C" {
void dynamic_module_init(void *arg);
void dynamic_module_done();
void *getClassFactory();
}
