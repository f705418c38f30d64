// SPDX-License-Identifier: MIT
#include <vxutils/configd.h>
#include <vxutils/strutil.h>

#include <poll.h>

#include <string>

#include "support/configd.h"
#include "support/files.h"
#include "torture/faults.h"

using torture::Run;
using namespace std::chrono_literals;

namespace {

// A request waits at most 10 s to be taken and 10 s for its answer.
constexpr auto oneExchange = 21s;

vxtest::Configd &daemon() {
    static vxtest::Configd peer;
    return peer;
}

void query(Run &run) {
    daemon().tell("set wan.apn internet");
    daemon().tell("set wan.pin 1234");
    configd_handle *handle = run([] { return configd_open(); });
    if (!run.outcome("configd_open", handle != nullptr, handle == nullptr, "configd")) return;

    const int added = run([&] { return configd_add_query(handle, "wan.%s", "apn"); });
    const bool first = run.outcome("configd_add_query", added == 0, added == -1);
    const int again = run([&] { return configd_add_query(handle, "wan.pin"); });
    const bool second = run.outcome("configd_add_query", again == 0, again == -1);

    const std::string apn = run([&] { return configd_fetch(handle, "wan.apn"); }, 2 * oneExchange);
    if (first) run.outcome("configd_fetch", apn == "internet", apn.empty(), run.failed("close") ? nullptr : " ");
    // An answer to a request that was given up is thrown away if it is there when the next request is sent.
    (void)daemon().requests();
    const std::string pin = run([&] { return configd_fetch(handle, "wan.pin"); }, 2 * oneExchange);
    if (second) run.outcome("configd_fetch", pin == "1234", pin.empty());
    run([&] { configd_close(handle); });
}

void change(Run &run) {
    daemon().tell("set wan.apn old");
    configd_handle *handle = run([] { return configd_open(); });
    if (!run.outcome("configd_open", handle != nullptr, handle == nullptr, "configd")) return;
    configd_entry entries[2]{};
    strlcpy(entries[0].key, "wan.apn", sizeof entries[0].key);
    strlcpy(entries[0].value, "new", sizeof entries[0].value);
    const int set = run([&] { return configd_set(handle, entries); }, oneExchange);
    run.outcome("configd_set", set == 0, set <= -2 && set >= -4, "configd");
    const int done = run([&] { return configd_done(handle); }, oneExchange);
    // A handle that could not reconnect is closed; its next call fails and connects again.
    const bool wasClosed = run.disturbed() && done == -2;
    run.outcome("configd_done", done == 0 || wasClosed, done <= -2 && done >= -4, "configd");
    if (set == 0 && done == 0) run.always("the daemon has the value", daemon().get("wan.apn") == "new");
    run([&] { configd_close(handle); });
}

// The receiver makes other calls when it has to wait: with `awaited` the answer is there before, so that each run makes
// the same ones.
void sendAndReceive(Run &run, configd_handle *handle, bool awaited) {
    const std::string request = "wan.apn=new\n";
    const auto size = static_cast<int>(request.size());
    const int sent = run([&] { return configd_send(handle, request.data(), size); }, 11s);
    run.outcome("configd_send", sent == size, sent == -1 && run.told());
    pollfd answered{handle->fd, POLLIN, 0};
    if (awaited && sent == size) ::poll(&answered, 1, 10000);
    char answer[64] = "";
    const int received = run([&] { return configd_recv(handle, answer, sizeof answer); }, 11s);
    if (sent == size) run.outcome("configd_recv", received == size && request == answer, received == -1);
}

// The steps of an exchange, one by one.
void steps(Run &run) {
    daemon().tell("set wan.apn internet");
    configd_handle *handle = run([] { return configd_open(); });
    if (!run.outcome("configd_open", handle != nullptr, handle == nullptr, "configd")) return;
    configd_entry entries[2]{};
    strlcpy(entries[0].key, "wan.apn", sizeof entries[0].key);
    const int got = run([&] { return configd_get(handle, entries); }, oneExchange);
    run.outcome("configd_get", got == 0 && std::string(entries[0].value) == "internet", got == -1, "configd");
    const int added = run([&] { return configd_add_query(handle, "wan.pin"); });
    run.outcome("configd_add_query", added == 0, added == -1);
    run([&] { configd_clear(handle); });
    run.always("nothing is left to be asked for", run([&] { return configd_get(handle, nullptr); }) == 0);

    const int again = run([&] { return __configd_open(handle); });
    if (run.outcome("__configd_open", again == 0, again == -1, "configd")) {
        entries[0].value[0] = '\0';
        const int one = run([&] { return configd_prepare_get(handle, entries); }, oneExchange);
        const std::string value = entries[0].value;
        if (run.outcome("configd_prepare_get", one == 0 && value == "internet", one == -1 && value.empty(),
                        "configd")) {
            sendAndReceive(run, handle, true);
            daemon().tell("late 30");
            sendAndReceive(run, handle, false);
            daemon().tell("normal");
        }
        run([&] { __configd_close(handle); });
    }
    run([&] { configd_close(handle); });
}

}  // namespace

int main(int argc, char **argv) {
    vxtest::makeDirs("/var/run/configd");
    return torture::torment(argc, argv,
                            {{"configd: query", query}, {"configd: change", change}, {"configd: steps", steps}});
}
