// SPDX-License-Identifier: MIT
#include <vxutils/configdaemonclient.h>
#include <vxutils/vxstring.h>

#include <memory>

#include "support/configd.h"
#include "support/files.h"
#include "torture/faults.h"

using torture::Run;
using namespace std::chrono_literals;

namespace {

constexpr auto oneExchange = 21s;

void readAndWrite(Run &run) {
    static vxtest::Configd daemon;
    daemon.tell("set port.1.speed 100");
    const String key("port.%lu.speed");
    const auto client = run([] { return std::make_unique<ConfigDaemonClient>(); });
    const bool connected = !run.hit();
    long speed = 7;
    run([&] { client->getIndexedValueAsInt(key, 1, speed); }, oneExchange);
    if (connected) run.outcome("getIndexedValueAsInt", speed == 100, speed == 7);
    const bool set = run([&] { return client->setIndexedValueAsInt(key, 1, 1000); }, oneExchange);
    // A handle that could not reconnect is closed; its next call fails and connects again.
    run.outcome("setIndexedValueAsInt", set || run.disturbed(), !set);
}

}  // namespace

int main(int argc, char **argv) {
    vxtest::makeDirs("/var/run/configd");
    // String aborts a process that has no memory for a text: documented.
    return torture::torment(
        argc, argv, {{"configdaemonclient: read and write", readAndWrite, {"malloc", "realloc", "operator new"}}});
}
