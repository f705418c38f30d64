// SPDX-License-Identifier: MIT
// vx storage: storage devices with their free space.
#include <vxutils/storage.h>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>

#include "commands/commands.h"
#include "core/failure.h"

namespace tool {

namespace {

struct FreeList {
    void operator()(storage_list *list) const {
        old_free_storage(list);
        std::free(list);
    }
};

const char *typeName(uint32_t type) {
    switch (type) {
        case 2:
            return "internal";
        case 4:
            return "emmc4";
        case 16:
            return "usb";
        default:
            return "disk";
    }
}

Record recordOf(const storage_entry &entry) {
    const auto bytes = [](int64_t number) { return number >= 0 ? Value(number) : Value(); };
    return {{"partition", entry.partition},
            {"device", entry.device},
            {"type", typeName(entry.type)},
            {"index", entry.index},
            {"mount", entry.mount_point[0] != '\0' ? Value(entry.mount_point) : Value()},
            {"size", bytes(entry.size)},
            {"total", bytes(entry.total)},
            {"free", bytes(entry.available)}};
}

std::vector<Record> allDevices() {
    const std::unique_ptr<storage_list, FreeList> list(old_get_storage(0));
    if (!list) throw std::bad_alloc();
    std::vector<Record> records;
    for (const list_link *link = list->entries.next; link != &list->entries; link = link->next) {
        records.push_back(recordOf(*static_cast<const storage_entry *>(static_cast<const void *>(link))));
    }
    return records;
}

const std::string &nameOf(const Record &device) { return std::get<Text>(device[0].value).text; }

int storage(const Arguments &arguments, Output &out) {
    const std::vector<Record> devices = allDevices();
    if (arguments.size() == 0) {
        out.print(devices, Plain::row);
        return statusDone;
    }
    for (const Record &device : devices) {
        if (nameOf(device) != arguments[0]) continue;
        out.print(device, Plain::fields);
        return statusDone;
    }
    throw Failure(named(arguments[0]), "no such storage device");
}
static_assert(offsetof(storage_entry, list) == 0, "a link is its entry");

std::vector<std::string> deviceWords(const Arguments &) {
    std::vector<std::string> words;
    for (const Record &device : allDevices()) words.push_back(nameOf(device));
    return words;
}

constexpr Argument partition[] = {{"PARTITION", Count::optional, deviceWords}};
constexpr Verb verbs[] = {
    {"", "print the storage devices with their free space, or one of them", {}, partition, storage}};

}  // namespace

const Command storageCommand{"storage", "storage devices of the board", {}, verbs};

}  // namespace tool
