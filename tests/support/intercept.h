// SPDX-License-Identifier: MIT
// Socket calls as they leave the library, for what no kernel does on demand: seeing the bytes handed to a raw socket
// before the kernel rewrites them, answers that no honest peer gives, errors in the middle of a conversation.
//
// Include in one source of a test program: the calls below then pass through it on their way from the library to the
// kernel. Without a hook or a fault source they go to the kernel. torture/calls.cpp adds the remaining fallible calls
// of the library to these.
#pragma once

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

namespace vxtest {

// A hook that returns a value answers for the kernel; nothing lets the call through.
struct SocketCalls {
    std::function<std::optional<int>(int domain, int type, int protocol)> socket;
    std::function<std::optional<int>(int fd, int level, int option, const void *value, socklen_t length)> setsockopt;
    std::function<std::optional<int>(int fd, const sockaddr *address, socklen_t length)> bind;
    std::function<std::optional<int>(int fd, sockaddr *address, socklen_t *length)> getsockname;
    std::function<std::optional<ssize_t>(int fd, const void *data, size_t length, const sockaddr *to,
                                         socklen_t toLength)>
        sendto;
    std::function<std::optional<ssize_t>(int fd, const msghdr *message)> sendmsg;
    std::function<std::optional<ssize_t>(int fd, msghdr *message, int flags)> recvmsg;
    std::function<std::optional<ssize_t>(int fd, void *buffer, size_t size, int flags)> recvfrom;
    std::function<std::optional<int>(const timespec *request)> nanosleep;
    std::function<std::optional<int>(int fd, unsigned long request, void *argument)> ioctl;
};

inline SocketCalls &socketCalls() {
    static SocketCalls calls;
    return calls;
}

// Asked before each call that may fail: the errno it is to fail with (one of `errors`), or 0.
using FaultSource = int (*)(const char *call, std::initializer_list<int> errors);
inline FaultSource faultSource = nullptr;

inline int fault(const char *call, std::initializer_list<int> errors) {
    return faultSource != nullptr ? faultSource(call, errors) : 0;
}

// Hooks for as long as this lives.
class Intercept {
public:
    Intercept() { socketCalls() = {}; }
    ~Intercept() { socketCalls() = {}; }
    Intercept(const Intercept &) = delete;
    Intercept &operator=(const Intercept &) = delete;
    SocketCalls *operator->() { return &socketCalls(); }
};

// For hooks: the call fails with this error.
inline int failing(int error) {
    errno = error;
    return -1;
}

// For recvmsg hooks: hands out these bytes as if they had been received.
inline ssize_t deliver(msghdr *message, const std::vector<uint8_t> &bytes) {
    const size_t room = message->msg_iov[0].iov_len;
    const size_t given = bytes.size() < room ? bytes.size() : room;
    if (given > 0) std::memcpy(message->msg_iov[0].iov_base, bytes.data(), given);
    message->msg_flags = bytes.size() > room ? MSG_TRUNC : 0;
    message->msg_controllen = 0;
    return static_cast<ssize_t>(given);
}

}  // namespace vxtest

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
    if (const auto &hook = vxtest::socketCalls().socket) {
        if (const auto result = hook(domain, type, protocol)) return *result;
    }
    if (const int error = vxtest::fault("socket", {EMFILE, ENOMEM})) return vxtest::failing(error);
    return static_cast<int>(::syscall(SYS_socket, domain, type, protocol));
}

int setsockopt(int fd, int level, int option, const void *value, socklen_t length) noexcept {
    if (const auto &hook = vxtest::socketCalls().setsockopt) {
        if (const auto result = hook(fd, level, option, value, length)) return *result;
    }
    if (const int error = vxtest::fault("setsockopt", {ENOMEM})) return vxtest::failing(error);
    return static_cast<int>(::syscall(SYS_setsockopt, fd, level, option, value, length));
}

int bind(int fd, const sockaddr *address, socklen_t length) noexcept {
    if (const auto &hook = vxtest::socketCalls().bind) {
        if (const auto result = hook(fd, address, length)) return *result;
    }
    if (const int error = vxtest::fault("bind", {EACCES, ENOMEM})) return vxtest::failing(error);
    return static_cast<int>(::syscall(SYS_bind, fd, address, length));
}

int getsockname(int fd, sockaddr *address, socklen_t *length) noexcept {
    if (const auto &hook = vxtest::socketCalls().getsockname) {
        if (const auto result = hook(fd, address, length)) return *result;
    }
    if (const int error = vxtest::fault("getsockname", {ENOBUFS})) return vxtest::failing(error);
    return static_cast<int>(::syscall(SYS_getsockname, fd, address, length));
}

ssize_t sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t length) {
    if (const auto &hook = vxtest::socketCalls().sendto) {
        if (const auto result = hook(fd, data, size, to, length)) return *result;
    }
    if (const int error = vxtest::fault("sendto", {EINTR, ENOBUFS, EPIPE})) return vxtest::failing(error);
    return ::syscall(SYS_sendto, fd, data, size, flags, to, length);
}

ssize_t sendmsg(int fd, const msghdr *message, int flags) {
    if (const auto &hook = vxtest::socketCalls().sendmsg) {
        if (const auto result = hook(fd, message)) return *result;
    }
    if (const int error = vxtest::fault("sendmsg", {EINTR, ENOBUFS})) return vxtest::failing(error);
    return ::syscall(SYS_sendmsg, fd, message, flags);
}

ssize_t recvmsg(int fd, msghdr *message, int flags) {
    if (const auto &hook = vxtest::socketCalls().recvmsg) {
        if (const auto result = hook(fd, message, flags)) return *result;
    }
    if (const int error = vxtest::fault("recvmsg", {EINTR, ENOMEM})) return vxtest::failing(error);
    return ::syscall(SYS_recvmsg, fd, message, flags);
}

ssize_t recvfrom(int fd, void *buffer, size_t size, int flags, sockaddr *from, socklen_t *length) {
    if (const auto &hook = vxtest::socketCalls().recvfrom) {
        if (const auto result = hook(fd, buffer, size, flags)) return *result;
    }
    if (const int error = vxtest::fault("recvfrom", {EINTR, ENOMEM})) return vxtest::failing(error);
    return ::syscall(SYS_recvfrom, fd, buffer, size, flags, from, length);
}

int nanosleep(const timespec *request, timespec *left) {
    if (const auto &hook = vxtest::socketCalls().nanosleep) {
        if (const auto result = hook(request)) return *result;
    }
#ifdef SYS_clock_nanosleep_time64
    const long result = ::syscall(SYS_clock_nanosleep_time64, CLOCK_MONOTONIC, 0, request, left);
#else
    const long result = ::syscall(SYS_clock_nanosleep, CLOCK_MONOTONIC, 0, request, left);
#endif
    return static_cast<int>(result);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    if (const auto &hook = vxtest::socketCalls().ioctl) {
        if (const auto result = hook(fd, request, argument)) return *result;
    }
    if (const int error = vxtest::fault("ioctl", {EINTR, EIO})) return vxtest::failing(error);
    return static_cast<int>(::syscall(SYS_ioctl, fd, request, argument));
}

}  // extern "C"
