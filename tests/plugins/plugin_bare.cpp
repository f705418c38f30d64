// SPDX-License-Identifier: MIT
// A plug-in without any entry point, but with a function that calls what nobody has: harmless until somebody calls it.
extern "C" {

void vxtest_function_that_nobody_has();
void plugin_bare_trap();

void plugin_bare_trap() { vxtest_function_that_nobody_has(); }
}
