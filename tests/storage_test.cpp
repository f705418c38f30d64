// SPDX-License-Identifier: MIT
// The storage devices of a board: kinds, order, sizes, file systems.
#include <vxutils/storage.h>

#include <fcntl.h>
#include <linux/loop.h>
#include <malloc.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/files.h"
#include "support/large_files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/storage.h"

namespace {

using namespace vxtest::storage;

using testing::ElementsAre;
using testing::IsEmpty;

// The generation is kept once read, so what depends on it runs in a process of its own.
bool inNewProcess(const std::function<bool()> &check) {
    return vxtest::inChild([&] { return check() ? 0 : 1; }) == 0;
}

TEST_F(StorageTest, TheExampleListsTheDevices) {
    link("mmcblk0p3", pci + "mmc_host/mmc0/mmcblk0p3");
    link("sda", pci + "ata1/block/sda");
    const Mount mounted("/dev/mmcblk0p3", "/mnt/data");
    const auto output = vxtest::run({vxtest::built("examples/storage_list")});
    EXPECT_EQ(output.status, 0);
    EXPECT_EQ(output.text, "mmcblk0p3  type 2/0  on /mnt/data, 8192 of 8192 KiB free\nsda  type 8/1  not mounted\n");
}

// ---- old_get_storage(): the devices

TEST_F(StorageTest, WithoutBlockDevicesTheListIsEmpty) {
    const vxtest::NoLeaks leaks;
    const Storage list(old_get_storage(0));
    ASSERT_NE(list, nullptr);
    EXPECT_THAT(described(list), IsEmpty());
    EXPECT_EQ(list->mask, 255U);
    EXPECT_EQ(old_get_storage_device(list.get(), 2, 0), nullptr);
}

TEST_F(StorageTest, EachKindHasItsTypeAndIndex) {
    struct Case {
        const char *name;
        const char *link;
        const char *described;  // null: skipped
    };
    for (const Case &one : {
             Case{"mtdblock3", "spi/mtd/mtd3/mtdblock3", "mtdblock3(mtdblock3) 2/0"},
             Case{"mmcblk0p3", "mmc/mmc_host/mmc0/mmcblk0/mmcblk0p3", "mmcblk0p3(mmcblk0) 2/0"},
             Case{"mmcblk0p4", "mmc/mmc_host/mmc0/mmcblk0/mmcblk0p4", "mmcblk0p4(mmcblk0) 4/0"},
             Case{"mmcblk1p3", "mmc/mmc_host/mmc1/mmcblk1/mmcblk1p3", "mmcblk1p3(mmcblk1) 2/0"},
             Case{"mmcblk1p4", "mmc/mmc_host/mmc1/mmcblk1/mmcblk1p4", "mmcblk1p4(mmcblk1) 4/0"},
             Case{"mmcblk1p1", "mmc/mmc_host/mmc1/mmcblk1/mmcblk1p1", "mmcblk1p1(mmcblk1) 2/0"},
             Case{"sda", "ata1/host0/sda", "sda(sda) 8/1"},
             Case{"sdb", "ata2/host0/sdb", "sdb(sdb) 8/1"},
             Case{"sdc", "usb1/1-1/host2/sdc", "sdc(sdc) 8/0"},
             Case{"sd_", "usb1/1-1/host2/sd_", "sd_(sd_) 8/0"},
             // What the path says counts, in the order of the kinds.
             Case{"sda", "usb1/mtd/sda", "sda(sda) 2/0"},
             Case{"sda", "usb1/mmc_host/ata1/sda", "sda(sda) 2/0"},
             Case{"sda", "usb1/ata1/sda", "sda(sda) 8/1"},
             Case{"mmcblk0p4", "usb/mmcblk0p4", "mmcblk0p4(mmcblk0) 8/0"},
             Case{"sda", "scsi/host0/sda", nullptr},
             Case{"sda", "ata3/host0/sda", nullptr},
             // Names that are not looked at.
             Case{"mmcblk0p1", "mmc_host/mmc0/mmcblk0p1", nullptr},
             Case{"mmcblk0", "mmc_host/mmc0/mmcblk0", nullptr},
             Case{"mmcblk1p2", "mmc_host/mmc1/mmcblk1p2", nullptr},
             Case{"mtdblock2", "mtd/mtdblock2", nullptr},
             Case{"mtdblock33", "mtd/mtdblock33", nullptr},
             Case{"sda1", "usb1/sda1", nullptr},
             Case{"sdaa", "usb1/sdaa", nullptr},
             Case{"sd", "usb1/sd", nullptr},
             Case{"hda", "usb1/hda", nullptr},
             Case{"loop0", "virtual/usb/loop0", nullptr},
         }) {
        link(one.name, pci + one.link);
        if (one.described == nullptr) {
            EXPECT_THAT(found(), IsEmpty()) << one.name << " -> " << one.link;
        } else {
            EXPECT_THAT(found(), ElementsAre(one.described)) << one.name << " -> " << one.link;
        }
        ::unlink((block + one.name).c_str());
    }
}

TEST_F(StorageTest, OnGeneration18TheFirstPartitionOfTheSecondCardIsAnSdCard) {
    link("mmcblk1p1", pci + "mmc_host/mmc1/mmcblk1/mmcblk1p1");
    link("mmcblk1p3", pci + "mmc_host/mmc1/mmcblk1/mmcblk1p3");
    vxtest::writeFile("/proc/sysinfo/qxhw", "18\n");
    EXPECT_TRUE(inNewProcess([] {
        return found() == std::vector<std::string>{"mmcblk1p3(mmcblk1) 2/0", "mmcblk1p1(mmcblk1) 8/0"};
    }));
    vxtest::writeFile("/proc/sysinfo/qxhw", "17\n");
    EXPECT_TRUE(inNewProcess([] { return found().size() == 2 && found(2).size() == 2; }));
}

TEST_F(StorageTest, ADisksFirstPartitionStandsForIt) {
    link("sda", pci + "usb1/1-1/block/sda");
    link("sda1", pci + "usb1/1-1/block/sda/sda1");
    link("sdb", pci + "usb1/1-1/block/sdb");
    link("sdb2", pci + "usb1/1-1/block/sdb/sdb2");
    EXPECT_THAT(found(), testing::UnorderedElementsAre("sda1(sda) 8/0", "sdb(sdb) 8/0"));
    // A partition that is not a link is skipped and not replaced.
    vxtest::writeFile(block + "sdb1", "");
    EXPECT_THAT(found(), ElementsAre("sda1(sda) 8/0"));
}

TEST_F(StorageTest, EntriesThatAreNoLinksAreSkipped) {
    vxtest::writeFile(block + "mtdblock3", "/mtd");
    vxtest::makeDirs(block + "mmcblk0p3");
    vxtest::writeFile(block + "sda", "");
    EXPECT_THAT(found(), IsEmpty());
}

TEST_F(StorageTest, UsbDisksAreMatchedToPorts) {
    link("sda", pci + "usb1/1-1.2/1-1.2.1/block/sda");
    usbName(0, "1-1.3\n");
    EXPECT_THAT(found(), ElementsAre("sda(sda) 8/0"));
    usbName(1, "\n\n2-9\n1-1:2\n");
    EXPECT_THAT(found(), ElementsAre("sda(sda) 16/1"));
    usbName(0, "1-1.2");
    EXPECT_THAT(found(), ElementsAre("sda(sda) 16/0"));  // the first port that fits
    usbName(0, "1-1");                                   // a part of a name is not the name
    EXPECT_THAT(found(), ElementsAre("sda(sda) 16/1"));
    usbName(0, "sda");  // the last name has no slash after it
    usbName(1, "..");   // read unchanged
    EXPECT_THAT(found(), ElementsAre("sda(sda) 16/1"));
    usbName(1, "\n \n");
    usbName(2, "1-1.2\n");  // there are two ports
    EXPECT_THAT(found(), ElementsAre("sda(sda) 8/0"));
}

TEST_F(StorageTest, EveryColonOfAUsbNameIsADot) {
    link("sda", pci + "usb1/1-1.2.3/block/sda");
    usbName(0, "1-1:2:3\n");
    EXPECT_THAT(found(), ElementsAre("sda(sda) 16/0"));
}

TEST_F(StorageTest, AnEmptyUsbNameMatchesNoDoubledSlash) {
    link("sda", pci + "usb1//block/sda");
    usbName(0, "1-1\n\n1-2\n");
    EXPECT_THAT(found(), ElementsAre("sda(sda) 8/0"));
}

TEST_F(StorageTest, EntriesAreOrderedByTypeThenIndex) {
    usbName(0, "1-1\n");
    usbName(1, "1-2\n");
    std::vector<std::pair<std::string, std::string>> links{
        {"sda", "usb1/1-2/block/sda"},
        {"sdb", "usb1/1-1/block/sdb"},
        {"sdc", "ata1/block/sdc"},
        {"sdd", "usb1/1-3/block/sdd"},
        {"mmcblk0p4", "mmc_host/mmc0/mmcblk0p4"},
        {"mtdblock3", "mtd/mtdblock3"},
    };
    // Found in one order and in the other, as the directory lists them by the time they were made.
    for (int order = 0; order < 2; ++order) {
        for (const auto &[name, target] : links) link(name, pci + target);
        EXPECT_THAT(found(), ElementsAre("mtdblock3(mtdblock3) 2/0", "mmcblk0p4(mmcblk0) 4/0", "sdd(sdd) 8/0",
                                         "sdc(sdc) 8/1", "sdb(sdb) 16/0", "sda(sda) 16/1"));
        for (const auto &[name, target] : links) ::unlink((block + name).c_str());
        std::reverse(links.begin(), links.end());
    }
}

TEST_F(StorageTest, EqualKeysKeepTheOrderOfDiscovery) {
    for (char c = 'a'; c <= 'z'; ++c) link(std::string("sd") + c, pci + "usb1/1-1/block");
    std::vector<std::string> discovered;
    for (const auto &entry : std::filesystem::directory_iterator(block)) {
        const std::string name = entry.path().filename();
        discovered.push_back(name + "(" + name + ") 8/0");
    }
    EXPECT_EQ(found(), discovered);
}

TEST_F(StorageTest, TheMaskSelectsTypes) {
    usbName(0, "1-1\n");
    link("sda", pci + "usb1/1-1/block/sda");
    link("sdb", pci + "ata1/block/sdb");
    link("mmcblk0p4", pci + "mmc_host/mmc0/mmcblk0p4");
    link("mmcblk0p3", pci + "mmc_host/mmc0/mmcblk0p3");
    EXPECT_EQ(found(255).size(), 4U);
    EXPECT_THAT(found(2), ElementsAre("mmcblk0p3(mmcblk0) 2/0"));
    EXPECT_THAT(found(4), ElementsAre("mmcblk0p4(mmcblk0) 4/0"));
    EXPECT_THAT(found(8 | 16), ElementsAre("sdb(sdb) 8/1", "sda(sda) 16/0"));
    EXPECT_THAT(found(1), IsEmpty());
    EXPECT_THAT(found(0xffffff00U), IsEmpty());
}

TEST_F(StorageTest, RecordsHaveTheirFixedLayout) {
    EXPECT_EQ(offsetof(storage_entry, list), 0U);
    EXPECT_EQ(offsetof(storage_entry, device), 2 * sizeof(void *));
    EXPECT_EQ(offsetof(storage_entry, partition), 2 * sizeof(void *) + 32);
    EXPECT_EQ(offsetof(storage_entry, type), 2 * sizeof(void *) + 64);
    EXPECT_EQ(offsetof(storage_entry, mount_point), 2 * sizeof(void *) + 72);
    EXPECT_EQ(offsetof(storage_entry, size), 2 * sizeof(void *) + 136);
    EXPECT_EQ(sizeof(storage_entry), 2 * sizeof(void *) + 160);
    EXPECT_EQ(offsetof(storage_list, mask), 2 * sizeof(void *));
}

// ---- sizes and file systems

// A block device of the kernel's own, backed by a file.
class LoopDevice {
public:
    LoopDevice(const std::string &node, int64_t bytes) : node_(node) {
        const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
        const int number = ::ioctl(control, LOOP_CTL_GET_FREE);
        ::close(control);
        if (number < 0) return;
        const int file = ::open("/tmp/disk", O_CREAT | O_RDWR | O_TRUNC | O_CLOEXEC, 0600);
        ::unlink("/tmp/disk");
        if (::ftruncate(file, bytes) != 0) return;
        ::unlink(node.c_str());
        if (::mknod(node.c_str(), S_IFBLK | 0600, makedev(7, static_cast<unsigned int>(number))) == 0) {
            fd_ = ::open(node.c_str(), O_RDWR | O_CLOEXEC);
            ready_ = fd_ != -1 && ::ioctl(fd_, LOOP_SET_FD, file) == 0;
        }
        ::close(file);
    }
    ~LoopDevice() {
        if (ready_) ::ioctl(fd_, LOOP_CLR_FD, 0);
        if (fd_ != -1) ::close(fd_);
        ::unlink(node_.c_str());
    }
    LoopDevice(const LoopDevice &) = delete;
    LoopDevice &operator=(const LoopDevice &) = delete;

