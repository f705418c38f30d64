// SPDX-License-Identifier: MIT
// Counts the blocks of one size on their way from malloc() to free(), and refuses them. To be included by one source file
// of a test program: it puts its own malloc() and free() in front of the C library's. Without
// VXTEST_MEMORY_IS_WATCHED nothing is counted: the thread sanitizer allocates long before anything of a test may run.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstddef>

namespace vxtest::memory {

inline bool watching = false;  // for the builtins: std::atomic is too much for what runs first
inline size_t watchedSize = 0;
inline std::atomic<bool> refused = false;        // there is no block of this size
inline std::atomic<void *> lastBlock = nullptr;  // of this size
inline std::atomic<int> allocations = 0;
inline std::atomic<int> frees = 0;  // of the last block

inline void stop() { __atomic_store_n(&watching, false, __ATOMIC_RELEASE); }

// Counts from here on.
inline void watch(size_t size) {
    watchedSize = size;
    allocations = frees = 0;
    lastBlock = nullptr;
    refused = false;
    __atomic_store_n(&watching, true, __ATOMIC_RELEASE);
}

}  // namespace vxtest::memory

#ifndef __SANITIZE_THREAD__
#define VXTEST_MEMORY_IS_WATCHED

#ifdef __SANITIZE_ADDRESS__
#define VXTEST_REAL_MEMORY(name) __interceptor_##name
#else
#define VXTEST_REAL_MEMORY(name) __libc_##name
#endif

extern "C" {
void *VXTEST_REAL_MEMORY(malloc)(size_t);
void VXTEST_REAL_MEMORY(free)(void *);
}

namespace vxtest::memory {

inline void *watchedMalloc(size_t size) {
    if (size != watchedSize) return VXTEST_REAL_MEMORY(malloc)(size);
    if (refused) {
        errno = ENOMEM;
        return nullptr;
    }
    ++allocations;
    return lastBlock = VXTEST_REAL_MEMORY(malloc)(size);
}

// The address may be another thread's next block, so it is forgotten with the first free(). A second one is found by the
// allocator, which ends the program.
inline void watchFree(void *block) {
    if (block != nullptr && lastBlock.compare_exchange_strong(block, nullptr)) ++frees;
}

}  // namespace vxtest::memory

extern "C" {

// Called before anything is set up, the sanitizer included: nothing but a look at the switch.
[[gnu::no_sanitize("address", "undefined")]] void *malloc(size_t size) {
    return __atomic_load_n(&vxtest::memory::watching, __ATOMIC_ACQUIRE) ? vxtest::memory::watchedMalloc(size)
                                                                        : VXTEST_REAL_MEMORY(malloc)(size);
}

[[gnu::no_sanitize("address", "undefined")]] void free(void *block) {
    if (__atomic_load_n(&vxtest::memory::watching, __ATOMIC_ACQUIRE)) vxtest::memory::watchFree(block);
    VXTEST_REAL_MEMORY(free)(block);
}
}
#endif

// The loader keeps what it knows of a library in memory of its own, where the leak checker does not look; that the
// loader is the caller it cannot see, for malloc() is the test's.
extern "C" const char *__lsan_default_suppressions() { return "leak:_dl_map_object_deps\n"; }
