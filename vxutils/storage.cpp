// SPDX-License-Identifier: MIT
#include <vxutils/storage.h>

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <vxutils/file.h>
#include <vxutils/hardware.h>
#include <vxutils/strutil.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "vxutils/internal/fd.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/retry.h"
#include "vxutils/storage_usb_port.h"

namespace {

constexpr const char *blockDirectory = "/sys/class/block";
constexpr const char *mountsFile = "/proc/mounts";
constexpr const char *threadMountsFile = "/proc/thread-self/mounts";
constexpr const char *usbNamePath = "/proc/sysinfo/usbport%d/usbName";
constexpr std::string_view overlayMountPoint = "/overlay";

enum Type : uint32_t { internalFlash = 2, emmcPartition4 = 4, disk = 8, usbDisk = 16 };
constexpr uint32_t allTypes = 255;
constexpr int usbPorts = 2;
constexpr int generationWithSdCard = 18;
constexpr int64_t unknown = -1;
constexpr size_t readSize = 4096;

static_assert(offsetof(storage_entry, list) == 0 && offsetof(storage_list, entries) == 0);

struct FixedPartition {  // texts in place: the loader would have to relocate pointers
    char partition[10];
    char device[10];
};
constexpr FixedPartition fixedPartitions[] = {
    {"mmcblk0p3", "mmcblk0"}, {"mmcblk0p4", "mmcblk0"}, {"mmcblk1p3", "mmcblk1"},
    {"mmcblk1p4", "mmcblk1"}, {"mmcblk1p1", "mmcblk1"}, {"mtdblock3", "mtdblock3"},
};

struct Identity {
    uint32_t type;
    uint32_t index;
};

// The link is the first field of its record. The cast goes through void, because the compiler does not know that the
// link is aligned like the record.
storage_entry *entryOf(list_link *link) { return static_cast<storage_entry *>(static_cast<void *>(link)); }

std::string blockPath(std::string_view name) { return std::string(blockDirectory).append("/").append(name); }

// Returns the target of a link, which may have any length; no value if it is not a link.
std::optional<std::string> linkTarget(const std::string &path) {
    for (std::string target(256, '\0');; target.resize(target.size() * 2)) {
        const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
        if (length == -1) return std::nullopt;
        if (static_cast<size_t>(length) == target.size()) continue;
        target.resize(static_cast<size_t>(length));
        return target;
    }
}

bool contains(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

Identity identifyMmc(std::string_view partition) {
    if (partition == "mmcblk0p4" || partition == "mmcblk1p4") return {emmcPartition4, 0};
    if (partition == "mmcblk1p1" && qxhw() == generationWithSdCard) return {disk, 0};
    return {internalFlash, 0};
}

Identity identifyUsb(std::string_view link) {
    for (int port = 0; port < usbPorts; ++port) {
        std::array<char, 64> path;
        std::array<char, vx::usbNameSize> names;
        std::snprintf(path.data(), path.size(), usbNamePath, port);
        if (vx::leadsThroughPort(link, readfile_r(path.data(), names.data(), names.size()))) {
            return {usbDisk, static_cast<uint32_t>(port)};
        }
    }
    return {disk, 0};
}

std::optional<Identity> identify(std::string_view partition, std::string_view link) {
    if (contains(link, "/mtd")) return Identity{internalFlash, 0};
    if (contains(link, "/mmc_host")) return identifyMmc(partition);
    if (contains(link, "/ata2") || contains(link, "/ata1")) return Identity{disk, 1};
    if (contains(link, "/usb")) return identifyUsb(link);
    return std::nullopt;
}

bool isEscape(std::string_view text) {
    return text.size() == 4 && text[0] == '\\' && text.find_first_not_of("01234567", 1) == std::string_view::npos;
}

// Returns a path whose blanks, line feeds and backslashes the kernel has written as a backslash and three octal digits.
std::string decoded(std::string_view field) {
    std::string path(field);
    size_t size = 0;
    for (size_t at = 0; at < field.size(); ++at) {
        char c = field[at];
        if (isEscape(field.substr(at, 4))) {
            c = static_cast<char>((field[at + 1] - '0') * 64 + (field[at + 2] - '0') * 8 + (field[at + 3] - '0'));
            at += 3;
        }
        path[size++] = c;
    }
    path.resize(size);
    return path;
}

vx::Fd openToRead(const char *path) {
    return vx::Fd(vx::retryEintr([&] { return ::open(path, O_RDONLY | O_CLOEXEC); }));
}

// The first file is that of the process's first thread: when that thread has ended, it cannot be opened.
vx::Fd openMounts() {
    vx::Fd fd = openToRead(mountsFile);
    return fd.valid() ? std::move(fd) : openToRead(threadMountsFile);
}

// The table of mounts, read once, when the first device asks for it. The C library's getmntent() takes many times the
// instructions for each line.
class Mounts {
public:
    // Returns the first mount point of a device node; empty if it is not mounted.
    std::string pointOf(const std::string &node) {
        if (lines_.empty()) read();
        const std::string begin = "\n" + node + " ";
        size_t point = lines_.find(begin);
        if (point == std::string::npos) return {};
        point += begin.size();
        return decoded(std::string_view(lines_).substr(point, lines_.find_first_of(" \t\n", point) - point));
    }

private:
    void read() {
        lines_.assign(1, '\n');
        const vx::Fd fd = openMounts();
        ssize_t got = 1;
        for (size_t size = 1; got > 0; lines_.resize(size)) {
            lines_.resize(size + readSize);
            got = vx::retryEintr([&] { return ::read(fd.get(), &lines_[size], readSize); });
            if (got > 0) size += static_cast<size_t>(got);
        }
    }

    std::string lines_;  // with a line feed before the first
};

int64_t deviceSize(const std::string &node) {
    const vx::Fd fd = openToRead(node.c_str());
    uint64_t bytes = 0;
    if (!fd.valid() || ::ioctl(fd.get(), BLKGETSIZE64, &bytes) == -1) return unknown;
    return static_cast<int64_t>(bytes);
}

void fillFileSystem(storage_entry &entry, const std::string &mountPoint) {
    struct statfs status {};
    if (vx::retryEintr([&] { return ::statfs(mountPoint.c_str(), &status); }) == -1) return;
    const auto blockSize = static_cast<uint64_t>(status.f_bsize);
    entry.total = static_cast<int64_t>(status.f_blocks * blockSize);
    entry.available = static_cast<int64_t>(status.f_bavail * blockSize);
}

void fill(storage_entry &entry, const std::string &device, const std::string &partition, const Identity &identity,
          Mounts &mounts) {
    strlcpy(entry.device, device.c_str(), sizeof entry.device);
    strlcpy(entry.partition, partition.c_str(), sizeof entry.partition);
    entry.type = identity.type;
    entry.index = identity.index;
    entry.total = unknown;
    entry.available = unknown;
    entry.size = deviceSize("/dev/" + device);
    const std::string mountPoint = mounts.pointOf("/dev/" + partition);
    if (mountPoint.empty()) return;
    const bool overlay = mountPoint == overlayMountPoint;
    strlcpy(entry.mount_point, overlay ? "/" : mountPoint.c_str(), sizeof entry.mount_point);
    fillFileSystem(entry, mountPoint);
}

uint32_t sortKey(const storage_entry &entry) { return entry.type * 65536 + (entry.index & 0xffff); }

// Inserts after all entries with the same or a smaller key, searching from the end.
void insertSorted(storage_list &list, storage_entry *entry) {
    list_link *at = list.entries.prev;
    while (at != &list.entries && sortKey(*entryOf(at)) > sortKey(*entry)) at = at->prev;
    __list_add(&entry->list, at, at->next);
    ++list.count;
}

void examine(storage_list &list, Mounts &mounts, const std::string &device, const std::string &partition) {
    const std::optional<std::string> link = linkTarget(blockPath(partition));
    if (!link) return;
    const std::optional<Identity> identity = identify(partition, *link);
    if (!identity || (identity->type & list.mask) == 0) return;
    auto *entry = static_cast<storage_entry *>(std::calloc(1, sizeof(storage_entry)));
    if (entry == nullptr) return;
    vx::MallocPtr<storage_entry> owner(entry);
    fill(*entry, device, partition, *identity, mounts);
    insertSorted(list, owner.release());
}

bool exists(const std::string &path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

void examineName(storage_list &list, Mounts &mounts, std::string_view name) {
    if (name.starts_with('m')) {  // as those of all fixed partitions
        for (const FixedPartition &fixed : fixedPartitions) {
            if (name == fixed.partition) examine(list, mounts, std::string(fixed.device), std::string(name));
        }
        return;
    }
    if (name.size() != 3 || !name.starts_with("sd")) return;
    const std::string device(name);
    const std::string partition = device + "1";
    examine(list, mounts, device, exists(blockPath(partition)) ? partition : device);
}

void discover(storage_list &list) {
    const vx::DirPtr directory(::opendir(blockDirectory));
    if (!directory) return;
    Mounts mounts;
    while (const dirent *entry = ::readdir(directory.get())) examineName(list, mounts, entry->d_name);
}

}  // namespace

namespace vx {

bool leadsThroughPort(std::string_view path, std::string_view names) {
    while (!names.empty()) {
        const size_t end = std::min(names.find('\n'), names.size());
        std::string name(names.substr(0, end));
        names.remove_prefix(std::min(end + 1, names.size()));
        if (name.empty()) continue;
        std::replace(name.begin(), name.end(), ':', '.');
        if (contains(path, "/" + name + "/")) return true;
    }
    return false;
}

}  // namespace vx

extern "C" {

storage_list *old_get_storage(unsigned int mask) {
    auto *list = static_cast<storage_list *>(std::calloc(1, sizeof(storage_list)));
    if (list == nullptr) return nullptr;
    list->entries = {&list->entries, &list->entries};
    list->mask = mask != 0 ? mask : allTypes;
    try {
        discover(*list);
    } catch (const std::bad_alloc &) {
        // The devices found so far are the result.
    }
    return list;
}

storage_entry *old_get_storage_device(const storage_list *list, uint32_t type, uint32_t index) {
    if (list == nullptr) return nullptr;
    for (list_link *at = list->entries.next; at != &list->entries; at = at->next) {
        storage_entry *entry = entryOf(at);
        if (entry->type == type && entry->index == index) return entry;
    }
    return nullptr;
}

void old_free_storage(storage_list *list) {
    if (list == nullptr) return;
    while (list_empty(&list->entries) == 0) {
        list_link *first = list->entries.next;
        list_del(first);
        std::free(entryOf(first));
    }
    list->count = 0;
}

}  // extern "C"