    bool ready() const { return ready_; }

private:
    std::string node_;
    int fd_ = -1;
    bool ready_ = false;
};

TEST_F(StorageTest, SizesAreThoseOfTheDevice) {
    constexpr int64_t bytes = 5LL * 1024 * 1024 * 1024;  // beyond 32 bits
    const vxtest::LargeFiles large;
    const LoopDevice device("/dev/sda", bytes);
    ASSERT_TRUE(device.ready()) << "no loop device";
    link("sda", pci + "usb1/1-1/block/sda");
    link("sda1", pci + "usb1/1-1/block/sda/sda1");
    const vxtest::NoLeaks leaks;
    const Storage list(old_get_storage(0));
    const storage_entry *entry = old_get_storage_device(list.get(), 8, 0);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->size, bytes);
    EXPECT_STREQ(entry->mount_point, "");

    // To look at a device is to read it: who may do no more sees its size too.
    ASSERT_EQ(::chmod("/dev/sda", 0444), 0);
    EXPECT_EQ(vxtest::inChild([] {
                  if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0) return 99;
                  const Storage seen(old_get_storage(0));
                  return old_get_storage_device(seen.get(), 8, 0)->size == bytes ? 0 : 1;
              }),
              0);
}

TEST_F(StorageTest, FileSystemTotalsAreThoseOfTheMountPoint) {
    link("mmcblk0p3", pci + "mmc_host/mmc0/mmcblk0p3");
    const Mount other("/dev/mmcblk0p33", "/mnt/other");
    const Mount first("/dev/mmcblk0p3", "/mnt/first");
    const Mount second("/dev/mmcblk0p3", "/mnt/second");
    vxtest::writeFile("/mnt/first/data", vxtest::repeated(3000000, 'd'));
    const vxtest::NoLeaks leaks;
    const Storage list(old_get_storage(0));
    const storage_entry *entry = old_get_storage_device(list.get(), 2, 0);
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->mount_point, "/mnt/first");
    EXPECT_EQ(entry->total, 8 * 1024 * 1024);
    struct statfs status {};
    ASSERT_EQ(::statfs("/mnt/first", &status), 0);
    EXPECT_EQ(entry->available, static_cast<int64_t>(status.f_bavail) * status.f_bsize);
    EXPECT_LE(entry->available, 8 * 1024 * 1024 - 3000000);
}

