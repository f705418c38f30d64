// SPDX-License-Identifier: MIT
// The families that fail by lack of memory only.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <vxutils/address.h>
#include <vxutils/digest.h>
#include <vxutils/hashtable.h>
#include <vxutils/processcontrol.h>
#include <vxutils/strutil.h>
#include <vxutils/timefmt.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string>

#include "torture/faults.h"

using torture::Run;

namespace {

template <typename Table, typename Key>
void fill(Run &run, Table &table, Key key) {
    unsigned long added = 0;
    for (unsigned long i = 0; i < 8; ++i) {
        const bool done = run([&] {
            try {
                return table.addEntry(key(i), &table);
            } catch (const std::bad_alloc &) {
                return false;
            }
        });
        run.outcome("addEntry", done, !done);
        if (done) ++added;
    }
    run.always("a table that had no memory is unchanged", table.getNumberOfKeys() == added);
}

void tables(Run &run) {
    const auto made = [&](auto make) {
        try {
            make();
            return true;
        } catch (const std::bad_alloc &) {
            return false;
        }
    };
    std::unique_ptr<INUInt32HashTable> numbers;
    std::unique_ptr<INStringHashTable> texts;
    bool done = run([&] { return made([&] { numbers = std::make_unique<INUInt32HashTable>(4, HASH_LOW_BITS); }); });
    if (run.outcome("INUInt32HashTable", done, !done)) fill(run, *numbers, [](unsigned long i) { return i; });
    done = run([&] { return made([&] { texts = std::make_unique<INStringHashTable>(4); }); });
    static const char *const keys[] = {"a", "b", "c", "d", "e", "f", "g", "h"};
    if (run.outcome("INStringHashTable", done, !done)) fill(run, *texts, [](unsigned long i) { return keys[i]; });
    run([&] {
        numbers.reset();
        texts.reset();
    });
}

void texts(Run &run) {
    void *memory = run([] { return zalloc(64); });
    run.outcome("zalloc", memory != nullptr, memory == nullptr);
    std::free(memory);
    const std::string text = run([] { return strformat("%d %s", 7, "words"); });
    run.outcome("strformat", text == "7 words", text.empty());
    const std::string time = run([] {
        const time_t zero = 0;
        return timeformat(&zero);
    });
    run.outcome("timeformat", time.size() == 19, time.size() == 19);
    const long up = run([] { return jiffy(); });
    run.outcome("jiffy", up >= 0, true);
    sockaddr_in address{};
    const int read = run([&] { return str2addr("192.0.2.7", reinterpret_cast<sockaddr *>(&address)); });
    run.outcome("str2addr", read == 0 && address.sin_addr.s_addr == htonl(0xC0000207), read == -1);
    const time_t moment = run([] { return timeparse("2026-11-23 12:00:00"); });
    run.outcome("timeparse", moment > 1790000000, moment == 0);
    const ProcessEntry entry(1, "init");
    run.always("a process entry has a name", std::string(entry.getName()) == "init");
}

void digests(Run &run) {
    unsigned char first[20];
    const int result = run([&] {
        try {
            const auto inner = std::make_unique<Sha1HashContext>();
            HmacContext mac(inner.get());
            if (mac.initialize(reinterpret_cast<const unsigned char *>("key"), 3, 20) != 0) return -1;
            mac.hash(reinterpret_cast<const unsigned char *>("text"), 4);
            mac.getHash(first);
            return 0;
        } catch (const std::bad_alloc &) {  // of the caller's own "new"
            return -1;
        }
    });
    run.outcome("HmacContext", result == 0, result == -1);
}

}  // namespace

int main(int argc, char **argv) {
    return torture::torment(
        argc, argv, {{"hashtable: tables", tables}, {"strutil and timefmt: texts", texts}, {"digest: HMAC", digests}});
}
