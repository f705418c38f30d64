// SPDX-License-Identifier: MIT
#include <vxutils/cfread.h>

#include <fcntl.h>
#include <libgen.h>
#include <unistd.h>
#include <vxutils/strutil.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <string_view>
#include <utility>

#include "vxutils/internal/fd.h"
#include "vxutils/internal/guarded_open.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/line_buffer.h"
#include "vxutils/internal/log.h"
#include "vxutils/internal/plain_text.h"
#include "vxutils/internal/retry.h"
#include "vxutils/internal/text_hash.h"

// The private part of a table. A table that a caller made gets it with its first entry. Without memory a part of it is
// missing, and the table works more slowly.
struct cfread_index {
    // The slots by the hash of their keys: an open-addressed table of numbers, not entries.
    struct Cell {
        uint32_t hash;
        int slot;  // number + 1; 0 never used, -1 no longer used
    };
    Cell *cells;         // null: searches walk over the slots
    uint32_t cellCount;  // a power of two
    uint32_t used;       // cells that are not 0, at most three quarters of all

    int slotRoom;    // slots allocated, of which the table shows `size`
    int lowestFree;  // no slot below is free

    // Memory of the entries that were read from files, freed with the table. Entries that programs set have memory of
    // their own, so that setting one again and again does not pile up.
    struct Chunk {
        Chunk *older;
        size_t size;  // of what follows
        char *bytes() { return reinterpret_cast<char *>(this + 1); }
    };
    Chunk *pool;      // the newest, which is being filled
    size_t poolUsed;  // bytes of it
    bool separate;    // some entries are not in the pool
};

