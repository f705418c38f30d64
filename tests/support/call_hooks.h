// SPDX-License-Identifier: MIT
// Calls of the library on their way to the C library, for answers that no kernel gives on demand. One line per call, in
// one source of a test program and outside of any namespace:
//
//   VXTEST_HOOK(int, semget, (key_t key, int count, int flags), (key, count, flags))
//
// From then on vxtest::hooks::semget is asked first. While it is empty, and where it returns nothing, the C library
// does the work, as vxtest::real::semget() always does. VXTEST_THREAD_HOOK is for calls that other threads of the test
// make at the same time (the reader of the system log among them): it answers the thread that sets it. VXTEST_WATCH is
// for calls without a result: its hook is told of them. The socket calls are in intercept.h, those of the event loop in
// loop_calls.h.
#pragma once

#include <dlfcn.h>

#include <cerrno>
#include <functional>
#include <optional>
#include <utility>

namespace vxtest {

// The function of this name in the libraries after the test program.
template <typename Function>
Function nextCall(const char *name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

// A hook that answers every call after the first `passing` ones with `value` and errno `error`.
template <typename Value>
auto answering(Value value, int error, int passing = 0) {
    return [value, error, passing](const auto &...) mutable -> std::optional<Value> {
        if (passing > 0) {
            --passing;
            return std::nullopt;
        }
        errno = error;
        return value;
    };
}

// A hook that makes every call after the first `passing` ones fail as system calls do.
inline auto failingWith(int error, int passing = 0) { return answering(-1, error, passing); }

// Sets a hook for as long as this lives.
template <typename Hook>
class [[nodiscard]] Hooked {
public:
    template <typename Answer>
    Hooked(Hook &hook, Answer answer) : hook_(hook) {
        hook_ = std::move(answer);
    }
    ~Hooked() { hook_ = nullptr; }
    Hooked(const Hooked &) = delete;
    Hooked &operator=(const Hooked &) = delete;

private:
    Hook &hook_;
};

// A hook of one thread is a pointer, which needs no constructor and no destructor in each thread.
template <typename Call>
class [[nodiscard]] Hooked<const std::function<Call> *> {
public:
    template <typename Answer>
    Hooked(const std::function<Call> *&hook, Answer answer) : hook_(hook), answer_(std::move(answer)) {
        hook_ = &answer_;
    }
    ~Hooked() { hook_ = nullptr; }
    Hooked(const Hooked &) = delete;
    Hooked &operator=(const Hooked &) = delete;

private:
    const std::function<Call> *&hook_;
    std::function<Call> answer_;
};

template <typename Hook, typename Answer>
Hooked(Hook &, Answer) -> Hooked<Hook>;

}  // namespace vxtest

#define VXTEST_HOOK(result, name, parameters, arguments) VXTEST_HOOK_AS(result, name, #name, parameters, arguments)

// For calls that have another name, `name32`, where long has 32 bits and file offsets and times have 64.
#define VXTEST_HOOK_AS(result, name, name32, parameters, arguments)                                 \
    namespace vxtest::hooks {                                                                       \
    inline std::function<std::optional<result> parameters> name;                                    \
    }                                                                                               \
    VXTEST_REAL(result, name, name32, parameters, arguments)                                        \
    extern "C" result name parameters noexcept(noexcept(::name arguments)) {                        \
        if (vxtest::hooks::name) {                                                                  \
            if (const std::optional<result> answer = vxtest::hooks::name arguments) return *answer; \
        }                                                                                           \
        return vxtest::real::name arguments;                                                        \
    }

#define VXTEST_THREAD_HOOK(result, name, parameters, arguments)                                          \
    namespace vxtest::hooks {                                                                            \
    inline constinit thread_local const std::function<std::optional<result> parameters> *name = nullptr; \
    }                                                                                                    \
    VXTEST_REAL(result, name, #name, parameters, arguments)                                              \
    extern "C" result name parameters noexcept(noexcept(::name arguments)) {                             \
        if (vxtest::hooks::name != nullptr) {                                                            \
            if (const std::optional<result> answer = (*vxtest::hooks::name)arguments) return *answer;    \
        }                                                                                                \
        return vxtest::real::name arguments;                                                             \
    }

#define VXTEST_WATCH(name, parameters, arguments)                          \
    namespace vxtest::hooks {                                              \
    inline std::function<void parameters> name;                            \
    }                                                                      \
    VXTEST_REAL(void, name, #name, parameters, arguments)                  \
    extern "C" void name parameters noexcept(noexcept(::name arguments)) { \
        if (vxtest::hooks::name) vxtest::hooks::name arguments;            \
        vxtest::real::name arguments;                                      \
    }

#define VXTEST_REAL(result, name, name32, parameters, arguments)                                  \
    namespace vxtest::real {                                                                      \
    inline result name parameters {                                                               \
        static const auto next = nextCall<decltype(&::name)>(sizeof(long) == 4 ? name32 : #name); \
        return next arguments;                                                                    \
    }                                                                                             \
    }
