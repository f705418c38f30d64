// SPDX-License-Identifier: MIT
// vx where the system gives it little: descriptors, room in files, memory, processes. A command may fail then, with a
// message; it ends by itself and within its time, and never by a signal.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <string>
#include <vector>

#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"
#include "support/vx.h"

namespace {

using vxtest::vx;
using vxtest::VxResult;
using vxtest::VxSetting;
using vxtest::writeFile;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

constexpr unsigned hangsAfter_s = 30;
constexpr uid_t ordinaryUser = 65534;

// One command for each family that the tool uses; none of them needs a peer.
const std::vector<std::vector<std::string>> commands = {
    {"config", "get", "--file", "/tmp/limits.conf", "a.key"},
    {"config", "set", "--file", "/tmp/limits.conf", "a.key=2"},
    {"config", "get", "a.key"},
    {"sysinfo"},
    {"status", "set", "limits/value", "1"},
    {"status", "get", "limits/value"},
    {"status", "list"},
    {"event", "raise", "1", "2", "text"},
    {"log", "add", "1", "text"},
    {"log", "show"},
    {"io", "list"},
    {"adc"},
    {"board"},
    {"storage"},
    {"modem", "state"},
    {"ping", "-c", "1", "-t", "500", "127.0.0.1"},
    {"route", "127.0.0.1"},
    {"link"},
    {"addr", "10.0.0.1/8"},
    {"lock", "limits", "--", "true"},
    {"run", "--", "true"},
    {"run", "--detach", "--", "true"},
    {"proc", "find", "init"},
    {"digest", "sha1", "/tmp/limits.conf"},
    {"reboot", "--status"},
};

std::string joined(const std::vector<std::string> &words) {
    std::string line;
    for (const std::string &word : words) line += " " + word;
    return line;
}

// Runs every command under each of these limits.
void expectNoneDies(int resource, const std::vector<rlim_t> &limits, VxSetting setting = {}) {
    setting.alarm_s = hangsAfter_s;
    for (const rlim_t limit : limits) {
        setting.limits = {{resource, limit}};
        for (const auto &words : commands) {
            writeFile("/tmp/limits.conf", "a.key=1\n");
            const VxResult result = vx(words, setting);
            EXPECT_LT(result.status, 128)
                << "vx" << joined(words) << " under a limit of " << limit << ": " << result.err;
        }
    }
}

TEST(VxLimits, fewDescriptorsFailNoCommandByASignal) { expectNoneDies(RLIMIT_NOFILE, {3, 4, 5, 6, 7, 8, 10, 12}); }

TEST(VxLimits, fullFilesFailNoCommandByASignal) {
    expectNoneDies(RLIMIT_FSIZE, vxtest::emulated() ? std::vector<rlim_t>{0} : std::vector<rlim_t>{0, 1, 512});
}

TEST(VxLimits, aFullFileIsTold) {
    VxSetting setting;
    setting.limits = {{RLIMIT_FSIZE, 0}};
    const VxResult result = vx({"status", "set", "limits/value", "1"}, setting);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "vx: status set: limits/value: File too large\n");
}

TEST(VxLimits, commandsOfAUserWithoutProcessesFailByThemselves) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator starts threads of its own";
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "the box of an ordinary user has no other users";
    VxSetting setting;
    setting.user = ordinaryUser;
    expectNoneDies(RLIMIT_NPROC, {0}, setting);
}

TEST(VxLimits, littleMemoryFailsNoCommandByASignal) {
    if (sanitized || vxtest::emulated())
        GTEST_SKIP() << "sanitizers and emulators need more memory than this themselves";
    // From what the loader needs at least to what is enough for all.
    std::vector<rlim_t> limits;
    for (rlim_t mebibytes = 5; mebibytes <= 24; ++mebibytes) limits.push_back(mebibytes << 20);
    expectNoneDies(RLIMIT_AS, limits);
    VxSetting setting;
    setting.limits = {{RLIMIT_AS, 9 << 20}};
    const VxResult ping = vx({"ping", "-c", "1", "127.0.0.1"}, setting);
    EXPECT_EQ(ping.status, 1);
    EXPECT_EQ(ping.err, "vx: ping: no thread can be started: Resource temporarily unavailable\n");
}

}  // namespace
