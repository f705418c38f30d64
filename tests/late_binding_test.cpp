// SPDX-License-Identifier: MIT
// Libraries that are looked for at first use: found, missing, there already.
#include <dlfcn.h>
#include <event2/bufferevent.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <vxutils/vxevent.h>
#include <zmq.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"
#include "support/syslog_capture.h"

namespace {

using vxtest::LogLine;

// What the program prints that is linked to the library alone.
std::string steps(const std::vector<std::string> &names) {
    std::vector<std::string> command{vxtest::built("tests/late_binding")};
    command.insert(command.end(), names.begin(), names.end());
    const vxtest::Output output = vxtest::run(command);
    return std::to_string(output.status) + "\n" + output.text;
}

// The file of the library that holds this function cannot be loaded.
class Missing {
public:
    explicit Missing(const void *function) {
        Dl_info info{};
        if (::dladdr(function, &info) == 0) return;
        file_ = std::filesystem::canonical(info.dli_fname).string();
        vxtest::writeFile("/tmp/empty", "");
        if (::mount("/tmp/empty", file_.c_str(), nullptr, MS_BIND, nullptr) != 0) file_.clear();
    }
    ~Missing() { ::umount(file_.c_str()); }
    Missing(const Missing &) = delete;
    Missing &operator=(const Missing &) = delete;

    bool valid() const { return !file_.empty(); }

private:
    std::string file_;
};

const void *zmqFunction() { return reinterpret_cast<const void *>(&zmq_socket); }

const void *libeventFunction() { return reinterpret_cast<const void *>(&bufferevent_read); }

const std::vector<LogLine> noZeroMq{{3, "unable to load libzmq.so.5"}};

TEST(LateBinding, ZeroMqIsLoadedAtFirstUse) {
    Dl_info info{};
    ASSERT_NE(::dladdr(zmqFunction(), &info), 0);
    EXPECT_EQ(std::filesystem::path(info.dli_fname).filename(), "libzmq.so.5") << "the one of the headers";
    vxtest::SyslogCapture log;
    EXPECT_EQ(steps({"loaded", "without-context", "loaded"}), "0\n- -\nnull null -1\nzmq -\n");
    EXPECT_EQ(log.take(), std::vector<LogLine>{});
}

TEST(LateBinding, WithoutZeroMqEveryCallFailsAndOneLineIsLogged) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator's libraries lie in a directory that it hides";
    const Missing missing(zmqFunction());
    ASSERT_TRUE(missing.valid());
    vxtest::SyslogCapture log;
    EXPECT_EQ(steps({"without-context", "without-context", "loaded"}), "0\nnull null -1\nnull null -1\n- -\n");
    EXPECT_EQ(log.take(), noZeroMq);
    EXPECT_EQ(steps({"threads", "without-context"}), "0\nnull null -1\nnull null -1\n");
    EXPECT_EQ(log.take(), noZeroMq);
}

TEST(LateBinding, ThreadsMayMakeTheFirstCallAtOnce) {
    vxtest::SyslogCapture log;
    EXPECT_EQ(steps({"threads", "loaded"}), "0\nnull null -1\nzmq -\n");
    EXPECT_EQ(log.take(), std::vector<LogLine>{});
}

TEST(LateBinding, ZeroMqOfAPlugInIsUsedAndStays) {
    EXPECT_EQ(steps({"plugin", "loaded", "plugin"}), "0\nsent 0\nzmq -\nsent 0\n");
}

// ---- libevent ----

TEST(LateBinding, LibeventIsLoadedAtFirstUse) {
    Dl_info info{};
    ASSERT_NE(::dladdr(libeventFunction(), &info), 0);
    EXPECT_EQ(std::filesystem::path(info.dli_fname).filename(), "libevent_core-2.1.so.7") << "the one of the headers";
    vxtest::SyslogCapture log;
    EXPECT_EQ(steps({"loaded", "without-base", "loaded"}), "0\n- -\nno fifo\n- event\n");
    EXPECT_EQ(log.take(), std::vector<LogLine>{});
}

TEST(LateBinding, WithoutLibeventThereIsNoFifoAndOneLineIsLogged) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator's libraries lie in a directory that it hides";
    const Missing missing(libeventFunction());
    ASSERT_TRUE(missing.valid());
    vxtest::SyslogCapture log;
    EXPECT_EQ(steps({"without-base", "without-base", "loaded"}), "0\nno fifo\nno fifo\n- -\n");
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{3, "unable to load libevent_core-2.1.so.7"}}));
}

TEST(LateBinding, LibeventOfAPlugInIsUsedAndStays) {
    EXPECT_EQ(steps({"core-base", "loaded", "core-base"}), "0\nreceived 7\n- event\nreceived 7\n");
    if (void *const whole = ::dlopen("libevent-2.1.so.7", RTLD_NOW)) {  // not on every machine
        ::dlclose(whole);
        EXPECT_EQ(steps({"whole-base", "loaded", "whole-base"}), "0\nreceived 7\n- event\nreceived 7\n");
        EXPECT_EQ(steps({"both", "core-base"}), "0\nboth\nreceived 7\n");
    }
}

}  // namespace
