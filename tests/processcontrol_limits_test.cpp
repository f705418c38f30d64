// SPDX-License-Identifier: MIT
// ProcessControl: odd command lines and directory names, long lists, no /proc, and a refresh during another one.
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/processcontrol.h>

#include <algorithm>
#include <filesystem>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/call_hooks.h"
#include "support/close_on_exec.h"
#include "support/files.h"
#include "support/process.h"
#include "support/processcontrol.h"
#include "support/short_objects.h"

VXTEST_HOOK(char *, strdup, (const char *text), (text))

namespace {

using namespace vxtest::processes;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

void removeProcess(int pid) { std::filesystem::remove_all("/proc/" + std::to_string(pid)); }

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

TEST(ProcessControl, ANameThatMemoryDoesNotHoldIsEmpty) {
    withEmptyProc([] {
        ProcessControl control;
        addProcess(700005, "prog");
        {
            const vxtest::Hooked full(vxtest::hooks::strdup,
                                      [](const char *) -> std::optional<char *> { return nullptr; });
            control.refresh(false);
        }
        EXPECT_THAT(namesOf(control), ElementsAre(""));
        EXPECT_EQ(control.getNumberOfProcesses(), 1);
        EXPECT_EQ(control.getNumberOfProcessesByName("prog"), 0);
    });
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

TEST(ProcessControl, AProcessThatEndsWhileItIsReadIsLeftOut) {
    withEmptyProc([] {
        ProcessControl control;
        addProcess(700001, "first");
        std::filesystem::create_directory("/proc/700002");  // its command line has gone
        addProcess(700003, "last");
        for (const bool incremental : {false, true}) {
            control.refresh(incremental);
            EXPECT_THAT(namesOf(control), UnorderedElementsAre("first", "last"));
            EXPECT_EQ(control.getNumberOfProcesses(), 2);
        }
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

// Makes the first allocation of a refresh fail, then the second one, and so on until it succeeds.
TEST(ProcessControl, AfterARefreshWithoutMemoryTheListCanStillBeUsed) {
    withEmptyProc([] {
        int thrown = 0;
        for (int allocations = 0;; ++allocations) {
            for (int pid = 700001; pid <= 700005; ++pid) addProcess(pid, "kept");
            removeProcess(700006);
            ProcessControl control;
            control.refresh(false);
            const int first = pidsOf(control).front();
            removeProcess(first);
            addProcess(700006, "new");
            const int before = thrown;
            vxtest::objectsLeft = allocations;
            vxtest::objectsRunOut = true;
            try {
                control.refresh(true);
            } catch (const std::bad_alloc &) {
                ++thrown;
            }
            vxtest::objectsRunOut = false;
            EXPECT_EQ(control.getProcessEntryByPid(first) != nullptr, thrown > before) << allocations;
            EXPECT_EQ(control.getNumberOfProcessesByName("kept"), thrown > before ? 5 : 4) << allocations;
            if (thrown == before && control.getProcessEntryByPid(700006) != nullptr) break;
            control.refresh(true);
            EXPECT_EQ(pidsOf(control).size(), 5U) << allocations;
            EXPECT_EQ(control.getNumberOfProcesses(), 5) << allocations;
            EXPECT_NE(control.getProcessEntryByPid(700006), nullptr) << allocations;
        }
        EXPECT_GT(thrown, 0);
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

TEST(ProcessControl, NoDescriptorIsInheritedAcrossExec) {
    withEmptyProc([] {
        addProcess(700001, "daemon");
        ProcessControl control;
        const vxtest::ClosesOnExec closesOnExec;
        control.refresh(false);
        control.refresh(true);
    });
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

TEST(ProcessControl, IsNumericForDecimalDigitsOnly) {
    const ProcessControl control;
    for (const char *text : {"", "0", "0123456789", "99999999999999999999999"}) EXPECT_TRUE(control.isNumeric(text));
    for (const char *text : {"a", "1a", "-1", "+1", " 1", "1 ", "1.0", "/", ":", "\xb2"}) {
        EXPECT_FALSE(control.isNumeric(text)) << text;
    }
    EXPECT_FALSE(control.isNumeric(nullptr));
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

}  // namespace
