// SPDX-License-Identifier: MIT
// The status tree of a root daemon against an ordinary user of the machine, who puts links, FIFOs and files of his own
// where the daemon works, and swaps them while it does.
#include <vxutils/statusinterface.h>

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/file.h>
#include <vxutils/hardware.h>
#include <vxutils/interface.h>
#include <vxutils/ipinterfacestatus.h>
#include <vxutils/wwanmd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/call_hooks.h"
#include "support/files.h"
#include "support/large_files.h"
#include "support/open_hook.h"
#include "support/process.h"
#include "support/stranger_files.h"
#include "support/syslog_capture.h"
#include "support/text.h"

VXTEST_HOOK(ssize_t, write, (int fd, const void *data, size_t size), (fd, data, size))
VXTEST_HOOK_AS(ssize_t, sendfile, "sendfile64", (int out, int in, off_t *offset, size_t count),
               (out, in, offset, count))

namespace {

using namespace vxtest::strangers;

namespace hooks = vxtest::hooks;

using vxtest::Attack;
using vxtest::exists;
using vxtest::giveTo;
using vxtest::Hooked;
using vxtest::LogLine;
using vxtest::readFile;
using vxtest::repeat;
using vxtest::stranger;
using vxtest::swapEntries;
using vxtest::textf;
using vxtest::writeFile;

class StatusTree : public Strangers {
protected:
    static constexpr const char *daemon = "/tmp/status/daemon";

    // What every operation does with an unsafe tree. Returns what went wrong.
    static std::string misuse(const char *name) {
        vxtest::SyslogCapture log;
        StatusInterface status;
        if (status.setup(BASEPATH_STATUS, name)) return "setup";
        const auto lines = log.take();
        if (lines.size() != 3 || lines.front().text.find("Refused status path ") != 0) return "no log line";
        String value("old");
        if (status.getStatus("/state", value) || value.length() != 0) return "getStatus";
        if (log.take().size() != 1) return "no log line of getStatus";
        if (status.setStatus("/state", "up")) return "setStatus";
        if (status.setLink("/state", "")) return "removing setLink";
        if (status.setLink("/link", "target")) return "setLink";
        if (status.setupIpcRxFifo("/fifo", nullptr) != 0) return "setupIpcRxFifo";
        if (log.take().size() != 4) return "no log lines";
        return "";
    }

