// SPDX-License-Identifier: MIT
// A daemon on the loop with all that it talks to: event manager, subscribers, another process at its lock.
#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"
#include "support/syslog_capture.h"

namespace {

class LoopDaemon : public testing::Test {
protected:
    LoopDaemon() {
        const std::string libraryFile = "/usr/lib/libvxutils.so.1.0.0";
        if (!vxtest::exists(libraryFile)) vxtest::writeFile(libraryFile, "the library's own file");
    }
    static std::vector<std::string> until(vxtest::Process &process, const std::string &last) {
        std::vector<std::string> lines;
        do {
            lines.push_back(process.readLine(30000));
        } while (lines.back() != last);
        return lines;
    }
    // The reports of a run in the order of the daemon's own lines, and what all others must have seen of them.
    static void expectEverywhere(vxtest::Process &daemon, vxtest::Process &manager,
                                 const std::vector<vxtest::Process *> &subscribers) {
        std::vector<std::string> reports;
        for (const std::string &line : until(daemon, "loop: ended, the timer went on all the time")) {
            if (line.rfind("loop: worker ", 0) == 0) reports.push_back(line.substr(6));
        }
        EXPECT_EQ(daemon.wait(), 0);
        ASSERT_EQ(reports.size(), 6U);
        for (size_t i = 0; i < reports.size(); ++i) {
            const std::string number = std::to_string(i + 1);
            EXPECT_EQ(manager.readLine(), "event id=17 param=" + number + " text=\"" + reports[i] + "\"");
            for (vxtest::Process *subscriber : subscribers) {
                EXPECT_EQ(subscriber->readLine(), "listener: event 17, " + number + ", \"" + reports[i] + "\"");
            }
        }
        for (vxtest::Process *subscriber : subscribers) EXPECT_EQ(subscriber->wait(), 0);
    }
    vxtest::SyslogCapture log;
};

TEST_F(LoopDaemon, TakesADeadOwnersLockAndReachesAllSubscribers) {
    if (vxtest::emulated()) GTEST_SKIP() << "user-mode emulation has no robust mutex lists: a death is not seen";
    vxtest::Process manager({vxtest::built("gateway/eventmanager")});
    ASSERT_EQ(manager.readLine(), "ready");
    vxtest::Process holder({vxtest::built("examples/lock_holder"), "/modem0"});
    EXPECT_EQ(holder.readLine(), "holder " + std::to_string(holder.pid()) + ": has /modem0");
    vxtest::Process first({vxtest::built("examples/event_subscriber"), "listener"});
    vxtest::Process second({vxtest::built("examples/event_subscriber"), "listener"});
    ASSERT_EQ(first.readLine(), "listener: listening");
    ASSERT_EQ(second.readLine(), "listener: listening");
    vxtest::Process daemon({vxtest::built("examples/loop_daemon")});
    ASSERT_EQ(daemon.readLine(), "loop: running");
    // The daemon waits for the lock: time for both subscribers to find it before the first event.
    std::this_thread::sleep_for(std::chrono::seconds(2));
    holder.signal(SIGKILL);
    EXPECT_EQ(holder.wait(), 128 + SIGKILL);
    EXPECT_EQ(daemon.readLine(), "loop: the modem's lock was left by a process that died; taken over");
    expectEverywhere(daemon, manager, {&first, &second});
}

TEST_F(LoopDaemon, RunsWithoutListeners) {
    vxtest::Process manager({vxtest::built("gateway/eventmanager")});
    ASSERT_EQ(manager.readLine(), "ready");
    vxtest::Process daemon({vxtest::built("examples/loop_daemon")});
    ASSERT_EQ(daemon.readLine(), "loop: running");
    expectEverywhere(daemon, manager, {});
}

}  // namespace
