// SPDX-License-Identifier: MIT
// What the tests of process lists share: a list's entries in order, and a /proc of the test's own.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <vxutils/processcontrol.h>

#include <functional>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/process.h"

namespace vxtest::processes {

inline std::vector<ProcessEntry *> entriesOf(const ProcessControl &control) {
    std::vector<ProcessEntry *> entries;
    for (ProcessEntry *e = control.getNextProcessEntryByName(nullptr, nullptr); e != nullptr; e = e->getNext()) {
        entries.push_back(e);
    }
    return entries;
}

inline std::vector<int> pidsOf(const ProcessControl &control) {
    std::vector<int> pids;
    for (const ProcessEntry *entry : entriesOf(control)) pids.push_back(entry->getPid());
    return pids;
}

inline std::vector<std::string> namesOf(const ProcessControl &control) {
    std::vector<std::string> names;
    for (const ProcessEntry *entry : entriesOf(control)) names.emplace_back(entry->getName());
    return names;
}

// A process of /proc made by a test: a directory with the command line in it. It has a number that no real process has:
// an emulator answers itself for its own.
inline void addProcess(int pid, const std::string &commandLine) {
    writeFile("/proc/" + std::to_string(pid) + "/cmdline", commandLine);
}

// Runs `body`, which makes its expectations itself, in a child with an empty /proc.
inline void withEmptyProc(const std::function<void()> &body) {
    EXPECT_EQ(inChild([&] {
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

}  // namespace vxtest::processes