    static bool works(const char *name) {
        StatusInterface status;
        String value;
        if (!status.setup(BASEPATH_STATUS, name) || !status.setStatus("/state", "up")) return false;
        if (!status.getStatus("/state", value) || value != "up") return false;
        if (!status.setLink("/link", "state") || !status.getStatus("/link", value) || value != "up") return false;
        const std::string path = std::string("/tmp/status") + name;
        (void)status.setupIpcRxFifo("/fifo", nullptr);  // there is no event base; the FIFO is made
        return fs::is_fifo(path + "/fifo") && status.setLink("/link", "");
    }
};

// ---- whose tree it is

TEST_F(StatusTree, HonestTreesWork) {
    vxtest::SyslogCapture log;
    EXPECT_TRUE(works("/made-by-us"));
    EXPECT_TRUE(works("/made-by-us/below"));
    for (const mode_t mode : {0755, 0775, 02775, 0777, 01777}) {
        makeDir("/tmp/status", mode);
        EXPECT_TRUE(works("/daemon")) << textf("%o", static_cast<unsigned int>(mode));
        fs::remove_all("/tmp/status");
    }
    ::umask(0);
    EXPECT_TRUE(works("/open"));
    EXPECT_EQ(modeOf("/tmp/status"), 0777u);
    EXPECT_TRUE(works("/open/below"));
    ::umask(022);
    fs::remove_all("/tmp/status");

    // The tree elsewhere, by links of root's.
    vxtest::makeDirs(dir + "/var/tree");
    ASSERT_EQ(::symlink((dir + "/var/again").c_str(), "/tmp/status"), 0);
    ASSERT_EQ(::symlink("tree", (dir + "/var/again").c_str()), 0);
    EXPECT_TRUE(works("/daemon"));
    EXPECT_TRUE(exists(dir + "/var/tree/daemon"));
    EXPECT_TRUE(log.take().empty());
}

// The daemon's own user has made the tree, or root made it and gave him his directory.
TEST_F(StatusTree, DaemonsOfOtherUsersWork) {
    EXPECT_EQ(vxtest::asUser(stranger, [] { return works("/daemon") ? 0 : 1; }), 0);
    fs::remove_all("/tmp/status");
    for (const mode_t mode : {0755, 01777, 0777}) {
        makeDir(daemon, 0755, stranger);
        ASSERT_EQ(::chmod("/tmp/status", mode), 0);
        EXPECT_EQ(vxtest::asUser(stranger, [] { return works("/daemon") && works("/daemon/deep") ? 0 : 1; }), 0);
        fs::remove_all("/tmp/status");
    }
    // Others read what he publishes, his links included: where only root can have given him his place.
    makeDir(daemon, 0755, stranger);
    EXPECT_EQ(vxtest::asUser(stranger,
                             [] {
                                 StatusInterface status;
                                 return status.setup(BASEPATH_STATUS, "/daemon/wanlink1") &&
                                                status.setStatus("/state", "up") &&
                                                status.setup(BASEPATH_STATUS, "/daemon") &&
                                                status.setLink("/hotlink", "wanlink1")
                                            ? 0
                                            : 1;
                             }),
              0);
    for (const uid_t reader : {0u, stranger + 1}) {
        EXPECT_EQ(vxtest::asUser(reader,
                                 [] {
                                     StatusInterface status;
                                     String value;
                                     return status.setup(BASEPATH_STATUS, "/daemon") &&
                                                    status.getStatus("/hotlink/state", value) && value == "up"
                                                ? 0
                                                : 1;
                                 }),
                  0);
    }
}

TEST_F(StatusTree, AGroupOfDaemonsSharesATree) {
    makeDir("/tmp/status", 02775);
    makeDir(daemon, 0755, stranger);  // by a member of the group
    StatusInterface status;
    String value;
    writeFile("/tmp/status/daemon/state", "up");
    EXPECT_TRUE(status.setup(BASEPATH_STATUS, "/daemon"));
    EXPECT_TRUE(status.getStatus("/state", value));
}

TEST_F(StatusTree, AStrangersTreeIsRefused) {
    makeDir("/tmp/status/daemon", 0777, stranger);
    makeDir("/tmp/status", 0777, stranger);
    writeFile("/tmp/status/daemon/state", "lie");
    EXPECT_EQ(misuse("/daemon"), "");
    EXPECT_EQ(misuse("/new"), "");
    EXPECT_EQ(readFile("/tmp/status/daemon/state"), "lie");
    EXPECT_FALSE(exists("/tmp/status/new"));
    writeFile("/tmp/status/link-manager/hotlink/interface", "wwan0");
    vxtest::SyslogCapture log;
    EXPECT_EQ(IpInterfaceStatus().haveNetworkConnectivity(), 0);
    EXPECT_TRUE(log.take().empty());
}

TEST_F(StatusTree, AStrangersTreeIsNamedInTheLog) {
    makeDir("/tmp/status", 0755, stranger);
    vxtest::SyslogCapture log;
    StatusInterface status;
    EXPECT_FALSE(status.setup(BASEPATH_STATUS, "/daemon"));
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{{LOG_ERR, "Refused status path /tmp/status: \"status\" belongs to user 12345!"},
                                    {LOG_ERR, "Could not create directory /tmp/status. Errno:13!"},
                                    {LOG_ERR, "Could not setup status interface for /tmp/status!"}}));
}

TEST_F(StatusTree, AStrangersDirectoryInAnOpenTreeIsRefused) {
    for (const mode_t mode : {0777, 01777}) {
        makeDir("/tmp/status", mode);
        makeDir(daemon, 0777, stranger);
        EXPECT_EQ(misuse("/daemon"), "");
        EXPECT_EQ(misuse("/daemon/below"), "");
        EXPECT_TRUE(works("/other")) << "the tree itself is root's";
        fs::remove_all("/tmp/status");
    }
}

