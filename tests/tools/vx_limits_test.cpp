// SPDX-License-Identifier: MIT
// vx where the system gives it little: descriptors, room in files, memory, processes. A command may fail then, with a
// message; it ends by itself and within its time, and never by a signal.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

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

// Documents, and what is said of a command line or of things that are not there: all need memory, too.
const std::vector<std::vector<std::string>> documentsAndMessages = {
    {"-j", "config", "list", "--file", "/tmp/limits.conf"},
    {"-j", "status", "get", "limits/value"},
    {"-j", "status", "list"},
    {"-j", "digest", "md5", "/tmp/limits.conf"},
    {"-j", "addr", "10.0.0.1/8"},
    {"-j", "route", "127.0.0.1"},
    {"config", "set", "no-equals-sign"},
    {"config", "nothing"},
    {"event", "raise"},
    {"proc", "find", "/a/name/that/no/program/has"},
    {"digest", "md5", "/a/file/that/is/not/there"},
    {"help", "io"},
    {"__complete", "status", ""},
    {"lock", "limits", "--", "true"},
    {"run", "--", "true"},
};

constexpr const char *reachedMark = "/tmp/limits-reached";

// Memory runs out at this allocation, from there on or for that one alone.
VxSetting withoutMemory(unsigned int from, bool once) {
    VxSetting setting;
    setting.alarm_s = hangsAfter_s;
    setting.environment = {{"LD_PRELOAD", vxtest::built("tests/no_memory.so")},
                           {"NO_MEMORY_FROM", std::to_string(from)},
                           {"NO_MEMORY_MARK", reachedMark}};
    if (once) setting.environment.emplace_back("NO_MEMORY_ONCE", "");
    if (!vxtest::emulated()) return setting;
    std::string forTheProgram;  // and not for the emulator
    for (const auto &[name, value] : setting.environment)
        forTheProgram += (forTheProgram.empty() ? "" : ",") + name + "=" + value;
    setting.environment = {{"QEMU_SET_ENV", forTheProgram}};
    return setting;
}

// Whether memory ran out; the tool has to tell then, or to do what it does with enough.
bool expectToldWithoutMemory(const std::vector<std::string> &words, const VxSetting &setting, const VxResult &usual) {
    ::unlink(reachedMark);
    writeFile("/tmp/limits.conf", "a.key=1\n");
    const VxResult result = vx(words, setting);
    const std::string what = "vx" + joined(words) + ": status " + std::to_string(result.status) + ", " + result.err;
    if (result.status == usual.status) {
        EXPECT_EQ(result.out, usual.out) << what;
        EXPECT_EQ(result.err.empty(), usual.err.empty()) << what;
    } else {
        const bool runsAnother = words[0] == "lock" || words[0] == "run";
        EXPECT_EQ(result.status, runsAnother ? 125 : 1) << what;
        EXPECT_EQ(result.out, "") << what;
        EXPECT_EQ(result.err.empty(), words[0] == "__complete") << what;
    }
    return vxtest::exists(reachedMark);
}

TEST(VxLimits, memoryThatRunsOutAnywhereIsTold) {
    if (sanitized) GTEST_SKIP() << "sanitizers need memory themselves";
    vx({"status", "set", "limits/value", "1"});
    for (const auto &words : documentsAndMessages) {
        writeFile("/tmp/limits.conf", "a.key=1\n");
        const VxResult usual = vx(words);
        for (const bool once : {false, true}) {
            if (once && vxtest::emulated()) break;  // whose starts take ten times as long
            unsigned int from = 1;
            while (expectToldWithoutMemory(words, withoutMemory(from, once), usual) && !HasFailure()) ++from;
            EXPECT_GT(from, 5U) << "vx" << joined(words);
        }
    }
}

}  // namespace