namespace {

constexpr size_t lineMax = 1023;     // of a line buffer of 1024 bytes
constexpr size_t textMax = 255;      // characters of a key, of a value
constexpr size_t pathMax = 511;      // characters of an absolute include
constexpr size_t relativeMax = 510;  // characters of an include beside the file
constexpr ptrdiff_t ownMax = 510;    // characters of the including file's directory and the slash after it
constexpr int slotStep = 64;
constexpr uint32_t firstCells = 4 * slotStep;
constexpr size_t firstChunk = 4000;  // each chunk is twice as large as the one before it
constexpr size_t largestChunk = 256000;
constexpr size_t mostIncludes = 16384;           // files included in one read
constexpr size_t mostIncludedBytes = 16U << 20;  // read from them before no more are opened
constexpr std::string_view includeWord = "include ";

using Index = cfread_index;
using Cell = Index::Cell;
using Chunk = Index::Chunk;

// ---- memory of entries

void freeEntry(cfread_entry *entry) {
    std::free(entry->key);
    std::free(entry->value);
    std::free(entry);
}
using EntryPtr = std::unique_ptr<cfread_entry, vx::Release<&freeEntry>>;

bool inPool(const Index *index, const cfread_entry *entry) {
    const auto address = reinterpret_cast<uintptr_t>(entry);
    for (Chunk *chunk = index != nullptr ? index->pool : nullptr; chunk != nullptr; chunk = chunk->older) {
        if (address - reinterpret_cast<uintptr_t>(chunk->bytes()) < chunk->size) return true;
    }
    return false;
}

// Returns null when memory is out.
char *takeFromPool(Index &index, size_t size) {
    size = (size + alignof(cfread_entry) - 1) / alignof(cfread_entry) * alignof(cfread_entry);
    if (index.pool == nullptr || index.pool->size - index.poolUsed < size) {
        const size_t room = index.pool == nullptr ? firstChunk : std::min(index.pool->size * 2, largestChunk);
        auto *chunk = static_cast<Chunk *>(std::malloc(sizeof(Chunk) + room));
        if (chunk == nullptr) return nullptr;
        *chunk = {index.pool, room};
        index.pool = chunk;
        index.poolUsed = 0;
    }
    return index.pool->bytes() + std::exchange(index.poolUsed, index.poolUsed + size);
}

char *copyTo(char *memory, std::string_view text) {
    if (memory == nullptr) return nullptr;
    std::memcpy(memory, text.data(), text.size());
    memory[text.size()] = '\0';
    return memory;
}

char *copyText(std::string_view text) { return copyTo(static_cast<char *>(std::malloc(text.size() + 1)), text); }

// Returns what strtol() gives on the target, whose long has 32 bits and whose two saturated results count as no number.
int integerValue(std::string_view value) {
    if (value == "true") return 1;
    if (value == "false") return 0;
    if (value.empty()) return -1;
    constexpr int64_t saturated = INT32_MAX;
    const bool negative = value[0] == '-';
    if (negative || value[0] == '+') value.remove_prefix(1);
    int64_t number = 0;
    for (const char c : value) {
        if (c < '0' || c > '9') return -1;
        if (number <= saturated) number = number * 10 + (c - '0');
    }
    if (negative) return number > saturated ? -1 : static_cast<int>(-number);
    return number >= saturated ? -1 : static_cast<int>(number);
}

// Makes an entry and its texts, side by side; they must be short, as those of a file are. Null when memory is out.
cfread_entry *pooledEntry(Index &index, std::string_view key, std::string_view value) {
    char *memory = takeFromPool(index, sizeof(cfread_entry) + key.size() + 1 + value.size() + 1);
    if (memory == nullptr) return nullptr;
    char *texts = memory + sizeof(cfread_entry);
    return new (memory) cfread_entry{0, copyTo(texts, key), copyTo(texts + key.size() + 1, value), integerValue(value)};
}

// ---- finding entries

void putCell(Index &index, uint32_t hash, int slot) {
    uint32_t at = hash;
    Cell *cell = &index.cells[at & (index.cellCount - 1)];
    while (cell->slot > 0) cell = &index.cells[++at & (index.cellCount - 1)];
    if (cell->slot == 0) ++index.used;
    *cell = {hash, slot + 1};
}

// Counts the entries themselves: after quirk Q34 the table's count is too low, even negative.
uint32_t countEntries(const cfread_table &table) {
    uint32_t entries = 0;
    for (int slot = 0; slot < table.size; ++slot) entries += table.entries[slot] != nullptr ? 1 : 0;
    return entries;
}

// Replaces the cells by at least twice as many as there are entries. Without memory the table has no cells any more.
void renewCells(cfread_table &table, Index &index) {
    const uint32_t entries = countEntries(table);
    uint32_t cellCount = firstCells;
    while (cellCount / 2 < entries) cellCount *= 2;
    const vx::MallocPtr<Cell> old(index.cells);
    const uint32_t oldCount = std::exchange(index.cellCount, cellCount);
    index.cells = static_cast<Cell *>(std::calloc(cellCount, sizeof(Cell)));
    index.used = 0;
    if (index.cells == nullptr) return;
    if (old != nullptr) {
        for (const Cell &cell : std::span(old.get(), oldCount)) {
            if (cell.slot > 0) putCell(index, cell.hash, cell.slot - 1);
        }
        return;
    }
    for (int slot = 0; slot < table.size; ++slot) {
        const cfread_entry *entry = table.entries[slot];
        if (entry != nullptr) putCell(index, vx::textHash(entry->key, std::strlen(entry->key)), slot);
    }
}

// Returns the table's private part, with room for one entry more; null when memory is out.
Index *privatePart(cfread_table &table) {
    if (table.index == nullptr) {
        table.index = static_cast<Index *>(zalloc(sizeof(Index)));
        if (table.index == nullptr) return nullptr;
        table.index->slotRoom = std::max(table.size, 0);
        table.index->separate = countEntries(table) != 0;
    }
    Index &index = *table.index;
    if (index.cells == nullptr || index.used >= index.cellCount / 4 * 3) renewCells(table, index);
    return &index;
}

bool searchable(const cfread_table &table) { return table.index != nullptr && table.index->cells != nullptr; }

bool slotHolds(const cfread_table &table, int slot, const char *key) {
    return slot < table.size && table.entries[slot] != nullptr && std::strcmp(table.entries[slot]->key, key) == 0;
}

// Returns the cell of the key's slot, null when there is none. Only in a searchable table.
Cell *findCell(const cfread_table &table, const char *key, uint32_t hash) {
    const Index &index = *table.index;
    for (uint32_t at = hash;; ++at) {
        Cell *cell = &index.cells[at & (index.cellCount - 1)];
        if (cell->slot == 0) return nullptr;
        if (cell->hash == hash && cell->slot > 0 && slotHolds(table, cell->slot - 1, key)) return cell;
    }
}

// Returns the slot of a key, -1 when there is none.
int findSlot(const cfread_table &table, const char *key, uint32_t hash) {
    if (searchable(table)) {
        const Cell *cell = findCell(table, key, hash);
        return cell != nullptr ? cell->slot - 1 : -1;
    }
    for (int slot = 0; slot < table.size; ++slot) {
        if (slotHolds(table, slot, key)) return slot;
    }
    return -1;
}

// ---- setting entries

// Empties a slot. Its entry is the caller's then; null when there was none or its memory stays until the table goes.
EntryPtr takeOut(cfread_table &table, int slot) {
    cfread_entry *entry = table.entries[slot];
    if (entry != nullptr && searchable(table)) {
        Cell *cell = findCell(table, entry->key, vx::textHash(entry->key, std::strlen(entry->key)));
        if (cell != nullptr) cell->slot = -1;
    }
    table.entries[slot] = nullptr;
    --table.count;
    if (table.index != nullptr) table.index->lowestFree = std::min(table.index->lowestFree, slot);
    return EntryPtr(inPool(table.index, entry) ? nullptr : entry);
}

// Adds 64 slots, all free. The memory grows in larger steps, so that the cost of an entry does not depend on their
// number.
bool growSlots(cfread_table &table) {
    const int size = static_cast<int>(static_cast<unsigned int>(table.size) + slotStep);
    if (size <= 0) {
        vx::log(LOG_EMERG, "cfread: unable to get a free index");
        // Quirk Q33.
        std::exit(1);
    }
    const int room = table.index != nullptr ? table.index->slotRoom : std::max(table.size, 0);
    if (size > room) {
        const size_t wanted = static_cast<size_t>(size) + static_cast<size_t>(room) / 2;
        if (wanted > SIZE_MAX / sizeof(cfread_entry *)) return false;
        void *slots = std::realloc(table.entries, wanted * sizeof(cfread_entry *));
        if (slots == nullptr) return false;
        table.entries = static_cast<cfread_entry **>(slots);
        if (table.index != nullptr) table.index->slotRoom = static_cast<int>(std::min<size_t>(wanted, INT32_MAX));
    }
    std::fill(table.entries + std::max(table.size, 0), table.entries + size, nullptr);
    table.size = size;
    return true;
}

// Returns the lowest free slot; -1 when there is none and no memory for more.
int freeSlot(cfread_table &table) {
    int slot = table.index != nullptr ? table.index->lowestFree : 0;
    while (slot < table.size && table.entries[slot] != nullptr) ++slot;
    if (slot >= table.size && !growSlots(table)) return -1;
    return slot;
}

void putInto(cfread_table &table, int slot, cfread_entry *entry, uint32_t hash) {
    entry->index = slot;
    table.entries[slot] = entry;
    ++table.count;
    if (table.index == nullptr) return;
    table.index->lowestFree = slot + 1;
    if (table.index->cells != nullptr) putCell(*table.index, hash, slot);
}

cfread_entry *notAdded(const cfread_table &table, const char *key) {
    vx::log(LOG_ERR, "cfread: unable to add entry '%s' in %s", key, table.file != nullptr ? table.file : "");
    return nullptr;
}

enum class From { program, file };

// Both texts may be those of the entry that is replaced: it is out of the table at once, but goes last.
cfread_entry *setEntry(cfread_table &table, std::string_view key, std::string_view value, From from) {
    Index *index = privatePart(table);
    const uint32_t hash = vx::textHash(key.data(), key.size());
    EntryPtr replaced;
    const int oldSlot = findSlot(table, key.data(), hash);
    if (oldSlot >= 0) replaced = takeOut(table, oldSlot);

    const int slot = freeSlot(table);
    if (slot < 0) return notAdded(table, key.data());
    // The pool gives nothing back before the table goes: what replaces an entry, and may be replaced again, is kept
    // out.
    if (from == From::file && index != nullptr && oldSlot < 0) {
        cfread_entry *pooled = pooledEntry(*index, key, value);
        if (pooled != nullptr) {
            putInto(table, slot, pooled, hash);
            return pooled;
        }
    }
    EntryPtr entry(static_cast<cfread_entry *>(zalloc(sizeof(cfread_entry))));
    if (!entry) return notAdded(table, key.data());
    entry->key = copyText(key);
    entry->value = copyText(value);
    if (entry->key == nullptr || entry->value == nullptr) {
        // Quirk Q34. The entry is removed by its index, which is still 0.
        (void)takeOut(table, 0).release();
        return notAdded(table, key.data());
    }
    entry->ival = integerValue(value);
    if (index != nullptr) index->separate = true;
    putInto(table, slot, entry.get(), hash);
    return entry.release();
}

void freeEntries(cfread_table &table) {
    if (table.index != nullptr && !table.index->separate) return;
    for (int slot = 0; slot < table.size; ++slot) {
        cfread_entry *entry = table.entries[slot];
        if (entry != nullptr && !inPool(table.index, entry)) freeEntry(entry);
    }
}

void freePrivatePart(Index *index) {
    if (index == nullptr) return;
    while (index->pool != nullptr) std::free(std::exchange(index->pool, index->pool->older));
    std::free(index->cells);
    std::free(index);
}

// ---- reading lines

struct Parts {
    std::string_view key;
    std::string_view value;
};

// Returns key and value of an ordinary line, without bytes above 127, NUL or carriage return, NUL-terminated in place;
// an empty value for any line that is not ordinary, which Reader::parseEntry() takes apart byte by byte.
// Quirk Q36.
Parts plainParts(std::span<char> line) {
    char *newline = line.data() + line.size() - 1;
    if (*newline != '\n' || !vx::allPlain<'\r' + 1>(line.data(), line.size() - 1)) return {};
    auto *equals = static_cast<char *>(std::memchr(line.data(), '=', line.size() - 1));
    if (equals == nullptr) return {};

    char *key = line.data();
    char *keyEnd = equals;
    while (key < keyEnd && *key == ' ') ++key;
    while (key < keyEnd && keyEnd[-1] == ' ') --keyEnd;
    const auto keyLength = static_cast<size_t>(keyEnd - key);
    if (keyLength == 0 || keyLength > textMax || std::memchr(key, ' ', keyLength) != nullptr) return {};
    char *value = equals + 1;
    while (*value == ' ') ++value;
    const auto valueLength = static_cast<size_t>(newline - value);
    if (valueLength == 0 || valueLength > textMax) return {};
    *keyEnd = '\0';
    *newline = '\0';
    return {{key, keyLength}, {value, valueLength}};
}

// ---- reading files

// A file being read, and through `parent` those that include it. Small: there may be as many as descriptors.
struct Source {
    Source *parent;
    vx::Fd fd;
    const char *name;
    vx::MallocText ownName;  // null for the caller's file
    vx::MallocText rest;     // read but not used when an include began, of what cannot be read again
    size_t restSize;
    int line;
};

class Reader {
public:
    explicit Reader(cfread_table &table) : table_(table) {}
    ~Reader() {
        while (source_ != nullptr) leave();
    }
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    // Returns 0, or -1 when something failed; that has been logged then.
    int read(const char *file) {
        if (file == nullptr || *file == '\0') {
            vx::log(LOG_ERR, "cfread: no config file given");
            return -1;
        }
        table_.file = file;
        if (!enter(file, nullptr)) return -1;
        while (source_ != nullptr) {
            const std::span<char> line = lines_.next(source_->fd.get(), lineMax);
            if (source_->parent != nullptr) includedBytes_ += line.size();
            if (line.empty()) {
                leave();
            } else if (!handleLine(line)) {
                return -1;
            }
        }
        return 0;
    }

private:
    // Keeps the failures, which are logged when all files are closed: the system log may need a descriptor when there
    // is none left.
    bool cannotOpen(const char *name) {
        closeAll();
        vx::log(LOG_ERR, "cfread: unable to open %s", name);
        return false;
    }
    bool wrongLine(const char *what) {
        closeAll();
        vx::log(LOG_ERR, "cfread: %s in %s at line %d", what, source_->name, source_->line);
        return false;
    }
    void closeAll() {
        for (Source *source = source_; source != nullptr; source = source->parent) source->fd.reset();
    }

