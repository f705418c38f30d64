// SPDX-License-Identifier: MIT
// A plug-in without any entry point, but with a function that calls a missing function: harmless until it is called.
extern "C" {

void vxtest_function_that_nobody_has();
void plugin_bare_trap();

void plugin_bare_trap() { vxtest_function_that_nobody_has(); }
}
