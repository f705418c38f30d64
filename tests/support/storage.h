// SPDX-License-Identifier: MIT
// What the tests of storage devices share: links in the place of the kernel's devices, mounts, and what a list holds.
#pragma once

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>
#include <vxutils/storage.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/board.h"
#include "support/files.h"

namespace vxtest::storage {

inline const std::string block = "/sys/class/block/";
inline const std::string pci = "../../devices/platform/soc/";

struct FreeStorage {
    void operator()(storage_list *list) const {
        old_free_storage(list);
        std::free(list);
    }
};
using Storage = std::unique_ptr<storage_list, FreeStorage>;

class StorageTest : public testing::Test {
protected:
    StorageTest() {
        prepareBoardFiles();
        for (const auto &entry : std::filesystem::directory_iterator(block)) std::filesystem::remove_all(entry);
        std::filesystem::remove_all("/proc/sysinfo");
    }

    static void link(const std::string &name, const std::string &target) {
        ASSERT_EQ(::symlink(target.c_str(), (block + name).c_str()), 0) << name;
    }
    static void usbName(int port, const std::string &text) {
        writeFile("/proc/sysinfo/usbport" + std::to_string(port) + "/usbName", text);
    }

    // "partition(device) type/index" of each entry, in list order; checks what holds for every list.
    static std::vector<std::string> described(const Storage &list) {
        std::vector<std::string> lines;
        const list_link *previous = &list->entries;
        for (list_link *at = list->entries.next; at != &list->entries; at = at->next) {
            EXPECT_EQ(at->prev, previous);
            previous = at;
            const auto *entry = static_cast<storage_entry *>(static_cast<void *>(at));
            lines.push_back(std::string(entry->partition) + "(" + entry->device + ") " + std::to_string(entry->type) +
                            "/" + std::to_string(entry->index));
        }
        EXPECT_EQ(list->entries.prev, previous);
        EXPECT_EQ(list->count, lines.size());
        return lines;
    }
    static std::vector<std::string> found(unsigned int mask = 0) { return described(Storage(old_get_storage(mask))); }
};

// Something mounted under a source name of its own, as a partition would be.
class Mount {
public:
    Mount(const std::string &source, const std::string &point) : point_(point) {
        makeDirs(point);
        mounted_ = ::mount(source.c_str(), point.c_str(), "tmpfs", 0, "size=8m") == 0;
    }
    ~Mount() {
        if (mounted_) ::umount2(point_.c_str(), MNT_DETACH);
    }
    Mount(const Mount &) = delete;
    Mount &operator=(const Mount &) = delete;

private:
    std::string point_;
    bool mounted_ = false;
};

}  // namespace vxtest::storage
