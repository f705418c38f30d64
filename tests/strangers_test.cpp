// SPDX-License-Identifier: MIT
// Files, directory trees and the status tree of a root daemon against an ordinary user of the machine, who puts links,
// FIFOs and files of his own where the daemon works, and swaps them while it does.
#include <vxutils/file.h>
#include <vxutils/hardware.h>
#include <vxutils/interface.h>
#include <vxutils/ipinterfacestatus.h>
#include <vxutils/statusinterface.h>
#include <vxutils/wwanmd.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/stranger.h"
#include "support/syslog_capture.h"
#include "support/text.h"

namespace {
std::function<void()> beforeWriting;  // called in place of an attacker who wins the race

void reachWriting() {
    if (beforeWriting) std::exchange(beforeWriting, nullptr)();
}
}  // namespace

extern "C" ssize_t write(int fd, const void *data, size_t size) {
    reachWriting();
    return ::syscall(SYS_write, fd, data, size);
}

extern "C" ssize_t sendfile(int out, int in, void *offset, size_t count) {
    reachWriting();
    return reinterpret_cast<decltype(&sendfile)>(::dlsym(RTLD_NEXT, "sendfile"))(out, in, offset, count);
}
extern "C" ssize_t sendfile64(int out, int in, void *offset, size_t count) {
    reachWriting();
    return reinterpret_cast<decltype(&sendfile64)>(::dlsym(RTLD_NEXT, "sendfile64"))(out, in, offset, count);
}

