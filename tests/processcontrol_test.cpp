// SPDX-License-Identifier: MIT
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vxutils/processcontrol.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

std::vector<ProcessEntry *> entriesOf(const ProcessControl &control) {
    std::vector<ProcessEntry *> entries;
    for (ProcessEntry *e = control.getNextProcessEntryByName(nullptr, nullptr); e != nullptr; e = e->getNext()) {
        entries.push_back(e);
    }
    return entries;
}

std::vector<int> pidsOf(const ProcessControl &control) {
    std::vector<int> pids;
    for (const ProcessEntry *entry : entriesOf(control)) pids.push_back(entry->getPid());
    return pids;
}

std::vector<std::string> namesOf(const ProcessControl &control) {
    std::vector<std::string> names;
    for (const ProcessEntry *entry : entriesOf(control)) names.emplace_back(entry->getName());
    return names;
}

// A process of /proc made by a test: a directory with the command line in it. It has a number that no real process has:
// an emulator answers itself for its own.
void addProcess(int pid, const std::string &commandLine) {
    vxtest::writeFile("/proc/" + std::to_string(pid) + "/cmdline", commandLine);
}

void removeProcess(int pid) { std::filesystem::remove_all("/proc/" + std::to_string(pid)); }

// Runs `body`, which makes its expectations itself, in a child with an empty /proc.
void withEmptyProc(const std::function<void()> &body) {
    EXPECT_EQ(vxtest::inChild([&] {
                  if (::unshare(CLONE_NEWNS) == -1) return 101;
                  if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == -1) return 102;
                  if (::mount("none", "/proc", "tmpfs", 0, nullptr) == -1) return 103;
                  body();
                  return testing::Test::HasFailure() ? 1 : 0;
              }),
              0);
}

// Counts what is asked of it, and its own end.
class CountingEntry : public ProcessEntry {
public:
    using ProcessEntry::ProcessEntry;
    ~CountingEntry() override { ++deleted; }
    int getPid() const override {
        ++asked;
        return ProcessEntry::getPid();
    }
    inline static long asked = 0;
    inline static long deleted = 0;
};

// A process that has ended and is not waited for: it has no command line, like a thread of the kernel.
class Zombie {
public:
    Zombie() : pid_(vxtest::startChild([] { return 0; })) {
        siginfo_t info{};
        ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
    }
    ~Zombie() { vxtest::waitChild(pid_); }
    Zombie(const Zombie &) = delete;
    Zombie &operator=(const Zombie &) = delete;
    int pid() const { return pid_; }

private:
    pid_t pid_;
};

// Waits until the program has taken the place of the child that was forked for it.
void waitForName(int pid, const std::string &start) {
    ASSERT_TRUE(vxtest::eventually(
        [&] { return vxtest::readFile("/proc/" + std::to_string(pid) + "/cmdline").rfind(start, 0) == 0; }));
}

// -------------------------------------------------------------------------------------------- ProcessEntry

TEST(ProcessEntry, KeepsACopyOfItsName) {
    char name[] = "init";
    const ProcessEntry entry(1, name);
    name[0] = 'x';
    EXPECT_STREQ(entry.getName(), "init");
    EXPECT_EQ(entry.getPid(), 1);
}

TEST(ProcessEntry, IsValidAndWithoutSuccessorAtFirst) {
    ProcessEntry entry(1, "init");
    EXPECT_TRUE(entry.isValid());
    EXPECT_EQ(entry.getNext(), nullptr);
    ProcessEntry next(2, "next");
    entry.setNext(&next);
    entry.setValid(false);
    EXPECT_FALSE(entry.isValid());
    EXPECT_EQ(entry.getNext(), &next);
    entry.setNext(nullptr);
    entry.setValid(true);
    EXPECT_TRUE(entry.isValid());
    EXPECT_EQ(entry.getNext(), nullptr);
}

