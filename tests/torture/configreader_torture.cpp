// SPDX-License-Identifier: MIT
#include <unistd.h>
#include <vxutils/configreader.h>
#include <vxutils/vxstring.h>

#include <memory>
#include <new>

#include "support/files.h"
#include "torture/faults.h"

using torture::Run;

namespace {

void readFile(Run &run) {
    const char *const path = "/tmp/torture/conf";
    std::string text;
    for (int i = 0; i < 300; ++i) text += "port." + std::to_string(i) + " = " + std::to_string(i) + "\n";
    vxtest::writeFile(path, text);
    const String name(path);
    const String key("port.299");
    ConfigReader reader;
    // Memory that runs out throws std::bad_alloc: documented.
    const bool done = run([&] {
        try {
            return reader.initialize(name, 64);
        } catch (const std::bad_alloc &) {
            return false;
        }
    });
    const long value = reader.getValueAsInt(key, -1);
    run.outcome("initialize", done && value == 299, !done || run.failed("read"));
    const String &string = reader.getValue(key, name);
    run.always("a value as text", value == -1 || string == "299");
    run([&] { reader.cleanup(); });
    ::unlink(path);
}

}  // namespace

int main(int argc, char **argv) { return torture::torment(argc, argv, {{"configreader: read", readFile}}); }