namespace {

namespace fs = std::filesystem;
using vxtest::Attack;
using vxtest::exists;
using vxtest::giveTo;
using vxtest::LogLine;
using vxtest::readFile;
using vxtest::repeat;
using vxtest::stranger;
using vxtest::swapEntries;
using vxtest::textf;
using vxtest::writeFile;

const std::string dir = "/tmp/strangers";
const std::string theirs = dir + "/theirs";  // the stranger's own directory
const std::string ours = dir + "/ours";      // where only root may look

mode_t modeOf(const std::string &path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

void makeDir(const std::string &path, mode_t mode, uid_t owner = 0) {
    vxtest::makeDirs(path);
    ASSERT_EQ(::chown(path.c_str(), owner, owner), 0);
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
}

class Strangers : public testing::Test {
protected:
    void SetUp() override {
        if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
        ::umask(022);
        fs::remove_all(dir);
        fs::remove_all("/tmp/status");
        makeDir(theirs, 0755, stranger);
        makeDir(ours, 0700);
        for (int i = 0; i < 20; ++i) writeFile(ours + "/file" + std::to_string(i), "secret");
    }
    void TearDown() override {
        fs::remove_all("/tmp/status");
        fs::remove_all(dir);
    }

    static size_t oursLeft() { return static_cast<size_t>(std::distance(fs::directory_iterator(ours), {})); }

    vxtest::NoLeaks noLeaks_;
};

// ---- trees ----

class Trees : public Strangers {
protected:
    // A directory of the stranger's that root is about to work on, and the link that he swaps it for.
    static constexpr const char *sub = "/tmp/strangers/theirs/tree/sub";
    static constexpr const char *bait = "/tmp/strangers/theirs/bait";

    static void makeTree() {
        for (int i = 0; i < 20; ++i) writeFile(sub + ("/file" + std::to_string(i)), "his");
        giveTo(stranger, theirs + "/tree");
        if (::symlink(ours.c_str(), bait) == 0) giveTo(stranger, bait);
    }
    static void swap() { swapEntries(sub, bait); }
};

TEST_F(Trees, DeletingFollowsNoLinkThatTakesADirectorysPlace) {
    makeTree();
    const Attack attack(swap);
    int rounds = 0;
    repeat([&] {
        makeTree();
        (void)delete_directory((theirs + "/tree").c_str());
        return ++rounds > 0 && oursLeft() == 20;
    });
    EXPECT_EQ(oursLeft(), 20u) << "after " << rounds << " rounds";
}

TEST_F(Trees, EmptyingFollowsNoLinkThatTakesADirectorysPlace) {
    makeTree();
    const Attack attack(swap);
    repeat([&] {
        makeTree();
        (void)delete_directory_contents((theirs + "/tree").c_str());
        return oursLeft() == 20;
    });
    EXPECT_EQ(oursLeft(), 20u);
}

TEST_F(Trees, AStrangersLinkIsNotFollowedToBeEmptied) {
    ASSERT_EQ(::symlink(ours.c_str(), bait), 0);
    giveTo(stranger, bait);
    for (const char *slashes : {"", "/"}) {
        EXPECT_EQ(delete_directory_contents((bait + std::string(slashes)).c_str()), 0);
        EXPECT_EQ(oursLeft(), 20u);
    }
    EXPECT_EQ(delete_directory((bait + std::string("/")).c_str()), 0);
    EXPECT_EQ(oursLeft(), 20u);
    EXPECT_FALSE(exists(bait));
}

TEST_F(Trees, AModeIsNeverSetThroughALink) {
    const std::string made = theirs + "/made";
    const std::string secret = ours + "/file0";
    ASSERT_EQ(::chmod(secret.c_str(), 0600), 0);
    const Attack attack([&] {
        if (::symlink(secret.c_str(), bait) == -1 && errno != EEXIST) ::_exit(1);
        swapEntries(made.c_str(), bait);
    });
    repeat([&] {
        ::unlink(made.c_str());
        ::rmdir(made.c_str());
        ::rmdir(bait);
        (void)try_mkdir(made.c_str());
        return modeOf(secret) == 0600;
    });
    EXPECT_EQ(modeOf(secret), 0600u);
}

// A directory of root's in the same place instead of a link.
TEST_F(Trees, AModeIsNeverSetOnAnotherDirectory) {
    for (const mode_t mode : {0700, 0500}) {
        const std::string made = theirs + "/made";
        const std::string secret = theirs + "/secret";
        makeDir(secret, mode);
        writeFile(secret + "/file", "");
        const int held = ::open(secret.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        const auto kept = [&] {
            struct stat status {};
            return ::fstat(held, &status) == 0 && (status.st_mode & 07777) == mode;
        };
        {
            const Attack attack([&] { swapEntries(made.c_str(), secret.c_str()); });
            repeat([&] {
                ::rmdir(made.c_str());
                ::rmdir(secret.c_str());
                (void)try_mkdir(made.c_str());
                return kept();
            });
        }
        EXPECT_TRUE(kept());
        ::close(held);
        fs::remove_all(made);
        fs::remove_all(secret);
    }
}

TEST_F(Trees, MakingGoesOnInWhatItMade) {
    static const std::string made = theirs + "/made";
    const auto isDirectory = [](const std::string &path) {
        struct stat status {};
        return ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    };
    const Attack attack([&] {
        if (isDirectory(made)) swapEntries(made.c_str(), bait);
    });
    repeat([&] {
        std::error_code ignored;
        while (exists(made)) fs::remove_all(made, ignored);
        fs::remove_all(bait, ignored);
        if (::symlink(ours.c_str(), bait) == -1) return false;
        std::string path = made + "/x/y/z";
        (void)create_directory(path.data());
        return !exists(ours + "/x");
    });
    EXPECT_FALSE(exists(ours + "/x"));
}

TEST_F(Trees, CopiesAreNotLedElsewhere) {
    const std::string source = dir + "/source";
    for (int i = 0; i < 20; ++i) writeFile(source + "/sub/new" + std::to_string(i), "new");
    makeTree();
    const Attack attack(swap);
    repeat([&] {
        (void)copy_directory(source.c_str(), (theirs + "/tree").c_str());
        return oursLeft() == 20 && modeOf(ours) == 0700;
    });
    EXPECT_EQ(oursLeft(), 20u);
    EXPECT_EQ(modeOf(ours), 0700u);
}

TEST_F(Trees, CopiesMadeAnewSetNoModeElsewhere) {
    vxtest::makeDirs(dir + "/source");
    const std::string made = theirs + "/made";
    const Attack attack([&] {
        if (::symlink(ours.c_str(), bait) == -1 && errno != EEXIST) ::_exit(1);
        swapEntries(made.c_str(), bait);
    });
    repeat([&] {
        ::unlink(made.c_str());
        ::rmdir(made.c_str());
        ::rmdir(bait);
        (void)copy_directory((dir + "/source").c_str(), made.c_str());
        return modeOf(ours) == 0700;
    });
    EXPECT_EQ(modeOf(ours), 0700u);
}

TEST_F(Trees, CopiesHoldNothingThatASwappedInLinkLeadsTo) {
    makeTree();
    const std::string copy = dir + "/copy";
    const Attack attack(swap);
    const auto leaked = [&] {
        for (int i = 0; i < 20; ++i) {
            if (readFile(copy + "/sub/file" + std::to_string(i)) == "secret") return true;
        }
        return false;
    };
    repeat([&] {
        fs::remove_all(copy);
        (void)copy_directory((theirs + "/tree").c_str(), copy.c_str());
        return !leaked();
    });
    EXPECT_FALSE(leaked());
}

TEST_F(Trees, CopiesAreNotWrittenThroughAStrangersLink) {
    writeFile(dir + "/source/file", "new");
    const std::string link = theirs + "/file";
    ASSERT_EQ(::symlink((ours + "/file0").c_str(), link.c_str()), 0);
    giveTo(stranger, link);
    vxtest::SyslogCapture log;
    EXPECT_EQ(copy_file((dir + "/source/file").c_str(), link.c_str()), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(
        log.take(),
        (std::vector<LogLine>{{LOG_ERR, "Destination file " + link + " could not be opened: Permission denied (13)"}}));
    EXPECT_EQ(copy_directory((dir + "/source").c_str(), theirs.c_str()), -1);
    EXPECT_EQ(readFile(ours + "/file0"), "secret");
    // Root's own link in front of it does not help.
    ASSERT_EQ(::symlink(link.c_str(), (dir + "/own").c_str()), 0);
    EXPECT_EQ(copy_file((dir + "/source/file").c_str(), (dir + "/own").c_str()), -1);
    EXPECT_EQ(readFile(ours + "/file0"), "secret");
}

TEST_F(Trees, ASecretIsNotCopiedIntoAStrangersFile) {
    for (const mode_t mode : {0777, 01777}) {
        makeDir(dir + "/open", mode);
        writeFile(dir + "/open/copy", "mine");
        giveTo(stranger, dir + "/open/copy");
        EXPECT_EQ(copy_file((ours + "/file0").c_str(), (dir + "/open/copy").c_str()), -1);
        EXPECT_EQ(errno, EACCES);
        EXPECT_EQ(readFile(dir + "/open/copy"), "mine");
        // Nor through root's own link to it: /etc/resolv.conf, for example.
        ASSERT_EQ(::symlink("open/copy", (dir + "/link").c_str()), 0);
        EXPECT_EQ(copy_file((ours + "/file0").c_str(), (dir + "/link").c_str()), -1);
        EXPECT_EQ(readFile(dir + "/open/copy"), "mine");
        fs::remove(dir + "/link");
        fs::remove_all(dir + "/open");
    }
}

TEST_F(Trees, NothingIsWrittenIntoAStrangersFifo) {
    static const std::array<std::string, 3> fifos{dir + "/open/fifo", "/tmp/status/daemon/state", "/dev/shm/fifo"};
    StatusInterface status;
    ASSERT_TRUE(status.setup(BASEPATH_STATUS, "/daemon"));
    for (const mode_t mode : {0777, 01777}) {
        makeDir(dir + "/open", mode);
        ASSERT_EQ(::chmod("/tmp/status/daemon", mode), 0);
        const vxtest::Attack reading([] {
            [[maybe_unused]] static const bool open = [] {
                for (const std::string &fifo : fifos) {
                    if (::mkfifo(fifo.c_str(), 0666) == -1 || ::open(fifo.c_str(), O_RDWR | O_CLOEXEC) == -1)
                        ::_exit(1);
                }
                return true;
            }();
            ::usleep(1000);
        });
        errno = 0;
        EXPECT_EQ(copy_file((ours + "/file0").c_str(), fifos[0].c_str()), -1);
        EXPECT_EQ(errno, EACCES);
        EXPECT_FALSE(status.setStatus("/state", "secret"));
        EXPECT_EQ(errno, EACCES);
        EXPECT_EQ(write_file_atomic(fifos[2].c_str(), "secret", 6, 0, 1), -1);
        EXPECT_EQ(errno, EACCES);
        for (const std::string &fifo : fifos) ::unlink(fifo.c_str());
    }
}

// Where the kernel lets users link what is not theirs (fs.protected_hardlinks = 0).
TEST_F(Trees, ASecondNameInAnOpenDirectoryIsNotWritten) {
    writeFile(dir + "/new", "new");
    for (const auto &[mode, owner] :
         std::array<std::pair<mode_t, uid_t>, 3>{{{0777, 0}, {01777, 0}, {0755, stranger}}}) {
        makeDir(dir + "/open", mode, owner);
        ASSERT_EQ(::link((ours + "/file0").c_str(), (dir + "/open/copy").c_str()), 0);
        EXPECT_EQ(copy_file((dir + "/new").c_str(), (dir + "/open/copy").c_str()), -1);
        EXPECT_EQ(readFile(ours + "/file0"), "secret");
        fs::remove_all(dir + "/open");
    }
    makeDir(dir + "/closed", 0755);
    ASSERT_EQ(::link((ours + "/file0").c_str(), (dir + "/closed/copy").c_str()), 0);
    EXPECT_EQ(copy_file((dir + "/new").c_str(), (dir + "/closed/copy").c_str()), 0);
    EXPECT_EQ(readFile(ours + "/file0"), "new");
}

// ---- files ----

using FilesOfStrangers = Strangers;

TEST_F(FilesOfStrangers, TheDirectWriteFollowsNoLinkOfTheirs) {
    const std::string victim = ours + "/file0";
    makeDir(dir + "/open", 0777);
    // A name so long that no temporary file can lie beside it.
    const std::string longName = dir + "/open/" + std::string(250, 'n');
    vxtest::SyslogCapture log;
    for (const std::string &target : {std::string("/dev/shm/link"), longName}) {
        ASSERT_EQ(::symlink(victim.c_str(), target.c_str()), 0);
        giveTo(stranger, target);
        EXPECT_EQ(write_file_atomic(target.c_str(), "x", 1, 1, 1), -1);
        EXPECT_EQ(errno, EACCES);
        EXPECT_EQ(readFile(victim), "secret");
        EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR, "Unable to open file (" + target +
                                                                  ") for writing - errno=13(Permission denied)"}}));
        ::unlink(target.c_str());
        // Root's own link is followed.
        ASSERT_EQ(::symlink(victim.c_str(), target.c_str()), 0);
        EXPECT_EQ(write_file_atomic(target.c_str(), "secret", 6, 0, 1), 0);
        (void)log.take();
        ::unlink(target.c_str());
    }
}

