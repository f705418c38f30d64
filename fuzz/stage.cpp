// SPDX-License-Identifier: MIT
#include "fuzz/stage.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>

#include "gateway/send_alone.h"

namespace {

template <typename Function>
Function *next(const char *name) {
    return reinterpret_cast<Function *>(::dlsym(RTLD_NEXT, name));
}

int contentFile(std::string_view content) {
    const int fd = ::memfd_create("stage", MFD_CLOEXEC);
    if (fd == -1 || ::write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) std::abort();
    ::lseek(fd, 0, SEEK_SET);
    return fd;
}

int openStaged(const char *call, const char *path, int flags, mode_t mode) {
    if (!stage::files.prefix.empty() && std::string_view(path).starts_with(stage::files.prefix)) {
        return contentFile(stage::files.content);
    }
    if (stage::disks.has_value() && std::string_view(path) == "/proc/mounts") return contentFile(stage::disks->mounts);
    return next<int(const char *, int, ...)>(call)(path, flags, mode);
}

bool isDisks(const char *path) {
    return stage::disks.has_value() && std::string_view(path).starts_with("/sys/class/block");
}

sockaddr_un addressOf(const char *path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    return address;
}

int boundSocket(int type, const char *path) {
    const int fd = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    const sockaddr_un address = addressOf(path);
    ::unlink(path);
    if (fd == -1 || ::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1) std::abort();
    return fd;
}

}  // namespace

extern "C" int open(const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, unsigned int);
    va_end(arguments);
    return openStaged("open", path, flags, mode);
}

#ifndef __USE_FILE_OFFSET64  // with which the name above is this one
extern "C" int open64(const char *path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, unsigned int);
    va_end(arguments);
    return openStaged("open64", path, flags, mode);
}
#endif

extern "C" FILE *popen(const char *command, const char *mode) {
    if (!stage::command.has_value()) return next<FILE *(const char *, const char *)>("popen")(command, mode);
    return ::fdopen(contentFile(stage::command->output), "r");
}

extern "C" int pclose(FILE *stream) {
    if (!stage::command.has_value()) return next<int(FILE *)>("pclose")(stream);
    std::fclose(stream);
    return stage::command->status;
}

extern "C" int clock_nanosleep(clockid_t clock, int flags, const timespec *time, timespec *rest) {
    if (stage::noPauses) return 0;
    return next<int(clockid_t, int, const timespec *, timespec *)>("clock_nanosleep")(clock, flags, time, rest);
}

extern "C" DIR *opendir(const char *path) {
    return next<DIR *(const char *)>("opendir")(isDisks(path) ? stage::disks->directory.c_str() : path);
}

extern "C" ssize_t readlink(const char *path, char *target, size_t size) noexcept {
    if (!isDisks(path)) return next<ssize_t(const char *, char *, size_t)>("readlink")(path, target, size);
    return static_cast<ssize_t>(stage::disks->link.copy(target, size));
}

namespace stage {

void check(bool holds) {
    if (!holds) std::abort();
}

const std::string &file(std::string_view content) {
    static const struct Path {
        Path() : name("/dev/shm/fuzz-" + std::to_string(::getpid())) {}
        ~Path() { ::unlink(name.c_str()); }
        std::string name;
    } path;
    FILE *const out = std::fopen(path.name.c_str(), "we");
    check(out != nullptr && std::fwrite(content.data(), 1, content.size(), out) == content.size());
    std::fclose(out);
    return path.name;
}

void startDatagramPeer(const char *path, std::function<std::string(std::string_view request)> answer) {
    const int fd = boundSocket(SOCK_DGRAM, path);
    std::thread([fd, answer = std::move(answer)] {
        std::array<char, 65536> request{};
        for (;;) {
            sockaddr_un client{};
            socklen_t length = sizeof client;
            const ssize_t got =
                ::recvfrom(fd, request.data(), request.size(), 0, reinterpret_cast<sockaddr *>(&client), &length);
            if (got == -1) continue;
            const std::string reply = answer({request.data(), static_cast<size_t>(got)});
            ::sendto(fd, reply.data(), reply.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr *>(&client), length);
        }
    }).detach();
}

void startStreamPeer(const char *path, std::function<Reply(std::string_view request)> answer) {
    const int listener = boundSocket(SOCK_STREAM, path);
    check(::listen(listener, 8) == 0);
    std::thread([listener, answer = std::move(answer)] {
        std::array<char, 65536> request{};
        for (;;) {
            const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            for (;;) {
                const ssize_t got = ::recv(fd, request.data(), request.size(), 0);
                if (got <= 0) break;
                const Reply reply = answer({request.data(), static_cast<size_t>(got)});
                for (const std::string &part : reply.parts) vxgateway::sendAlone(fd, part);
                if (reply.hangUp) break;
            }
            ::close(fd);
        }
    }).detach();
}

}  // namespace stage
