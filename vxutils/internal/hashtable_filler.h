// SPDX-License-Identifier: MIT
// Fills a table of texts whose entries are in memory of the filler's own, for tables that are filled once and go as a
// whole. Its keys are found through find() alone: their buckets follow textHash(), which the author of the keys cannot
// foresee, instead of the tables' own hash.
#pragma once

#include <vxutils/hashtable.h>

#include <cstddef>
#include <cstdint>

namespace vx {

struct TextTableFiller {
    // Where a key is or would be.
    struct Place {
        INStringHashTable::Entry **link;
        uint32_t hash;
    };

    // Bytes that an entry with a key of this length takes.
    static size_t entrySize(size_t keyLength);

    static Place find(const INStringHashTable &table, const char *key, size_t length);

    // Whether find() found the key: of several entries the oldest.
    static bool taken(const Place &place) { return *place.link != nullptr; }

    // Returns the entry's value, null when there is none.
    static void *valueAt(const Place &place);

    // Makes the entry in `memory`, which is aligned for it, at a place that is not taken.
    static void put(const Place &place, const char *key, size_t length, void *value, void *memory);

    // Empties the table without freeing its entries; due before the table is destroyed or emptied by other means.
    static void forgetEntries(INStringHashTable &table);
};

}  // namespace vx
