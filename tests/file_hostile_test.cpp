// SPDX-License-Identifier: MIT
// Files and directory trees of a root daemon against an ordinary user of the machine, who puts links, FIFOs and files of
// his own where the daemon works, and swaps them while it does.
#include <vxutils/file.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/statusinterface.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/files.h"
#include "support/process.h"
#include "support/stranger_files.h"
#include "support/syslog_capture.h"

namespace {

using namespace vxtest::strangers;

using vxtest::Attack;
using vxtest::exists;
using vxtest::giveTo;
using vxtest::LogLine;
using vxtest::readFile;
using vxtest::repeat;
using vxtest::stranger;
using vxtest::swapEntries;
using vxtest::writeFile;

// ---- trees

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

TEST_F(Trees, MakingNeedsNoRightToReadTheDirectoriesOfAPath) {
    makeDir(dir + "/drop", 01733);
    EXPECT_EQ(vxtest::asUser(stranger,
                             [] {
                                 std::string path = dir + "/drop/new/../other";
                                 return create_directory(path.data());
                             }),
              0);
    EXPECT_EQ(modeOf(dir + "/drop/other"), 0555u);
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
    errno = 0;
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
        errno = 0;
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

// His directory waits under the destination's name, or under the name of a directory in it, and holds his files.
TEST_F(Trees, ASecretIsNotCopiedIntoAStrangersDirectory) {
    writeFile(dir + "/source/sub/key", "secret");
    writeFile(dir + "/source/key", "secret");
    for (const mode_t mode : {0777, 01777}) {
        for (const char *level : {"", "/sub"}) {
            makeDir(dir + "/open", mode);
            const std::string copy = dir + "/open" + (*level == '\0' ? "/copy" : "");
            writeFile(copy + level + "/key", "mine");
            ASSERT_EQ(::chmod((copy + level + "/key").c_str(), 0666), 0);
            giveTo(stranger, copy + level);
            errno = 0;
            EXPECT_EQ(copy_directory((dir + "/source").c_str(), copy.c_str()), -1) << mode << level;
            EXPECT_EQ(errno, EACCES);
            EXPECT_EQ(readFile(copy + level + "/key"), "mine");
            fs::remove_all(dir + "/open");
        }
    }
}

TEST_F(Trees, ATreeIsCopiedIntoAUsersDirectoryInADirectoryOfHis) {
    writeFile(dir + "/source/sub/key", "new");
    makeDir(dir + "/home", 0777, stranger);
    makeDir(dir + "/home/copy", 0755, stranger);
    makeDir(dir + "/home/copy/sub", 0755, stranger);
    EXPECT_EQ(copy_directory((dir + "/source").c_str(), (dir + "/home/copy").c_str()), 0);
    EXPECT_EQ(readFile(dir + "/home/copy/sub/key"), "new");
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
        errno = 0;
        EXPECT_FALSE(status.setStatus("/state", "secret"));
        EXPECT_EQ(errno, EACCES);
        errno = 0;
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
        errno = 0;
        EXPECT_EQ(copy_file((dir + "/new").c_str(), (dir + "/open/copy").c_str()), -1);
        EXPECT_EQ(errno, EACCES);
        EXPECT_EQ(readFile(ours + "/file0"), "secret");
        fs::remove_all(dir + "/open");
    }
    makeDir(dir + "/closed", 0755);
    ASSERT_EQ(::link((ours + "/file0").c_str(), (dir + "/closed/copy").c_str()), 0);
    EXPECT_EQ(copy_file((dir + "/new").c_str(), (dir + "/closed/copy").c_str()), 0);
    EXPECT_EQ(readFile(ours + "/file0"), "new");
}

// ---- files

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
        errno = 0;
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
            errno = 0;
            EXPECT_EQ(read_file_lines(name.c_str(), &lines), READFILE_OPEN_FAILED);
            EXPECT_EQ(errno, EACCES);
            errno = 0;
            EXPECT_EQ(copy_file(name.c_str(), (dir + "/copy").c_str()), -1);
            EXPECT_EQ(errno, EACCES);
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

}  // namespace
