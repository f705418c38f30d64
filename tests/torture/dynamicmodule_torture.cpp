// SPDX-License-Identifier: MIT
#include <vxutils/dynamicmodule.h>

#include <memory>
#include <string>

#include "support/process.h"
#include "torture/faults.h"

using torture::Run;

// The loader's list of globally visible libraries grows once and stays.
extern "C" const char *__lsan_default_suppressions() { return "leak:add_to_global_resize\n"; }

namespace {

void load(Run &run) {
    static const std::string path = vxtest::built("tests/plugin_full.so");
    std::string diary;
    diary.reserve(64);  // what the plug-in's code allocates is not the library's
    auto module = std::make_unique<CDynamicModule>(path);
    const int loaded = run([&] { return module->load(&diary); });
    run.outcome("load", loaded == 0 && diary == "init;", loaded == -1, "Unable to open shared library");
    run([&] { module.reset(); });
    run.always("done is called where init was", diary.empty() || diary == "init;done;closed;");
}

}  // namespace

int main(int argc, char **argv) { return torture::torment(argc, argv, {{"dynamicmodule: load", load}}); }
