// SPDX-License-Identifier: MIT
// The storage devices of a board where memory runs out, directories are missing, names are long, and file systems have
// sizes that no file system of a test has.
#include <vxutils/storage.h>

#include <sys/mount.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/call_hooks.h"
#include "support/emulation.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/short_objects.h"
#include "support/short_records.h"
#include "support/storage.h"

VXTEST_HOOK_AS(int, statfs, "statfs64", (const char *path, struct statfs *status), (path, status))

namespace {

using namespace vxtest::storage;

namespace hooks = vxtest::hooks;

using testing::ElementsAre;
using testing::IsEmpty;
using vxtest::Hooked;

using StorageFaults = StorageTest;

// ---- memory

TEST_F(StorageFaults, WithoutMemoryForTheHeadThereIsNoList) {
    link("mtdblock3", pci + "mtd/mtdblock3");
    const vxtest::NoLeaks leaks;
    vxtest::scarceRecord = sizeof(storage_list);
    vxtest::recordsLeft = 0;
    const storage_list *list = old_get_storage(0);
    vxtest::scarceRecord = 0;
    EXPECT_EQ(list, nullptr);
}

TEST_F(StorageFaults, EntriesThatMemoryDoesNotHoldAreLeftOut) {
    for (const char *name : {"sda", "sdb", "sdc"}) link(name, pci + "usb1/1-1/block");
    const std::vector<std::string> all = found();
    ASSERT_EQ(all.size(), 3U);
    for (const size_t held : {0U, 1U, 2U, 3U}) {
        const vxtest::NoLeaks leaks;
        vxtest::scarceRecord = sizeof(storage_entry);
        vxtest::recordsLeft = static_cast<int>(held);
        const Storage list(old_get_storage(0));
        vxtest::scarceRecord = 0;
        ASSERT_NE(list, nullptr);
        EXPECT_EQ(described(list), std::vector<std::string>(all.begin(), all.begin() + static_cast<long>(held)));
    }
}

TEST_F(StorageFaults, MemoryThatRunsOutOnTheWayLeavesAWholeList) {
    for (const char *name : {"sda", "sdb", "sdc"}) link(name, pci + "usb1/1-1.2.3.4.5.6.7.8.9/host0/block");
    const std::vector<std::string> all = found();
    size_t most = 0;
    for (int objects = 0; most < all.size(); ++objects) {
        ASSERT_LT(objects, 1000);
        const vxtest::NoLeaks leaks;
        vxtest::objectsLeft = objects;
        vxtest::objectsRunOut = true;
        const Storage list(old_get_storage(0));
        vxtest::objectsRunOut = false;
        ASSERT_NE(list, nullptr);
        const std::vector<std::string> held = described(list);
        EXPECT_EQ(held, std::vector<std::string>(all.begin(), all.begin() + static_cast<long>(held.size())));
        EXPECT_GE(held.size(), most);
        most = held.size();
    }
}

// ---- the kernel's directory and links

TEST_F(StorageFaults, WithoutTheDirectoryTheListIsEmptyToo) {
    ASSERT_EQ(::umount2("/sys/class/block", MNT_DETACH), 0);
    ASSERT_EQ(::mount("tmpfs", "/sys/class", "tmpfs", 0, nullptr), 0);
    const Storage list(old_get_storage(4));
    ::umount2("/sys/class", MNT_DETACH);
    ASSERT_EQ(::mount("tmpfs", "/sys/class/block", "tmpfs", 0, nullptr), 0);
    ASSERT_NE(list, nullptr);
    EXPECT_THAT(described(list), IsEmpty());
    EXPECT_EQ(list->mask, 4U);
}

TEST_F(StorageFaults, LinksOfAnyLengthAreRead) {
    for (const size_t length : {255U, 256U, 257U, 512U, 3000U}) {
        const std::string tail = "/usb1/1-1/sda";
        link("sda", vxtest::repeated(length - tail.size(), 'd') + tail);
        EXPECT_THAT(found(), ElementsAre("sda(sda) 8/0")) << length;
        ::unlink((block + "sda").c_str());
    }
}

TEST_F(StorageFaults, AUsbNameIsCutTo63Characters) {
    const std::string name(60, 'n');
    link("sda", pci + "usb1/" + name + "/block/sda");
    usbName(0, "x\n" + name);
    EXPECT_THAT(found(), ElementsAre("sda(sda) 16/0"));
    usbName(0, "xy\n" + name);
    EXPECT_THAT(found(), ElementsAre("sda(sda) 16/0"));
    usbName(0, "xyz\n" + name);  // its last character is cut
    EXPECT_THAT(found(), ElementsAre("sda(sda) 8/0"));
}

// ---- the table of mounts

// A table in the place of the kernel's, for this process.
class MountTable {
public:
    explicit MountTable(const std::string &text) {
        vxtest::writeFile("/tmp/mounts", text);
        if (::mount("/tmp/mounts", path, nullptr, MS_BIND, nullptr) != 0) throw std::runtime_error("cannot cover it");
    }
    ~MountTable() { ::umount2(path, MNT_DETACH); }
    MountTable(const MountTable &) = delete;
    MountTable &operator=(const MountTable &) = delete;

private:
    static constexpr const char *path = "/proc/self/mounts";
};

TEST_F(StorageFaults, AMountPointIsTheSecondFieldOfTheDevicesFirstLine) {
    link("mmcblk0p3", pci + "mmc_host/mmc0/mmcblk0p3");
    const std::string line = "/dev/mmcblk0p3 /mnt/data ext4 rw 0 0\n";
    const std::string page(4096 - line.size() / 2, 'x');  // the device's line lies across two reads
    struct Case {
        std::string table;
        const char *mountPoint;
    };
    for (const Case &one : {
             Case{line, "/mnt/data"},
             Case{"/dev/mmcblk0p3 /mnt/data", "/mnt/data"},
             Case{"/dev/other /mnt/other ext4 rw 0 0\n" + line, "/mnt/data"},
             Case{line + "/dev/mmcblk0p3 /mnt/second ext4 rw 0 0\n", "/mnt/data"},
             Case{"/dev/mmcblk0p33 /mnt/other ext4 rw 0 0\n" + line, "/mnt/data"},
             Case{"overlay/dev/mmcblk0p3 /mnt/other ext4 rw 0 0\n" + line, "/mnt/data"},
             Case{"x /dev/mmcblk0p3 /mnt/other rw 0 0\n" + line, "/mnt/data"},
             Case{"/dev/mmcblk0p3\n" + line, "/mnt/data"},
             Case{page + "\n" + line, "/mnt/data"},
             Case{page + line, ""},
             Case{"/dev/mmcblk0 /mnt/data ext4 rw 0 0\n", ""},
             Case{"/dev/mmcblk0p3", ""},
             Case{"", ""},
         }) {
        SCOPED_TRACE(one.table);
        const MountTable table(one.table);
        const Storage list(old_get_storage(0));
        const storage_entry *entry = old_get_storage_device(list.get(), 2, 0);
        ASSERT_NE(entry, nullptr);
        EXPECT_STREQ(entry->mount_point, one.mountPoint);
    }
}

TEST_F(StorageFaults, TheTableIsReadAlsoAfterTheFirstThreadHasEnded) {
    if (vxtest::emulated()) GTEST_SKIP() << "the emulator has no threads in children of processes with threads";
    link("mmcblk0p3", pci + "mmc_host/mmc0/mmcblk0p3");
    const Mount mounted("/dev/mmcblk0p3", "/mnt/data");
    EXPECT_EQ(vxtest::inLaterThread([] {
                  const Storage list(old_get_storage(0));
                  const storage_entry *entry = old_get_storage_device(list.get(), 2, 0);
                  return entry != nullptr && std::string(entry->mount_point) == "/mnt/data" && entry->total > 0 ? 0 : 1;
              }),
              0);
}

// ---- file systems

TEST_F(StorageFaults, FileSystemTotalsAreBlocksTimesTheBlockSize) {
    link("mmcblk0p3", pci + "mmc_host/mmc0/mmcblk0p3");
    const Mount mounted("/dev/mmcblk0p3", "/mnt/data");
    struct statfs large {};
    large.f_bsize = 4096;
    large.f_frsize = 512;
    large.f_blocks = 4000000000;
    large.f_bfree = 3000000000;
    large.f_bavail = 2000000000;  // what is left of the free ones for ordinary users
    const Hooked answer(hooks::statfs, [&](const char *, struct statfs *status) -> std::optional<int> {
        *status = large;
        return 0;
    });
    const Storage list(old_get_storage(0));
    const storage_entry *entry = old_get_storage_device(list.get(), 2, 0);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->total, 4000000000LL * 4096);
    EXPECT_EQ(entry->available, 2000000000LL * 4096);
}

TEST_F(StorageFaults, AFileSystemThatCannotBeLookedAtHasNoTotals) {
    link("mmcblk0p3", pci + "mmc_host/mmc0/mmcblk0p3");
    const Mount mounted("/dev/mmcblk0p3", "/mnt/data");
    const Hooked refused(hooks::statfs, vxtest::failingWith(EIO));
    const Storage list(old_get_storage(0));
    const storage_entry *entry = old_get_storage_device(list.get(), 2, 0);
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->mount_point, "/mnt/data");
    EXPECT_EQ(entry->total, -1);
    EXPECT_EQ(entry->available, -1);
}

}  // namespace
