// SPDX-License-Identifier: MIT
#include "devlog.h"

#include <syslog.h>

#include <new>

struct devlog_level {
    int number;
    int priority;
};

namespace {

// Never freed: levels live for the process, and created ones stay reachable so that leak checkers see them.
struct CreatedLevel {
    devlog_level level;
    CreatedLevel *next;
};
constinit CreatedLevel *createdLevels = nullptr;

constinit devlog_level errLevel{0, LOG_ERR};
constinit devlog_level errorLevel{1, LOG_ERR};
constinit devlog_level infoLevel{2, LOG_INFO};

}  // namespace

extern "C" {

devlog_level *const DL_ERR = &errLevel;
devlog_level *const DL_ERROR = &errorLevel;
devlog_level *const DL_INFO = &infoLevel;

devlog_level *devlog_level_create(int number) {
    auto *created = new (std::nothrow) CreatedLevel{{number, LOG_DEBUG}, nullptr};
    if (created == nullptr) return nullptr;
    created->next = __atomic_load_n(&createdLevels, __ATOMIC_RELAXED);
    while (!__atomic_compare_exchange_n(&createdLevels, &created->next, created, true, __ATOMIC_RELEASE,
                                        __ATOMIC_RELAXED)) {
    }
    return &created->level;
}

int devlog_level_to_prio(const devlog_level *level) { return level == nullptr ? LOG_DEBUG : level->priority; }

}  // extern "C"