TEST_F(StatusTree, AStrangersLinkInThePlaceOfATreeIsRefused) {
    writeFile(ours + "/state", "secret");
    ASSERT_EQ(::symlink(dir.c_str(), "/tmp/status"), 0);
    giveTo(stranger, "/tmp/status");
    EXPECT_EQ(misuse("/ours"), "");
    fs::remove("/tmp/status");
    makeDir("/tmp/status", 0777);
    ASSERT_EQ(::symlink(ours.c_str(), daemon), 0);
    giveTo(stranger, daemon);
    EXPECT_EQ(misuse("/daemon"), "");
    EXPECT_EQ(readFile(ours + "/state"), "secret");
}

// ---- links

TEST_F(StatusTree, RootDoesNotWriteThroughTheLinksOfAnotherUsersDirectory) {
    makeDir(daemon, 0755, stranger);
    const std::string victim = ours + "/file0";
    ASSERT_EQ(::symlink(victim.c_str(), "/tmp/status/daemon/state"), 0);
    ASSERT_EQ(::symlink(ours.c_str(), "/tmp/status/daemon/sub"), 0);
    giveTo(stranger, daemon);
    StatusInterface status;
    ASSERT_TRUE(status.setup(BASEPATH_STATUS, "/daemon"));
    EXPECT_FALSE(status.setStatus("/state", "up"));
    EXPECT_FALSE(status.setStatus("/sub/file0", "up"));
    EXPECT_FALSE(status.setStatus("/sub/new", "up"));
    EXPECT_FALSE(status.setLink("/sub/file0", ""));
    EXPECT_EQ(status.setupIpcRxFifo("/sub/file0", nullptr), 0u);
    EXPECT_EQ(readFile(victim), "secret");
    EXPECT_EQ(oursLeft(), 20u);
    EXPECT_TRUE(status.setLink("/state", ""));  // the link itself may go
    EXPECT_TRUE(status.setStatus("/state", "up"));
    EXPECT_EQ(readFile("/tmp/status/daemon/state"), "up");
}

TEST_F(StatusTree, ValuesAreNotWrittenThroughLinksInAnOpenDirectory) {
    vxtest::SyslogCapture log;
    for (const mode_t mode : {0777, 01777}) {
        StatusInterface status;
        ASSERT_TRUE(status.setup(BASEPATH_STATUS, "/daemon"));
        ASSERT_EQ(::chmod(daemon, mode), 0);
        ASSERT_EQ(::symlink((ours + "/file0").c_str(), "/tmp/status/daemon/state"), 0);
        ASSERT_EQ(::symlink((ours + "/new").c_str(), "/tmp/status/daemon/new"), 0);
        for (const char *name : {"/tmp/status/daemon/state", "/tmp/status/daemon/new"}) giveTo(stranger, name);
        EXPECT_FALSE(status.setStatus("/state", "up"));
        EXPECT_FALSE(status.setStatus("/new", "up"));
        EXPECT_EQ(readFile(ours + "/file0"), "secret");
        EXPECT_FALSE(exists(ours + "/new"));
        String value;
        EXPECT_FALSE(status.getStatus("/state", value));
        EXPECT_EQ(value.length(), 0);
        EXPECT_TRUE(log.take().empty()) << "the directories of the path are safe";
        // A file of his own would stay his to change.
        ::unlink("/tmp/status/daemon/state");
        writeFile("/tmp/status/daemon/state", "mine");
        giveTo(stranger, "/tmp/status/daemon/state");
        EXPECT_FALSE(status.setStatus("/state", "up"));
        EXPECT_EQ(readFile("/tmp/status/daemon/state"), "mine");
        // The daemon's own links work.
        EXPECT_TRUE(status.setLink("/own", (ours + "/file1").c_str()));
        EXPECT_TRUE(status.setStatus("/own", "up"));
        EXPECT_EQ(readFile(ours + "/file1"), "up");
        fs::remove_all("/tmp/status");
    }
}

TEST_F(StatusTree, LinksInACircleLeadNowhere) {
    StatusInterface status;
    ASSERT_TRUE(status.setup(BASEPATH_STATUS, "/daemon"));
    ASSERT_EQ(::symlink("there", "/tmp/status/daemon/here"), 0);
    ASSERT_EQ(::symlink("here", "/tmp/status/daemon/there"), 0);
    String value("old");
    EXPECT_FALSE(status.getStatus("/here/state", value));
    EXPECT_EQ(value.length(), 0);
    EXPECT_FALSE(status.setStatus("/here/state", "up"));
}