    // Opens a file and makes it the current one. Files are entered without recursion: the stack must last however many
    // descriptors there are.
    bool enter(const char *name, vx::MallocText ownName) {
        // Only what the caller names itself may keep it waiting, and may be a device.
        vx::Fd fd = source_ != nullptr ? vx::openNoDevice(name)
                                       : vx::Fd(vx::retryEintr([&] { return ::open(name, O_RDONLY | O_CLOEXEC); }));
        if (!fd.valid() || !keepRest()) return cannotOpen(name);
        auto *source = new (std::nothrow) Source{source_, std::move(fd), name, std::move(ownName), nullptr, 0, 0};
        if (source == nullptr) return cannotOpen(name);
        source_ = source;
        table_.file = name;
        lines_.restart({});
        return true;
    }

    // Closes the current file and goes on with the one that included it.
    void leave() {
        const std::unique_ptr<Source> done(source_);
        source_ = done->parent;
        lines_.restart({});
        if (source_ == nullptr) return;
        table_.file = source_->name;
        if (source_->rest == nullptr) return;
        lines_.restart({source_->rest.get(), source_->restSize});
        source_->rest.reset();
    }

    // Leaves what the buffer holds to be read again after the include, which needs the buffer.
    bool keepRest() {
        const std::span<const char> rest = lines_.unread();
        if (source_ == nullptr || rest.empty()) return true;
        if (::lseek(source_->fd.get(), -static_cast<off_t>(rest.size()), SEEK_CUR) != -1) return true;
        source_->rest.reset(static_cast<char *>(std::malloc(rest.size())));
        if (source_->rest == nullptr) return false;
        std::memcpy(source_->rest.get(), rest.data(), rest.size());
        source_->restSize = rest.size();
        return true;
    }

