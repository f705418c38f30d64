// SPDX-License-Identifier: MIT
#include <event2/event.h>
#include <event2/event_compat.h>
#include <unistd.h>
#include <vxutils/statusinterface.h>
#include <vxutils/vxstring.h>

#include <cstdlib>
#include <string>

#include "support/files.h"
#include "torture/faults.h"

using torture::Disarmed;
using torture::Run;

// The loader keeps what it knows of a library in memory of its own, where the leak checker does not look; that the
// loader is the caller it cannot see, for malloc() is the torturer's.
extern "C" const char *__lsan_default_suppressions() { return "leak:_dl_map_object_deps\n"; }

namespace {

class Observer : public StatusFifoObserver {
public:
    void fifoDataReceived(bufferevent * /*buffer*/, char *data, unsigned long length) override {
        const Disarmed quiet;
        received.append(data, length);
    }
    std::string received;
};

void status(Run &run) {
    static event_base *const base = event_init();
    const String place("/torture");
    const String name("/state");
    const String value("up since yesterday");
    const String link("/link");
    StatusInterface status;
    const bool made = run([&] { return status.setup(BASEPATH_STATUS, place); });
    run.outcome("setup", made, !made, "Could not");
    if (made) {
        const bool set = run([&] { return status.setStatus(name, value); });
        run.outcome("setStatus", set && vxtest::readFile("/tmp/status/torture/state") == value.c_str(), !set);
        String read;
        const bool got = run([&] { return status.getStatus(name, read); });
        run.outcome("getStatus", set ? got && read == value : !got || read != value,
                    !got || read.length() < value.length());
        const bool linked = run([&] { return status.setLink(link, name); });
        run.outcome("setLink", linked, !linked);

        Observer observer;
        const unsigned long fifo = run([&] { return status.setupIpcRxFifo(String("/fifo"), &observer); });
        if (run.outcome("setupIpcRxFifo", fifo != 0, fifo == 0)) {
            if (FILE *writer = std::fopen("/tmp/status/torture/fifo", "we")) {
                std::fputs("hello", writer);
                std::fclose(writer);
            }
            event_base_loop(base, EVLOOP_ONCE);
            run.always("the FIFO's data arrives", observer.received == "hello");
        }
        run([&] { status.cleanup(); });
        event_base_loop(base, EVLOOP_NONBLOCK);  // libevent frees what is no longer used
    }
    [[maybe_unused]] const int removed = std::system("rm -rf /tmp/status/torture");
}

// Values below a link, and names with dots and several slashes.
void detours(Run &run) {
    vxtest::makeDirs("/tmp/status/torture/real/below");
    run.always("link", ::symlink("real", "/tmp/status/torture/link") == 0 &&
                           ::symlink("../real/./value", "/tmp/status/torture/real/other") == 0);
    StatusInterface status;
    if (run([&] { return status.setup(BASEPATH_STATUS, String("/torture")); })) {
        const String value("text");
        const bool set = run([&] { return status.setStatus(String("/link//below/../value"), value); });
        run.outcome("setStatus", set && vxtest::readFile("/tmp/status/torture/real/value") == "text", !set);
        String read;
        const bool got = run([&] { return status.getStatus(String("/./link/other"), read); });
        run.outcome("getStatus", set ? got && read == value : !got || read != value, !got || read.length() < 4);
        const bool ended = run([&] { return status.setLink(String("/link/other"), String("")); });
        run.outcome("setLink to nothing", ended && !vxtest::exists("/tmp/status/torture/real/other"),
                    !ended || vxtest::exists("/tmp/status/torture/real/other") || !set);
        run([&] { status.cleanup(); });
    }
    [[maybe_unused]] const int removed = std::system("rm -rf /tmp/status/torture");
}

}  // namespace

int main(int argc, char **argv) {
    vxtest::makeDirs("/tmp/status");
    // String aborts a process that has no memory for a text: documented.
    return torture::torment(argc, argv,
                            {{"statusinterface: status", status, {"malloc", "realloc"}},
                             {"statusinterface: detours", detours, {"malloc", "realloc"}}});
}
