// SPDX-License-Identifier: MIT
// ProcessControl and ProcessEntry in ordinary use. The limits are in processcontrol_limits_test.cpp.
#include <sys/wait.h>
#include <unistd.h>
#include <vxutils/processcontrol.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/process.h"
#include "support/processcontrol.h"
#include "support/resources.h"

namespace {

using namespace vxtest::processes;
using testing::ElementsAre;
using testing::IsEmpty;

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