    bool handleLine(std::span<char> line) {
        const std::string_view text(line.data(), line.size());
        if (text.starts_with(includeWord)) return include(text.substr(includeWord.size()));
        ++source_->line;
        if (text[0] == '#') return true;
        const Parts parts = plainParts(line);
        return parts.value.empty() ? parseEntry(text) : handleEntry(parts.key, parts.value);
    }

    bool include(std::string_view rest) {
        std::array<char, lineMax + 1> text;
        std::memcpy(text.data(), rest.data(), rest.size());
        text[rest.size()] = '\0';
        const char *name = stripwhite(text.data());
        if (*name == '\0') {
            closeAll();
            vx::log(LOG_ERR, "cfread: no include file given in %s", source_->name);
            return false;
        }
        vx::MallocText path = pathOf(name);
        if (path == nullptr) return cannotOpen(name);
        // A few short files that include each other twice would otherwise keep the reader busy without end.
        if (++includes_ > mostIncludes || includedBytes_ > mostIncludedBytes) return cannotOpen(path.get());
        const char *opened = path.get();
        return enter(opened, std::move(path));
    }

    // Returns the path of an included file, null when a part of it is too long or memory is out.
    vx::MallocText pathOf(const char *name) const {
        const size_t length = std::strlen(name);
        if (*name == '/') return vx::MallocText(length > pathMax ? nullptr : ::strdup(name));
        // Only the last part of the including file's name may be cut: what is before it is the directory.
        const char *slash = std::strrchr(source_->name, '/');
        if (length > relativeMax || (slash != nullptr && slash - source_->name >= ownMax)) return nullptr;
        std::array<char, pathMax + 1> own;
        strlcpy(own.data(), source_->name, own.size());
        const char *directory = ::dirname(own.data());
        const size_t size = std::strlen(directory) + 1 + length + 1;
        vx::MallocText path(static_cast<char *>(std::malloc(size)));
        if (path != nullptr) (void)std::snprintf(path.get(), size, "%s/%s", directory, name);
        return path;
    }