TEST(ProcessEntry, OfNoNameIsEmpty) { EXPECT_STREQ(ProcessEntry(1, nullptr).getName(), ""); }

// ------------------------------------------------------------------------------------------------- refresh

TEST(ProcessControl, IsEmptyAtFirst) {
    ProcessControl control;
    EXPECT_EQ(control.getNumberOfProcesses(), 0);
    EXPECT_EQ(control.getNumberOfProcessesByName(""), 0);
    EXPECT_EQ(control.getNextProcessEntryByName(nullptr, nullptr), nullptr);
    EXPECT_EQ(control.getProcessEntryByPid(1), nullptr);
}

TEST(ProcessControl, AFullRefreshListsEveryRunningProcess) {
    vxtest::Process sleeper({"/bin/sleep", "300.5"});
    waitForName(sleeper.pid(), "/bin/sleep");
    ProcessControl control;
    control.refresh(false);
    ASSERT_NE(control.getProcessEntryByPid(1), nullptr);
    ASSERT_NE(control.getProcessEntryByPid(::getpid()), nullptr);
    ASSERT_NE(control.getProcessEntryByPid(sleeper.pid()), nullptr);
    EXPECT_STREQ(control.getProcessEntryByPid(sleeper.pid())->getName(), "/bin/sleep 300.5");
    const auto pids = pidsOf(control);
    EXPECT_TRUE(std::is_sorted(pids.begin(), pids.end()));
    for (ProcessEntry *entry : entriesOf(control)) EXPECT_TRUE(entry->isValid());
    EXPECT_EQ(control.getProcessEntryByPid(-1), nullptr);
}

TEST(ProcessControl, ListsProcessesWithoutCommandLineButDoesNotCountThem) {
    ProcessControl control;
    control.refresh(false);
    const int before = control.getNumberOfProcesses();
    const size_t length = entriesOf(control).size();
    const Zombie one;
    const Zombie two;
    control.refresh(false);
    EXPECT_EQ(control.getNumberOfProcesses(), before);
    EXPECT_EQ(entriesOf(control).size(), length + 2);
    EXPECT_EQ(control.getProcessEntryByPid(one.pid())->getName(), "[" + std::to_string(one.pid()) + "]");
}

TEST(ProcessControl, AnIncrementalRefreshTakesOneOffForEachDeletedEntry) {
    ProcessControl control;
    auto uncounted = std::make_unique<Zombie>();
    auto counted = std::make_unique<vxtest::Process>(std::vector<std::string>{"/bin/sleep", "300"});
    waitForName(counted->pid(), "/bin/sleep");
    control.refresh(false);
    const int before = control.getNumberOfProcesses();
    const size_t length = entriesOf(control).size();

    counted.reset();
    control.refresh(true);
    EXPECT_EQ(control.getNumberOfProcesses(), before - 1);
    uncounted.reset();  // it never was in the count: after this the count is one too low
    control.refresh(true);
    EXPECT_EQ(control.getNumberOfProcesses(), before - 2);
    EXPECT_EQ(entriesOf(control).size(), length - 2);
    control.refresh(false);
    EXPECT_EQ(control.getNumberOfProcesses(), before - 1);
}

TEST(ProcessControl, AnIncrementalRefreshKeepsTheEntriesOfLivingProcesses) {
    ProcessControl control;
    control.refresh(true);  // also as the first one
    ProcessEntry *init = control.getProcessEntryByPid(1);
    ASSERT_NE(init, nullptr);
    const int before = control.getNumberOfProcesses();
    vxtest::Process sleeper({"/bin/sleep", "300"});
    waitForName(sleeper.pid(), "/bin/sleep");
    control.refresh(true);
    EXPECT_EQ(control.getProcessEntryByPid(1), init);
    EXPECT_EQ(control.getNumberOfProcesses(), before + 1);
    EXPECT_EQ(pidsOf(control).back(), sleeper.pid());
    for (ProcessEntry *entry : entriesOf(control)) EXPECT_TRUE(entry->isValid());
}

