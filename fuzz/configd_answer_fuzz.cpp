// SPDX-License-Identifier: MIT
// A configuration daemon whose answers are the pieces of the input; when they are used up it answers with nothing.
#include <sys/stat.h>
#include <syslog.h>
#include <vxutils/configd.h>

#include <cstdlib>
#include <cstring>

#include "fuzz/stage.h"

namespace {

stage::Answers answers;

std::string answer(std::string_view) { return answers.next().value_or(""); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool started = [] {
        ::setlogmask(LOG_MASK(LOG_DEBUG));  // the messages go nowhere
        ::mkdir("/var/run/configd", 0755);
        stage::startDatagramPeer("/var/run/configd/daemon.sock", answer);
        return true;
    }();
    stage::check(started);
    answers.play(stage::text(data, size));
    configd_handle *const handle = configd_open();
    stage::check(handle != nullptr);
    configd_add_query(handle, "wan.%d.apn", 0);
    configd_add_query(handle, "wan.%d.pin", 1);
    if (configd_get(handle, nullptr) == 0) {
        stage::check(std::strlen(configd_fetch(handle, "wan.%d.apn", 0)) < CONFIGD_VALUE_LEN);
        stage::check(std::strlen(configd_fetch(handle, "wan.%d.pin", 1)) < CONFIGD_VALUE_LEN);
    }
    configd_entry entries[2]{};
    std::strcpy(entries[0].key, "key");
    std::strcpy(entries[0].value, "value");
    const int set = configd_set(handle, entries);
    const int done = configd_done(handle);
    stage::check(set >= -4 && set <= 0 && done >= -4 && done <= 1);
    configd_close(handle);
    return 0;
}
