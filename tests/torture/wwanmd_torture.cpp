// SPDX-License-Identifier: MIT
#include <syslog.h>
#include <vxutils/wwanmd.h>

#include <cstring>
#include <string>

#include "support/files.h"
#include "support/process.h"
#include "torture/faults.h"

using torture::Run;
using namespace std::chrono_literals;

namespace {

// The daemon's stand-in; it answers "OK" to every command that it was not told about.
class Modem {
public:
    Modem() : process_({vxtest::built("gateway/wwanmd"), "0"}) {
        while (process_.readLine() != "ready") continue;
    }
    void tell(const std::string &line) {
        process_.send(line + "\n");
        while (process_.readLine() != "done") continue;
    }

private:
    vxtest::Process process_;
};

void command(Run &run) {
    static Modem modem;
    modem.tell("sync");
    wwanmd_handle *handle = run([] { return wwanmd_init(0, "torture"); }, 12s);
    run.outcome("wwanmd_init", handle != nullptr, handle == nullptr, "wwanmd");
    if (handle != nullptr) {
        for (int i = 0; i < 2; ++i) {
            wwanmd_msg message{};
            std::strcpy(message.data, "status");
            message.len = 6;
            // A command that finds the daemon silent connects again, with a handshake.
            const int result = run([&] { return wwanmd_command(handle, &message); }, 25s);
            run.outcome("wwanmd_command", result == 0, result == -1 || result == -11);
        }
    }
    run([&] { wwanmd_free(handle); });
    ::closelog();
    ::openlog(nullptr, 0, LOG_USER);
}

void markers(Run &run) {
    const int reset = run([] { return wwanmd_in_reset(0); }, 6s);
    run.always("wwanmd_in_reset", reset == 0);
    const int suspended = run([] { return wwanmd_is_suspended(0); });
    run.always("wwanmd_is_suspended", suspended == 0);
}

}  // namespace

int main(int argc, char **argv) {
    return torture::torment(argc, argv, {{"wwanmd: command", command}, {"wwanmd: markers", markers}});
}
