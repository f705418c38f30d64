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
    modem.tell("echo");
    wwanmd_handle *handle = run([] { return wwanmd_init(0, "torture"); }, 12s);
    run.outcome("wwanmd_init", handle != nullptr, handle == nullptr, "wwanmd");
    if (handle != nullptr) {
        for (int i = 0; i < 2; ++i) {
            wwanmd_msg message{};
            const std::string text = "status " + std::to_string(i);
            std::strcpy(message.data, text.c_str());
            message.len = static_cast<int>(text.size());
            // A command that finds the daemon silent connects again, with a handshake.
            const int result = run([&] { return wwanmd_command(handle, &message); }, 25s);
            run.outcome("wwanmd_command", result == 0 && " " + text == message.data, result == -1, "wwanmd");
        }
        const int opened = run([&] { return wwanmd_open(handle); }, 15300ms);
        if (run.outcome("wwanmd_open", opened == 0, opened == -1, "wwanmd")) {
            wwanmd_msg message{};
            std::strcpy(message.data, "one");
            message.len = 3;
            const int sent = run([&] { return wwanmd_send(handle, &message); }, 25s);
            if (run.outcome("wwanmd_send", sent == 0, sent == -1, "wwanmd")) {
                const int received = run([&] { return wwanmd_recv(handle, &message); }, 25s);
                const bool right = received == 0 && std::string(message.data) == " one";
                run.outcome("wwanmd_recv", right, received == -1, "wwanmd");
            }
            run([&] { wwanmd_close(handle); });
            run.always("a closed handle has no descriptor", handle->fd == -1);
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
