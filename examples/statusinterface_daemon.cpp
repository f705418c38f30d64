// SPDX-License-Identifier: MIT
// A daemon with a status file and a command FIFO in the status tree: try
//   echo on > /tmp/status/switchd/command; cat /tmp/status/switchd/state; echo quit > /tmp/status/switchd/command
// SIGTERM ends it too. SIGHUP makes it publish its state again.
#include <event2/event.h>
#include <vxutils/statusinterface.h>
extern "C" {
#include <event2/event_compat.h>
}
#include <csignal>
#include <cstdio>
#include <string>

class Switch : public StatusFifoObserver {
public:
    bool start() {
        return status_.setup(BASEPATH_STATUS, "/switchd") && status_.setStatus("/state", "off\n") &&
               status_.setupIpcRxFifo("/command", this) != 0;
    }
    void stop() { status_.cleanup(); }
    void publish() { status_.setStatus("/state", state_.c_str()); }

    void fifoDataReceived(bufferevent *, char *data, unsigned long length) override {
        pending_.append(data, length);  // a command may come in pieces, several may come at once
        for (size_t end; (end = pending_.find('\n')) != std::string::npos; pending_.erase(0, end + 1)) {
            obey(pending_.substr(0, end));
        }
    }

private:
    void obey(const std::string &command) {
        if (command == "quit") {
            event_loopbreak();
        } else if (command == "on" || command == "off") {
            state_ = command + "\n";
            publish();
            printf("state is %s\n", command.c_str());
        } else {
            printf("cannot %s\n", command.c_str());
        }
        fflush(stdout);
    }

    StatusInterface status_;
    std::string state_ = "off\n";
    std::string pending_;
};

static void onTerm(evutil_socket_t, short, void *) { event_loopbreak(); }
static void onHup(evutil_socket_t, short, void *daemon) { static_cast<Switch *>(daemon)->publish(); }

int main() {
    event_base *base = event_init();  // FIFOs are served by libevent's current base
    Switch daemon;
    if (!daemon.start()) return 1;
    event *const term = evsignal_new(base, SIGTERM, onTerm, nullptr);
    event *const hup = evsignal_new(base, SIGHUP, onHup, &daemon);
    if (term == nullptr || hup == nullptr || event_add(term, nullptr) != 0 || event_add(hup, nullptr) != 0) return 1;
    printf("ready at /tmp/status/switchd\n");
    fflush(stdout);
    event_base_dispatch(base);
    daemon.stop();
    event_free(term);
    event_free(hup);
    event_base_free(base);
    return 0;
}