TEST_F(StorageTest, TheOverlayIsShownAsTheRootWithItsOwnTotals) {
    link("mmcblk0p4", pci + "mmc_host/mmc0/mmcblk0p4");
    const Mount overlay("/dev/mmcblk0p4", "/overlay");
    const Storage list(old_get_storage(0));
    const storage_entry *entry = old_get_storage_device(list.get(), 4, 0);
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->mount_point, "/");
    EXPECT_EQ(entry->total, 8 * 1024 * 1024);
}

TEST_F(StorageTest, MountPointsAreCutTo63CharactersAndMayHoldBlanks) {
    link("mmcblk0p3", pci + "mmc_host/mmc0/mmcblk0p3");
    link("mmcblk0p4", pci + "mmc_host/mmc0/mmcblk0p4");
    const std::string deep = "/mnt/" + vxtest::repeated(100, 'd');
    const Mount longPoint("/dev/mmcblk0p3", deep);
    const Mount blank("/dev/mmcblk0p4", "/mnt/a b");
    const Storage list(old_get_storage(0));
    const storage_entry *entry = old_get_storage_device(list.get(), 2, 0);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->mount_point, deep.substr(0, 63));
    EXPECT_EQ(entry->total, 8 * 1024 * 1024);  // of the whole path
    EXPECT_STREQ(old_get_storage_device(list.get(), 4, 0)->mount_point, "/mnt/a b");
    EXPECT_EQ(old_get_storage_device(list.get(), 4, 0)->total, 8 * 1024 * 1024);
}

