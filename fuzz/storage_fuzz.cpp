// SPDX-License-Identifier: MIT
// Block devices whose links and mounts have any content: what follows "../../devices" in every link, and
// after the first byte 0xFF the lines of /proc/mounts. The list is the one that a slow reading of the rules gives.
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <vxutils/storage.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <utility>
#include <vector>

#include "fuzz/stage.h"

namespace {

constexpr const char *names[] = {"mmcblk0p3", "mmcblk1p1", "mtdblock3", "sda", "sda1", "sdb1", "loop0"};

const std::string &directory() {
    static const struct Made {
        Made() : path("/dev/shm/fuzz-block-" + std::to_string(::getpid())) {
            stage::check(::mkdir(path.c_str(), 0700) == 0);
            for (const char *name : names) stage::check(::symlink("target", (path + "/" + name).c_str()) == 0);
        }
        ~Made() {
            for (const char *name : names) ::unlink((path + "/" + name).c_str());
            ::rmdir(path.c_str());
        }
        std::string path;
    } made;
    return made.path;
}

struct Device {
    std::string device;
    std::string partition;
    uint32_t type;
    uint32_t index;
    std::string mountPoint;  // as the kernel knows it
};

// Names that nothing is known about are left out. This machine has no board data, so no port is known.
std::optional<Device> slowDevice(const std::string &name) {
    if (name == "mmcblk0p3") return Device{"mmcblk0", name, 0, 0, ""};
    if (name == "mmcblk1p1") return Device{"mmcblk1", name, 0, 0, ""};
    if (name == "mtdblock3") return Device{name, name, 0, 0, ""};
    if (name != "sda") return std::nullopt;
    struct stat status {};
    return Device{name, ::lstat("/sys/class/block/sda1", &status) == 0 ? "sda1" : "sda", 0, 0, ""};
}

// Returns false for a link that does not tell what the device is.
bool slowType(const std::string &link, Device &device) {
    const auto holds = [&](const char *part) { return link.find(part) != std::string::npos; };
    device.index = 0;
    if (holds("/mtd") || holds("/mmc_host")) {
        device.type = 2;
        return true;
    }
    device.type = 8;
    if (!holds("/ata2") && !holds("/ata1")) return holds("/usb");
    device.index = 1;
    return true;
}

int octal(const std::string &digits) {
    if (digits.size() != 3 || digits.find_first_not_of("01234567") != std::string::npos) return -1;
    return std::stoi(digits, nullptr, 8);
}

std::string slowMountPoint(const std::string &mounts, const std::string &node) {
    for (size_t at = 0; at < mounts.size();) {
        const std::string line = mounts.substr(at, mounts.find('\n', at) - at);
        at += line.size() + 1;
        const size_t blank = line.find(' ');
        if (blank == std::string::npos || line.substr(0, blank) != node) continue;
        const std::string field = line.substr(blank + 1, line.find_first_of(" \t", blank + 1) - blank - 1);
        std::string path;
        for (size_t i = 0; i < field.size(); ++i) {
            const int code = field[i] == '\\' ? octal(field.substr(i + 1, 3)) : -1;
            path += code == -1 ? field[i] : static_cast<char>(code);
            if (code != -1) i += 3;
        }
        return path;
    }
    return "";
}

// In the order of type and index; of the same ones in that of the directory.
std::vector<Device> slowReading(const std::string &mounts, const std::string &link) {
    std::vector<Device> found;
    for (const auto &entry : std::filesystem::directory_iterator(directory())) {
        auto device = slowDevice(entry.path().filename().string());
        if (!device.has_value() || !slowType(link, *device)) continue;
        device->mountPoint = slowMountPoint(mounts, "/dev/" + device->partition);
        found.push_back(*device);
    }
    const auto key = [](const Device &device) { return std::pair(device.type, device.index); };
    std::stable_sort(found.begin(), found.end(), [&](auto &a, auto &b) { return key(a) < key(b); });
    return found;
}

bool same(const storage_entry &entry, const Device &device) {
    struct statfs system {};
    const std::string &point = device.mountPoint;
    const bool mounted = !point.empty() && ::statfs(point.c_str(), &system) == 0;
    const auto total = static_cast<int64_t>(static_cast<uint64_t>(system.f_bsize) * system.f_blocks);
    return entry.device == device.device && entry.partition == device.partition && entry.type == device.type &&
           entry.index == device.index && entry.mount_point == (point == "/overlay" ? "/" : point).substr(0, 63) &&
           entry.total == (mounted ? total : -1) && (entry.available != -1) == mounted;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    stage::Pieces pieces(stage::text(data, size));
    const std::string link = "../../devices" + std::string(pieces.next());
    const std::string mounts(pieces.next());
    for (const char *nul : {"\\000", "\\400"}) {  // the kernel writes no NUL, not as digits either
        if (mounts.find('\0') != std::string::npos || mounts.find(nul) != std::string::npos) return 0;
    }
    stage::disks = stage::Disks{mounts, link, directory()};
    storage_list *const list = old_get_storage(255);
    stage::check(list != nullptr);
    const std::vector<Device> expected = slowReading(mounts, link);
    stage::check(list->count == expected.size());
    const list_link *at = list->entries.next;
    for (const Device &device : expected) {
        stage::check(at != &list->entries);
        stage::check(same(*static_cast<const storage_entry *>(static_cast<const void *>(at)), device));
        at = at->next;
    }
    stage::check(at == &list->entries);
    old_free_storage(list);
    std::free(list);
    stage::disks.reset();
    return 0;
}