// A directory that every user may write to is the daemon's choice (its umask). What the stranger swaps in is not used.
TEST_F(StatusTree, SwappingDirectoriesLeadsNowhere) {
    makeDir("/tmp/status", 0777);
    constexpr const char *bait = "/tmp/status/bait";
    ASSERT_EQ(::symlink(ours.c_str(), bait), 0);
    giveTo(stranger, bait);
    StatusInterface status;
    ASSERT_TRUE(status.setup(BASEPATH_STATUS, "/daemon"));
    const auto intact = [] {
        return oursLeft() == 20 && readFile(ours + "/file0") == "secret" && readFile(ours + "/file1") == "secret" &&
               fs::is_regular_file(ours + "/file2");
    };
    const Attack attack([] { swapEntries(daemon, bait); });
    repeat([&] {
        (void)status.setStatus("/file0", "up");
        (void)status.setStatus("/new", "up");
        (void)status.setLink("/file1", "target");
        (void)status.setupIpcRxFifo("/file2", nullptr);
        StatusInterface other;
        (void)other.setup(BASEPATH_STATUS, "/daemon/below");
        return intact();
    });
    EXPECT_TRUE(intact());
}

// The race of the case above at its worst moment: between the look at the directories and the opening of the file.
TEST_F(StatusTree, ADirectoryThatIsSwappedAfterTheLookIsNotUsed) {
    const std::string root = "/nvstatus";
    const std::string chosen = root + "/daemon";
    const std::string bait = root + "/bait";
    fs::remove_all(root);
    makeDir(root, 0777);
    makeDir(bait, 0777);
    giveTo(stranger, bait);
    StatusInterface status;
    ASSERT_TRUE(status.setup(BASEPATH_NVSTATUS, "/daemon"));
    bool swapped = false;
    const Hooked attack(hooks::open, [&](const char *path, int) -> std::optional<int> {
        if (!swapped && fs::path(path).filename() == "state") {
            swapped = true;
            swapEntries(chosen.c_str(), bait.c_str());
        }
        return std::nullopt;
    });
    EXPECT_TRUE(status.setStatus("/state", "up"));
    EXPECT_TRUE(swapped);
    EXPECT_EQ(readFile(bait + "/state"), "up") << "the daemon's directory, under its new name";
    EXPECT_FALSE(exists(chosen + "/state"));
    fs::remove_all(root);
}

TEST_F(StatusTree, SwappingLinksInAnOpenDirectoryWritesNothingElsewhere) {
    StatusInterface status;
    ASSERT_TRUE(status.setup(BASEPATH_STATUS, "/daemon"));
    ASSERT_EQ(::chmod(daemon, 0777), 0);
    writeFile(dir + "/honest", "");
    ASSERT_TRUE(status.setLink("/state", (dir + "/honest").c_str()));
    constexpr const char *bait = "/tmp/status/daemon/bait";
    ASSERT_EQ(::symlink((ours + "/file0").c_str(), bait), 0);
    giveTo(stranger, bait);
    const Attack attack([] { swapEntries("/tmp/status/daemon/state", bait); });
    int written = 0;
    repeat([&] {
        written += status.setStatus("/state", "up") ? 1 : 0;
        return readFile(ours + "/file0") == "secret";
    });
    EXPECT_EQ(readFile(ours + "/file0"), "secret");
    EXPECT_GT(written, 0) << "the daemon's own link works";
}

// ---- FIFOs, markers, values without end

TEST_F(StatusTree, NothingHangsAtAFifo) {
    StatusInterface status;
    ASSERT_TRUE(status.setup(BASEPATH_STATUS, "/daemon"));
    ASSERT_EQ(::chmod(daemon, 0777), 0);
    ASSERT_EQ(vxtest::asUser(stranger, [] { return ::mkfifo("/tmp/status/daemon/state", 0666); }), 0);
    EXPECT_EQ(vxtest::asUser(0,
                             [&] {
                                 String value("old");
                                 if (status.getStatus("/state", value) || value.length() != 0) return 1;
                                 return status.setStatus("/state", "up") ? 2 : 0;
                             }),
              0);
    vxtest::makeDirs("/tmp/status/link-manager/hotlink");
    ASSERT_EQ(::mkfifo("/tmp/status/link-manager/hotlink/interface", 0666), 0);
    EXPECT_EQ(vxtest::asUser(0, [] { return IpInterfaceStatus().haveNetworkConnectivity(); }), 0);
    ::unlink("/tmp/status/link-manager/hotlink/interface");
    writeFile("/tmp/status/link-manager/hotlink/interface", "wwan0");
    EXPECT_EQ(IpInterfaceStatus().haveNetworkConnectivity(), 1);
}