TEST(ProcessControl, AnIncrementalRefreshDoesNotReadNamesAgain) {
    withEmptyProc([] {
        ProcessControl control;
        addProcess(700005, std::string("old\0", 4));
        control.refresh(false);
        addProcess(700005, std::string("new\0", 4));
        control.refresh(true);
        EXPECT_THAT(namesOf(control), ElementsAre("old"));
        control.refresh(false);
        EXPECT_THAT(namesOf(control), ElementsAre("new"));
    });
}

TEST(ProcessControl, NamesAreCommandLinesWithBlanks) {
    const std::pair<std::string, std::string> lines[] = {
        {std::string("prog\0-a\0b c\0", 12), "prog -a b c"},
        {"no terminator", "no terminator"},
        {std::string("two\0\0", 5), "two "},
        {"blank at the end ", "blank at the end"},
        {std::string("\0", 1), ""},
        {std::string("\0\0", 2), " "},
        {std::string("\0first empty\0", 13), " first empty"},
        {std::string(254, 'x') + std::string("\0", 1), std::string(254, 'x')},
        {std::string(255, 'x'), std::string(255, 'x')},
        {std::string(256, 'x'), std::string(255, 'x')},
        {std::string(254, 'x') + std::string("\0yz", 3), std::string(254, 'x')},
        {std::string(10000, 'x'), std::string(255, 'x')},
        {"", "[700005]"},
    };
    for (const auto &line : lines) {
        withEmptyProc([&] {
            ProcessControl control;
            addProcess(700005, line.first);
            control.refresh(false);
            EXPECT_THAT(namesOf(control), ElementsAre(line.second));
            EXPECT_EQ(control.getNumberOfProcesses(), line.first.empty() ? 0 : 1);
        });
    }
}

TEST(ProcessControl, TakesDirectoriesWithNumericNamesOnly) {
    withEmptyProc([] {
        for (const char *name : {"self", "700005a", "-700005", "0x700005", " 700005", "700005 "}) {
            vxtest::writeFile("/proc/" + std::string(name) + "/cmdline", "no");
        }
        vxtest::writeFile("/proc/700077", "a file");
        addProcess(700006, "yes");
        EXPECT_EQ(::symlink("700006", "/proc/700078"), 0);
        EXPECT_EQ(::mkdir("/proc/700079", 0755), 0);  // without command line file: as a process that has just ended
        vxtest::writeFile("/proc/99999999999999999999/cmdline", "no such number");
        ProcessControl control;
        control.refresh(false);
        EXPECT_THAT(pidsOf(control), ElementsAre(700006));
        EXPECT_THAT(namesOf(control), ElementsAre("yes"));
        EXPECT_EQ(control.getNumberOfProcesses(), 1);
    });
}

TEST(ProcessControl, ReadsTheProcessOfTheNumberWhateverTheDirectoryIsCalled) {
    withEmptyProc([] {
        vxtest::writeFile("/proc/0700007/cmdline", "of the padded one");
        ProcessControl control;
        control.refresh(false);
        EXPECT_THAT(pidsOf(control), IsEmpty());
        addProcess(700007, "");
        control.refresh(false);
        EXPECT_THAT(namesOf(control), UnorderedElementsAre("[700007]", "[0700007]"));
    });
}

