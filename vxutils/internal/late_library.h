// SPDX-License-Identifier: MIT
// Functions of libraries that most processes never need: they are looked for at their first use, so that a process that
// does not use them does not load their libraries. A static library of ours leaves all of this to the linker.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>

namespace vx {

// Looks for the functions of one library, in the process first: the caller made its context or event base with them.
class LateLibrary {
public:
    // Several names are variants of one library. The first is loaded where the process has none of them.
    template <size_t count>
    explicit LateLibrary(const std::array<const char *, count> &sonames) : LateLibrary(sonames.data(), count) {}

    template <typename Function>
    bool find(Function *&function, const char *name) {
        function = reinterpret_cast<Function *>(address(name));
        return function != nullptr;
    }

    void logFailure() const;

private:
    LateLibrary(const char *const *sonames, size_t count);
    void *address(const char *name);

    const char *wanted_;
    void *handle_ = nullptr;  // never closed: what was found stays
    bool loadTried_ = false;
};

// The functions of one library, as members of `Calls`, whose static member `find` finds them or fails, and whose
// `sonames` name the library.
template <typename Calls>
class LateCalls {
public:
    // Returns the functions; null members where the library cannot be had, which is logged the first time. Each caller
    // gets a copy: no thread waits for another, and a child of fork() waits for no thread.
    Calls get() noexcept {
        if (state_.load(std::memory_order_acquire) == State::found) return calls_;
        LateLibrary library(Calls::sonames);
        Calls calls{};
        if (!calls.find(library)) {
            if (!logged_.exchange(true)) library.logFailure();
            return Calls{};
        }
        State expected = State::unknown;
        if (state_.compare_exchange_strong(expected, State::storing)) {
            calls_ = calls;
            state_.store(State::found, std::memory_order_release);
        }
        return calls;
    }

private:
    enum class State { unknown, storing, found };

    Calls calls_{};
    std::atomic<State> state_{State::unknown};
    std::atomic<bool> logged_{false};
};

}  // namespace vx

// Finds the member of `Calls` that has the name and type of the library's own function; true when it is there.
#ifdef VXUTILS_STATIC
#define VX_FIND_LATE(library, function) ((void)(library), (this->function = &::function) != nullptr)
#else
#define VX_FIND_LATE(library, function) (library).find(this->function, #function)
#endif

// A note that tells packagers what the library loads: "ELF dlopen metadata" of the UAPI group. `text` is a JSON array
// of one object.
#ifdef VXUTILS_STATIC
#define VX_LATE_NOTE(name, text) static_assert(sizeof(text) > 1, #name)
#else
#define VX_LATE_NOTE(name, text)                                                       \
    struct name {                                                                      \
        unsigned int ownerSize = sizeof "FDO", size = sizeof(text), type = 0x407c0c0a; \
        char owner[4] = "FDO";                                                         \
        alignas(4) char content[sizeof(text)] = text;                                  \
    };                                                                                 \
    [[gnu::used, gnu::section(".note.dlopen"), gnu::aligned(4)]] constexpr name name##Content {}
#endif