TEST_F(StorageTest, MountPointsAreDecodedWhateverTheirCharacters) {
    link("mmcblk0p3", pci + "mmc_host/mmc0/mmcblk0p3");
    const std::string odd = "/mnt/\ta\n\\134 #b\\";
    const Mount mounted("/dev/mmcblk0p3", odd);
    const Storage list(old_get_storage(0));
    EXPECT_EQ(old_get_storage_device(list.get(), 2, 0)->mount_point, odd);
    EXPECT_EQ(old_get_storage_device(list.get(), 2, 0)->total, 8 * 1024 * 1024);
}

TEST_F(StorageTest, AMountAfterManyOthersIsFound) {
    link("mmcblk0p3", pci + "mmc_host/mmc0/mmcblk0p3");
    link("mmcblk0p4", pci + "mmc_host/mmc0/mmcblk0p4");
    std::vector<std::unique_ptr<Mount>> others;  // far more than a page of the table
    for (int i = 0; i < 150; ++i) {
        others.push_back(std::make_unique<Mount>("/dev/other", "/mnt/other-" + std::to_string(i)));
    }
    const Mount first("/dev/mmcblk0p3", "/mnt/first");
    const Mount second("/dev/mmcblk0p4", "/mnt/second");
    const Storage list(old_get_storage(0));
    EXPECT_STREQ(old_get_storage_device(list.get(), 2, 0)->mount_point, "/mnt/first");
    EXPECT_STREQ(old_get_storage_device(list.get(), 4, 0)->mount_point, "/mnt/second");
}