TEST(ProcessControl, FollowsProcessesThatComeAndGoInAnyOrder) {
    withEmptyProc([] {
        ProcessControl control;
        std::vector<int> alive;
        unsigned int random = 12345;
        for (int round = 0; round < 40; ++round) {
            for (int i = 0; i < 30; ++i) {
                random = random * 1103515245 + 12345;
                const int pid = static_cast<int>(random >> 16) % 200 + 700001;
                const auto found = std::find(alive.begin(), alive.end(), pid);
                if (found == alive.end()) {
                    addProcess(pid, "p" + std::to_string(pid));
                    alive.push_back(pid);
                } else {
                    removeProcess(pid);
                    alive.erase(found);
                }
            }
            const auto before = pidsOf(control);
            control.refresh(true);
            EXPECT_THAT(pidsOf(control), testing::UnorderedElementsAreArray(alive));
            EXPECT_EQ(control.getNumberOfProcesses(), static_cast<int>(alive.size()));
            // those that stayed keep their order, new ones are after them
            std::vector<int> expected;
            for (const int pid : before) {
                if (std::find(alive.begin(), alive.end(), pid) != alive.end()) expected.push_back(pid);
            }
            auto now = pidsOf(control);
            ASSERT_GE(now.size(), expected.size());
            now.resize(expected.size());
            EXPECT_EQ(now, expected);
            for (const int pid : alive) {
                EXPECT_EQ(control.getProcessEntryByPid(pid)->getName(), "p" + std::to_string(pid));
            }
        }
    });
}

TEST(ProcessControl, AsksEachEntryAFewTimesOnlyHoweverLongTheList) {
    constexpr int many = 3000;
    for (const bool sameOrder : {true, false}) {
        withEmptyProc([&] {
            addProcess(1, "init");
            ProcessControl control;
            control.refresh(false);
            for (int pid = 2; pid <= many; ++pid) EXPECT_EQ(::mkdir(("/proc/" + std::to_string(pid)).c_str(), 0755), 0);
            std::vector<int> order;
            for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
                order.push_back(std::stoi(entry.path().filename()));
            }
            if (!sameOrder) std::reverse(order.begin(), order.end());
            ProcessEntry *tail = control.getProcessEntryByPid(1);
            for (const int pid : order) {
                if (pid == 1) continue;
                tail->setNext(new CountingEntry(pid, "x"));
                tail = tail->getNext();
            }
            CountingEntry::asked = 0;
            control.refresh(true);
            EXPECT_LT(CountingEntry::asked, 4L * many);
            EXPECT_EQ(entriesOf(control).size(), static_cast<size_t>(many));
        });
    }
}

TEST(ProcessControl, AFullRefreshWithoutProcIsEmpty) {
    ProcessControl control;
    withEmptyProc([&] {
        control.refresh(false);
        EXPECT_THAT(pidsOf(control), IsEmpty());
    });
    control.refresh(false);
    EXPECT_EQ(vxtest::inChild([&] {
                  if (::chroot("/tmp") == -1) return 1;
                  control.refresh(false);
                  return control.getNumberOfProcesses() == 0 && pidsOf(control).empty() ? 0 : 2;
              }),
              0);
}

TEST(ProcessControl, AnIncrementalRefreshWithoutProcKeepsAllEntriesAsNotValid) {
    ProcessControl control;
    control.refresh(false);
    EXPECT_EQ(vxtest::inChild([&] {
                  const int count = control.getNumberOfProcesses();
                  const auto pids = pidsOf(control);
                  if (::chroot("/tmp") == -1) return 1;
                  control.refresh(true);
                  if (control.getNumberOfProcesses() != count || pidsOf(control) != pids || pids.empty()) return 2;
                  const auto entries = entriesOf(control);
                  return std::any_of(entries.begin(), entries.end(), [](ProcessEntry *e) { return e->isValid(); }) ? 3
                                                                                                                   : 0;
              }),
              0);
}

TEST(ProcessControl, LeavesNoDescriptorOpen) {
    const vxtest::NoLeaks leaks;
    ProcessControl control;
    for (int i = 0; i < 20; ++i) control.refresh(i % 2 == 0);
}

// ------------------------------------------------------------------------------------------------- cleanup

TEST(ProcessControl, CleanupDeletesEveryEntryAndTheCount) {
    ProcessControl control;
    control.refresh(false);
    EXPECT_GT(control.getNumberOfProcesses(), 0);
    control.cleanup();
    EXPECT_EQ(control.getNumberOfProcesses(), 0);
    EXPECT_THAT(pidsOf(control), IsEmpty());
    control.cleanup();
    control.refresh(true);
    EXPECT_GT(control.getNumberOfProcesses(), 0);
}