    // Takes a line apart byte by byte and passes it on.
    bool parseEntry(std::string_view line) {
        std::array<char, textMax + 1> key;
        std::array<char, textMax + 1> value;
        size_t keyLength = 0;
        size_t valueLength = 0;
        bool inValue = false;
        for (const char c : line) {
            if (c == '\n' || c == '\r') {
                key[keyLength] = '\0';
                value[valueLength] = '\0';
                return handleEntry({key.data(), keyLength}, {value.data(), valueLength});
            }
            if (c == '\0') break;
            if ((static_cast<unsigned char>(c) & 0x80) != 0) continue;
            if (!inValue) {
                if (c == ' ') continue;
                if (c == '=') {
                    inValue = true;
                } else if (keyLength == textMax) {
                    return wrongLine("max. key length exceeded");
                } else {
                    key[keyLength++] = c;
                }
            } else if (c != ' ' || valueLength > 0) {
                if (valueLength == textMax) return wrongLine("max. value length exceeded");
                value[valueLength++] = c;
            }
        }
        return wrongLine("non-terminated entry");
    }

    bool handleEntry(std::string_view key, std::string_view value) {
        const bool empty = key.empty() || value.empty();
        if (table_.callback == nullptr) {
            if (empty || setEntry(table_, key, value, From::file) != nullptr) return true;
            return wrongLine("unable to add entry");
        }
        if (empty && table_.cb_empty == 0) return true;
        if (table_.callback(key.data(), value.data(), table_.cb_arg, empty ? table_.cb_empty : 0) != 0) leave();
        return true;
    }