TEST_F(StorageTest, WhatIsUnknownIsMinusOne) {
    link("mtdblock3", pci + "mtd/mtdblock3");
    const Storage list(old_get_storage(0));
    const storage_entry *entry = old_get_storage_device(list.get(), 2, 0);
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->mount_point, "");
    EXPECT_EQ(entry->size, -1);
    EXPECT_EQ(entry->total, -1);
    EXPECT_EQ(entry->available, -1);
    vxtest::writeFile("/dev/mtdblock3", "no device");
    const Storage again(old_get_storage(0));
    EXPECT_EQ(old_get_storage_device(again.get(), 2, 0)->size, -1);
    ::unlink("/dev/mtdblock3");
}

// ---- old_get_storage_device(), old_free_storage()

TEST_F(StorageTest, DevicesAreFoundByTypeAndIndex) {
    link("sdb", pci + "ata1/block/sdb");
    link("sdc", pci + "ata1/block/sdc");
    link("mtdblock3", pci + "mtd/mtdblock3");
    const Storage list(old_get_storage(0));
    const storage_entry *first = old_get_storage_device(list.get(), 8, 1);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(std::string(first->partition) + "(" + first->device + ") 8/1", described(list)[1]);
    EXPECT_STREQ(old_get_storage_device(list.get(), 2, 0)->device, "mtdblock3");
    EXPECT_EQ(old_get_storage_device(list.get(), 8, 0), nullptr);
    EXPECT_EQ(old_get_storage_device(list.get(), 10, 0), nullptr);
    EXPECT_EQ(old_get_storage_device(nullptr, 8, 1), nullptr);
}

TEST_F(StorageTest, AListIsFreedWholly) {
    link("mtdblock3", pci + "mtd/mtdblock3");
    link("sda", pci + "ata1/block/sda");
    link("sdb", pci + "usb1/1-1/block/sdb");
    EXPECT_EQ(found().size(), 3U);
    const size_t before = ::mallinfo2().uordblks;
    for (int i = 0; i < 300; ++i) {
        storage_list *list = old_get_storage(0);
        old_free_storage(list);
        std::free(list);
    }
    // Some kilobytes may be blocks that malloc() keeps for the thread. Entries that are lost have more than 25.
    EXPECT_LE(::mallinfo2().uordblks, before + 10000);
}

TEST_F(StorageTest, FreeingLeavesTheHead) {
    link("mtdblock3", pci + "mtd/mtdblock3");
    storage_list *list = old_get_storage(0);
    ASSERT_NE(list, nullptr);
    old_free_storage(list);
    EXPECT_EQ(list->count, 0U);
    EXPECT_EQ(list->entries.next, &list->entries);
    EXPECT_EQ(list->entries.prev, &list->entries);
    old_free_storage(list);
    std::free(list);
    old_free_storage(nullptr);
}

}  // namespace