TEST(ProcessControl, DeletesEntriesThroughTheirVirtualDestructor) {
    CountingEntry::deleted = 0;
    {
        ProcessControl control;
        control.refresh(false);
        entriesOf(control).back()->setNext(new CountingEntry(-7, "never there"));
        control.refresh(true);
        EXPECT_EQ(CountingEntry::deleted, 1);
        entriesOf(control).back()->setNext(new CountingEntry(-7, "never there"));
        control.cleanup();
        EXPECT_EQ(CountingEntry::deleted, 2);
        control.refresh(false);
        entriesOf(control).back()->setNext(new CountingEntry(-7, "never there"));
    }
    EXPECT_EQ(CountingEntry::deleted, 3);
}

// ------------------------------------------------------------------------------------------- finding by name

class ProcessNames : public testing::Test {
protected:
    // Names in the order of the list.
    void list(const std::vector<std::string> &names) {
        control_.refresh(false);
        ProcessEntry *tail = entriesOf(control_).back();
        int pid = 100000;
        for (const std::string &name : names) {
            tail->setNext(new ProcessEntry(++pid, name.c_str()));
            tail = tail->getNext();
        }
    }
    ProcessControl control_;
};

TEST_F(ProcessNames, AreFoundByTheirBeginning) {
    list({"/opt/a/one", "/opt/a/two x", "nice /opt/a/one", "/opt/b"});
    EXPECT_EQ(control_.getNumberOfProcessesByName("/opt/a/"), 2);
    EXPECT_EQ(control_.getNumberOfProcessesByName("/opt/a/one"), 1);
    EXPECT_EQ(control_.getNumberOfProcessesByName("/opt/a/one "), 0);
    EXPECT_EQ(control_.getNumberOfProcessesByName("opt"), 0);
    EXPECT_EQ(control_.getNumberOfProcessesByName(""), static_cast<int>(entriesOf(control_).size()));
    EXPECT_EQ(control_.getNumberOfProcessesByName(nullptr), static_cast<int>(entriesOf(control_).size()));
}

TEST_F(ProcessNames, AreFoundOneAfterTheOther) {
    list({"/opt/a/one", "/opt/b", "/opt/a/two", "x /opt/a/three"});
    const ProcessEntry *entry = control_.getNextProcessEntryByName("/opt/a/", nullptr);
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->getName(), "/opt/a/one");
    entry = control_.getNextProcessEntryByName("/opt/a/", entry);
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->getName(), "/opt/a/two");
    EXPECT_EQ(control_.getNextProcessEntryByName("/opt/a/", entry), nullptr);
}

TEST_F(ProcessNames, WithoutPrefixGiveEveryEntry) {
    list({"one", "two"});
    const auto entries = entriesOf(control_);
    EXPECT_EQ(control_.getNextProcessEntryByName(nullptr, nullptr), entries.front());
    EXPECT_EQ(control_.getNextProcessEntryByName(nullptr, entries.front()), entries[1]);
    EXPECT_EQ(control_.getNextProcessEntryByName(nullptr, entries.back()), nullptr);
}

TEST_F(ProcessNames, AreNotSearchedAfterAnEntryOfAnotherList) {
    const ProcessEntry stranger(1, "x");
    EXPECT_EQ(control_.getNextProcessEntryByName("x", &stranger), nullptr);
    list({"x"});
    EXPECT_EQ(control_.getNextProcessEntryByName("x", &stranger), nullptr);
    EXPECT_EQ(control_.getNextProcessEntryByName(nullptr, &stranger), nullptr);
}