// A value is a message where a process reads the FIFO; a full one is not waited for.
TEST_F(StatusTree, AFifoThatIsReadTakesWhatFits) {
    StatusInterface status;
    ASSERT_TRUE(status.setup(BASEPATH_STATUS, "/daemon"));
    ASSERT_EQ(::mkfifo("/tmp/status/daemon/command", 0666), 0);
    const int reader = ::open("/tmp/status/daemon/command", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    EXPECT_TRUE(status.setStatus("/command", "on"));
    std::array<char, 8> got;
    EXPECT_EQ(::read(reader, got.data(), got.size()), 2);
    EXPECT_EQ(vxtest::asUser(0,
                             [&] {
                                 String page;
                                 while (page.length() < 4096) page += 'x';
                                 int written = 0;
                                 while (status.setStatus("/command", page)) ++written;
                                 return written > 0 && errno == EAGAIN ? 0 : 1;
                             }),
              0);
    ::close(reader);
}

// The pipe breaks between the opening of the FIFO and the write. SIGPIPE would end the daemon.
TEST_F(StatusTree, AReaderThatComesAndGoesDoesNotEndTheWriter) {
    StatusInterface status;
    ASSERT_TRUE(status.setup(BASEPATH_STATUS, "/daemon"));
    static constexpr const char *fifo = "/tmp/status/daemon/command";
    static constexpr const char *direct = "/dev/shm/command";  // written in place, not replaced
    const std::string source = ours + "/value";
    writeFile(source, "on");
    const std::vector<std::function<void(const char *)>> writers{
        [&](const char *) { (void)status.setStatus("/command", "on"); },
        [&](const char *path) { (void)copy_file(source.c_str(), path); },
        [&](const char *path) { (void)write_file_atomic(path, "on", 2, 1, 1); },
    };
    for (size_t i = 0; i < writers.size(); ++i) {
        const char *path = i == 2 ? direct : fifo;
        ::unlink(path);
        ASSERT_EQ(::mkfifo(path, 0666), 0);
        ASSERT_EQ(::chmod(path, 0666), 0);
        const auto writeWhileReaderLeaves = [&] {
            const int reader = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
            bool written = false;
            const auto leave = [&](const auto &...) -> std::optional<ssize_t> {
                if (!std::exchange(written, true)) ::close(reader);
                return std::nullopt;
            };
            const Hooked beforeWrite(hooks::write, leave);
            const Hooked beforeSendfile(hooks::sendfile, leave);
            writers[i](path);
            return written ? 0 : 1;
        };
        EXPECT_EQ(vxtest::inChild(writeWhileReaderLeaves), 0) << "writer " << i;
        ::unlink(path);
    }
}

// Directories in /tmp that are missing can be made by every user.
TEST_F(StatusTree, MarkersOfAStrangerAreNotBelieved) {
    static constexpr const char *markers[] = {"/tmp/progress/config", "/tmp/status/wwanmd/card0/suspended",
                                              "/tmp/status/wwanmd/card0/reset", "/tmp/status/link-manager/hotlink",
                                              "/tmp/status/link-manager/wanlink1/state"};
    const auto believed = [] {
        return in_maintenance() + 2 * wwanmd_is_suspended(0) + 4 * wanlink_is_up() + 8 * wanlink_count();
    };
    const auto makeAll = [] {
        for (const char *marker : markers) writeFile(marker, "up");
        return 0;
    };
    ASSERT_EQ(::chmod("/tmp", 01777), 0);
    ASSERT_EQ(vxtest::asUser(stranger, makeAll), 0);
    EXPECT_EQ(believed(), 0);
    EXPECT_EQ(wwanmd_in_reset(0), 0);
    EXPECT_EQ(vxtest::asUser(stranger, believed), 15) << "they are the stranger's own";
    fs::remove_all("/tmp/progress");
    fs::remove_all("/tmp/status");
    makeAll();
    EXPECT_EQ(believed(), 15);
    EXPECT_EQ(vxtest::asUser(stranger, believed), 15);
    fs::remove_all("/tmp/progress");
}

// Daemons that root trusts with a directory: its owner, its group.
TEST_F(StatusTree, MarkersOfThoseWhomRootGaveADirectoryAreBelieved) {
    const auto believed = [] {
        return in_maintenance() + 2 * wwanmd_is_suspended(0) + 4 * wanlink_is_up() + 8 * wanlink_count();
    };
    const auto makeAll = [] {
        writeFile("/tmp/progress/config", "");
        writeFile("/tmp/status/wwanmd/card0/suspended", "");
        writeFile("/tmp/status/link-manager/hotlink", "");
        writeFile("/tmp/status/link-manager/wanlink1/state", "up");
        return 0;
    };
    for (const mode_t mode : {0755, 0777, 01777}) {
        SCOPED_TRACE(mode);
        makeDir("/tmp/progress", 0775);
        ASSERT_EQ(::chown("/tmp/progress", 0, stranger), 0);
        makeDir("/tmp/status/wwanmd/card0", mode, stranger);
        makeDir("/tmp/status/link-manager", mode, stranger);
        ASSERT_EQ(vxtest::asUser(stranger, makeAll), 0);
        EXPECT_EQ(believed(), 15);
        EXPECT_EQ(vxtest::asUser(stranger + 1, believed), 15);
        fs::remove_all("/tmp/progress");
        fs::remove_all("/tmp/status");
    }
}

TEST_F(StatusTree, ValuesAreOfBoundedSize) {
    constexpr off_t most = 1024 * 1024;
    const vxtest::LargeFiles large;
    StatusInterface status;
    ASSERT_TRUE(status.setup(BASEPATH_STATUS, "/daemon"));
    const std::string path = "/tmp/status/daemon/state";
    vxtest::SyslogCapture log;
    for (const off_t size : {most - 1, most}) {
        writeFile(path, std::string(static_cast<size_t>(size), 'v'));
        String value;
        EXPECT_TRUE(status.getStatus("/state", value));
        EXPECT_EQ(value.length(), size);
    }
    EXPECT_TRUE(log.take().empty());
    for (const off_t size : {most + 1, off_t{1} << 40}) {
        ASSERT_EQ(::truncate(path.c_str(), size), 0);
        EXPECT_EQ(vxtest::asUser(0,
                                 [&] {
                                     String value("old");
                                     return !status.getStatus("/state", value) && value.length() == 0 ? 0 : 1;
                                 }),
                  0);
        EXPECT_EQ(log.take(),
                  (std::vector<LogLine>{{LOG_ERR, "Status file " + path + " holds more than 1048576 bytes!"}}));
    }
}

TEST_F(StatusTree, AValueWhoseSizeTheKernelDoesNotTellIsOfBoundedSize) {
    if (::access("/proc/kallsyms", R_OK) == -1) GTEST_SKIP() << "the kernel was built without its table of symbols";
    StatusInterface status;
    ASSERT_TRUE(status.setup(BASEPATH_PROC, ""));
    vxtest::SyslogCapture log;
    String value("old");
    EXPECT_FALSE(status.getStatus("/kallsyms", value));
    EXPECT_EQ(value.length(), 0);
    EXPECT_EQ(log.take(),
              (std::vector<LogLine>{{LOG_ERR, "Status file /proc/kallsyms holds more than 1048576 bytes!"}}));
}

TEST_F(StatusTree, ADeviceIsNotAValue) {
    StatusInterface status;
    ASSERT_TRUE(status.setup(BASEPATH_STATUS, "/daemon"));
    ASSERT_TRUE(status.setLink("/state", "/dev/zero"));
    EXPECT_EQ(vxtest::asUser(0,
                             [&] {
                                 String value("old");
                                 return !status.getStatus("/state", value) && value.length() == 0 ? 0 : 1;
                             }),
              0);
}

}  // namespace
