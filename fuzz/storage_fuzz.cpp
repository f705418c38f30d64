// SPDX-License-Identifier: MIT
// Block devices whose links and mounts have any content: a piece for the links, the rest are the lines of /proc/mounts.
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/storage.h>

#include <cstdlib>
#include <cstring>

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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    stage::Pieces pieces(stage::text(data, size));
    const std::string link(pieces.next());
    stage::disks = stage::Disks{pieces.next(), "../../devices" + link, directory()};
    storage_list *const list = old_get_storage(255);
    stage::check(list != nullptr);
    size_t count = 0;
    for (const list_link *at = list->entries.next; at != &list->entries; at = at->next, ++count) {
        const auto *entry = static_cast<const storage_entry *>(static_cast<const void *>(at));
        stage::check(::strnlen(entry->device, sizeof entry->device) < sizeof entry->device);
        stage::check(::strnlen(entry->partition, sizeof entry->partition) < sizeof entry->partition);
        stage::check(::strnlen(entry->mount_point, sizeof entry->mount_point) < sizeof entry->mount_point);
    }
    stage::check(count <= std::size(names));
    old_free_storage(list);
    std::free(list);
    stage::disks.reset();
    return 0;
}
