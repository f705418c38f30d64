// SPDX-License-Identifier: MIT
#include <vxutils/configdaemonclient.h>
#include <vxutils/vxstring.h>

#include <optional>
#include <set>
#include <string>

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
    std::optional<ConfigDaemonClient> client;
    run([&] { client.emplace(); });
    const bool connected = !run.hit();
    long speed = 7;
    run([&] { client->getIndexedValueAsInt(key, 1, speed); }, oneExchange);
    if (connected) run.outcome("getIndexedValueAsInt", speed == 100, speed == 7);
    const bool set = run([&] { return client->setIndexedValueAsInt(key, 1, 1000); }, oneExchange);
    // A handle that could not reconnect is closed; its next call fails and connects again.
    run.outcome("setIndexedValueAsInt", set || run.disturbed(), !set);
    run.always("a confirmed value is the daemon's", !set || daemon.get("port.1.speed") == "1000");
}

void texts(Run &run) {
    static vxtest::Configd daemon;
    daemon.tell("set name old");
    daemon.tell("set number 7");
    const String name("name");
    const String indexed("port.%lu.name");
    std::optional<ConfigDaemonClient> client;
    run([&] { client.emplace(); });
    const bool connected = !run.hit();
    String value("(none)");
    run([&] { client->getValue(name, value); }, oneExchange);
    if (connected) run.outcome("getValue", value == "old", value == "(none)");
    bool set = run([&] { return client->setValue(name, String("new")); }, oneExchange);
    run.outcome("setValue", set || run.disturbed(), !set);
    run.always("a confirmed value is the daemon's", !set || daemon.get("name") == "new");
    set = run([&] { return client->setValueAsInt(String("number"), 8); }, oneExchange);
    run.outcome("setValueAsInt", set || run.disturbed(), !set);
    run.always("a confirmed value is the daemon's", !set || daemon.get("number") == "8");
    set = run([&] { return client->setIndexedValue(indexed, 2, String("lan")); }, oneExchange);
    run.outcome("setIndexedValue", set || run.disturbed(), !set);
    value = String("(none)");
    run([&] { client->getIndexedValue(indexed, 2, value); }, oneExchange);
    if (set) run.outcome("getIndexedValue", value == "lan", value == "(none)");
}

}  // namespace

int main(int argc, char **argv) {
    vxtest::makeDirs("/var/run/configd");
    // String aborts a process that has no memory for a text: documented.
    const std::set<std::string> memory{"malloc", "realloc"};
    return torture::torment(
        argc, argv,
        {{"configdaemonclient: read and write", readAndWrite, memory}, {"configdaemonclient: texts", texts, memory}});
}