TEST_F(FilesOfStrangers, TheDirectWriteWaitsForNoReader) {
    ASSERT_EQ(::mkfifo("/dev/shm/fifo", 0666), 0);
    giveTo(stranger, "/dev/shm/fifo");
    EXPECT_EQ(vxtest::asUser(0, [] { return writefile("/dev/shm/fifo", "x") == -1 && errno == ENXIO ? 0 : 1; }), 0);
    ::unlink("/dev/shm/fifo");
}

TEST_F(FilesOfStrangers, SecretsAreNotReadThroughLinksOfTheirs) {
    for (const mode_t mode : {0777, 01777}) {
        makeDir(dir + "/open", mode);
        const std::string link = dir + "/open/value";
        ASSERT_EQ(::symlink((ours + "/file0").c_str(), link.c_str()), 0);
        ASSERT_EQ(::symlink("open/value", (dir + "/own").c_str()), 0);
        EXPECT_STREQ(readfile(link.c_str()), "secret") << "root's own link";
        giveTo(stranger, link);
        for (const std::string &name : {link, dir + "/own"}) {
            EXPECT_STREQ(readfile(name.c_str()), "");
            EXPECT_EQ(errno, EACCES);
            list_link lines{&lines, &lines};
            EXPECT_EQ(read_file_lines(name.c_str(), &lines), READFILE_OPEN_FAILED);
            EXPECT_EQ(copy_file(name.c_str(), (dir + "/copy").c_str()), -1);
        }
        fs::remove(dir + "/own");
        fs::remove_all(dir + "/open");
    }
}