TEST(ProcessControl, CountsRealProcessesByName) {
    vxtest::Process one({"/bin/sleep", "301.25"});
    vxtest::Process two({"/bin/sleep", "301.25"});
    vxtest::Process three({"/bin/sh", "-c", "read line # /bin/sleep 301.25"});
    for (const auto *process : {&one, &two}) waitForName(process->pid(), "/bin/sleep");
    waitForName(three.pid(), "/bin/sh");
    ProcessControl control;
    control.refresh(false);
    EXPECT_EQ(control.getNumberOfProcessesByName("/bin/sleep 301.25"), 2);
}

TEST(ProcessControl, IsNumericForDecimalDigitsOnly) {
    const ProcessControl control;
    for (const char *text : {"", "0", "0123456789", "99999999999999999999999"}) EXPECT_TRUE(control.isNumeric(text));
    for (const char *text : {"a", "1a", "-1", "+1", " 1", "1 ", "1.0", "/", ":", "\xb2"}) {
        EXPECT_FALSE(control.isNumeric(text)) << text;
    }
    EXPECT_FALSE(control.isNumeric(nullptr));
}

// -------------------------------------------------------------------------------------------- own operations

// Counts what refresh() asks of itself, and hides a process from it.
class Subclass : public ProcessControl {
public:
    void cleanup() override {
        ++cleanups;
        ProcessControl::cleanup();
    }
    ProcessEntry *getProcessEntryByPid(int pid) override {
        ++lookups;
        return pid == hidden ? nullptr : ProcessControl::getProcessEntryByPid(pid);
    }
    int cleanups = 0;
    int lookups = 0;
    int hidden = -1;
};

TEST(ProcessControl, RefreshGoesThroughItsOwnVirtualOperations) {
    Subclass control;
    control.refresh(false);
    EXPECT_EQ(control.cleanups, 1);
    EXPECT_EQ(control.lookups, 0);
    const auto before = entriesOf(control);
    control.refresh(true);
    EXPECT_EQ(control.cleanups, 1);
    EXPECT_EQ(control.lookups, static_cast<int>(before.size()));
    EXPECT_EQ(entriesOf(control), before);

    // A process that is not found is taken for a new one: its old entry goes, another one comes at the end.
    control.hidden = 1;
    const int count = control.getNumberOfProcesses();
    control.refresh(true);
    EXPECT_EQ(entriesOf(control).size(), before.size());
    EXPECT_EQ(pidsOf(control).back(), 1);
    EXPECT_EQ(control.getNumberOfProcesses(), count);
}

TEST(ProcessControl, TwoListsOfOneThreadDoNotMeet) {
    class Outer : public ProcessControl {
    public:
        ProcessEntry *getProcessEntryByPid(int pid) override {
            inner.refresh(true);
            return ProcessControl::getProcessEntryByPid(pid);
        }
        ProcessControl inner;
    };
    Outer outer;
    outer.refresh(false);
    const auto before = entriesOf(outer);
    outer.refresh(true);
    EXPECT_EQ(entriesOf(outer), before);
    EXPECT_EQ(pidsOf(outer.inner), pidsOf(outer));
}

// ------------------------------------------------------------------------------------------------- example

TEST(ProcessControlExample, ReportsWhatCameAndWent) {
    vxtest::Process watch({vxtest::built("examples/processcontrol_watch"), "/bin/sleep 302"});
    EXPECT_EQ(watch.readLine(), "0 of /bin/sleep 302");
    {
        vxtest::Process one({"/bin/sleep", "302"});
        vxtest::Process two({"/bin/sleep", "302"});
        for (const auto *process : {&one, &two}) waitForName(process->pid(), "/bin/sleep");
        watch.send("\n");
        EXPECT_EQ(watch.readLine(),
                  "2 of /bin/sleep 302: " + std::to_string(one.pid()) + " " + std::to_string(two.pid()));
    }
    watch.send("\n");
    EXPECT_EQ(watch.readLine(), "0 of /bin/sleep 302");
    watch.closeInput();
    EXPECT_EQ(watch.wait(), 0);
}

}  // namespace