    cfread_table &table_;
    Source *source_ = nullptr;
    size_t includes_ = 0;
    uint64_t includedBytes_ = 0;
    vx::LineBuffer lines_;  // of the current file
};

}  // namespace

// Quirk Q35.
cfread_table *cfread_open(const char *file) {
    auto *table = static_cast<cfread_table *>(zalloc(sizeof(cfread_table)));
    if (table == nullptr) {
        vx::log(LOG_ERR, "cfread: no mem to alloc config table");
        return nullptr;
    }
    if (Reader(*table).read(file) == -1) {
        cfread_close(table);
        return nullptr;
    }
    return table;
}

void cfread_close(cfread_table *table) {
    if (table == nullptr) return;
    freeEntries(*table);
    std::free(table->entries);
    freePrivatePart(table->index);
    std::free(table);
}

cfread_entry *cfread_find_entry(const cfread_table *table, const char *key) {
    if (table == nullptr || key == nullptr || *key == '\0') return nullptr;
    const int slot = findSlot(*table, key, vx::textHash(key, std::strlen(key)));
    return slot >= 0 ? table->entries[slot] : nullptr;
}

cfread_entry *cfread_set_entry(cfread_table *table, const char *key, const char *value) {
    if (table == nullptr || key == nullptr || *key == '\0') return nullptr;
    return setEntry(*table, key, value != nullptr ? value : "", From::program);
}

// Quirk Q37.
int cfread_parse_with_callback(const char *file, cfread_callback callback, void *arg, int cb_empty) {
    if (callback == nullptr) return -1;
    cfread_table table{};
    table.callback = callback;
    table.cb_arg = arg;
    table.cb_empty = static_cast<unsigned char>(cb_empty);
    return Reader(table).read(file);
}