TEST_F(FilesOfStrangers, SwappingLinksShowsNoSecret) {
    makeDir(dir + "/open", 0777);
    writeFile(dir + "/honest", "honest");
    static const std::string value = dir + "/open/value";
    static const std::string bait = dir + "/open/bait";
    ASSERT_EQ(::symlink((dir + "/honest").c_str(), value.c_str()), 0);
    ASSERT_EQ(::symlink((ours + "/file0").c_str(), bait.c_str()), 0);
    giveTo(stranger, bait);
    const Attack attack([] { swapEntries(value.c_str(), bait.c_str()); });
    int honest = 0;
    int secret = 0;
    repeat([&] {
        const std::string text = readfile(value.c_str());
        honest += text == "honest" ? 1 : 0;
        secret += text == "secret" ? 1 : 0;
        return secret == 0;
    });
    EXPECT_EQ(secret, 0);
    EXPECT_GT(honest, 0);
}

// The kernel lets an owner hold up every user who opens his file, for 45 s unless told otherwise.
TEST_F(FilesOfStrangers, ALeaseIsNotWaitedFor) {
    const std::string leased = theirs + "/leased";
    writeFile(leased, "42");
    giveTo(stranger, leased);
    std::array<int, 2> ready;
    ASSERT_EQ(::pipe2(ready.data(), O_CLOEXEC), 0);
    const pid_t holder = vxtest::startChild([&] {
        if (!vxtest::becomeUser(stranger)) return 100;
        ::signal(SIGIO, SIG_IGN);
        const int fd = ::open(leased.c_str(), O_RDWR | O_CLOEXEC);
        const char result = ::fcntl(fd, F_SETLEASE, F_WRLCK) == 0 ? 'y' : 'n';
        (void)!::write(ready[1], &result, 1);
        ::sleep(120);
        return 0;
    });
    char result = 0;
    ASSERT_EQ(::read(ready[0], &result, 1), 1);
    if (result == 'y') {
        EXPECT_EQ(vxtest::asUser(0,
                                 [&] {
                                     ::alarm(20);
                                     if (*readfile(leased.c_str()) != '\0') return 1;
                                     if (copy_file(leased.c_str(), (dir + "/copy").c_str()) != -1) return 2;
                                     return copy_file((ours + "/file0").c_str(), leased.c_str()) == -1 ? 0 : 3;
                                 }),
                  0);
    }
    ::kill(holder, SIGKILL);
    vxtest::waitChild(holder);
    ::close(ready[0]);
    ::close(ready[1]);
    if (result != 'y') GTEST_SKIP() << "this file system has no leases";
}

// ---- the status tree ----

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
    EXPECT_EQ(log.take(), (std::vector<LogLine>{{LOG_ERR,
                                                 "Refused status path /tmp/status/link-manager/hotlink/interface: "
                                                 "\"status\" belongs to user 12345!"}}));
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
            beforeWriting = [&] { ::close(reader); };
            writers[i](path);
            return beforeWriting ? 1 : 0;  // 1: it did not come to the writing
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

TEST_F(StatusTree, ValuesAreOfBoundedSize) {
    constexpr off_t most = 1024 * 1024;
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

}  // namespace
