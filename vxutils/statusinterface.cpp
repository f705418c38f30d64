// SPDX-License-Identifier: MIT
#include <vxutils/statusinterface.h>

#include <event2/bufferevent.h>
#include <event2/event.h>
extern "C" {
#include <event2/bufferevent_compat.h>  // has no linkage of its own
}
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "vxutils/internal/fd.h"
#include "vxutils/internal/guarded_open.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/late_library.h"
#include "vxutils/internal/log.h"
#include "vxutils/internal/retry.h"
#include "vxutils/statusinterface_path.h"

namespace {

constexpr std::array roots{"/tmp/status", "/nvstatus", "/proc"};  // in the order of BasePath
constexpr size_t pieceSize = 99;
constexpr size_t mostOfValue = size_t{1024} * 1024;

constexpr mode_t directoryMode = 0777;
constexpr mode_t fileMode = 0644;
constexpr mode_t fifoMode = 0666;

constexpr const char *setupFailed = "Could not setup status interface for %s!";
constexpr const char *tooLong = "Status file %s holds more than %zu bytes!";
constexpr const char *directoryFailed = "Could not create directory %s. Errno:%d!";

const char *rootOf(BasePath basePath) {
    const auto index = static_cast<size_t>(basePath);
    return index < roots.size() ? roots[index] : nullptr;
}

// Makes the directory and its missing parents, from the top. Returns the one that could not be made, empty on success.
// What a link leads to is looked up when something is to be made in it, so that a last component may lead nowhere.
std::string makeDirectories(std::string_view path) {
    vx::StatusWalk walk(vx::Use::writing, true);
    std::string made;
    int whyNot = 0;
    while (!path.empty()) {
        const std::string_view component = path.substr(0, path.find('/'));
        path.remove_prefix(std::min(component.size() + 1, path.size()));
        if (component.empty()) continue;
        made.append("/").append(component);
        if (whyNot != 0) {
            errno = whyNot;
            return made;
        }
        if (::mkdirat(walk.directory(), walk.nameOf(component).c_str(), directoryMode) == -1 && errno != EEXIST) {
            return made;
        }
        if (walk.enter(component)) continue;
        whyNot = errno;
        if (!walk.isUnsafe()) continue;
        walk.logUnsafe(made.c_str());
        errno = whyNot;
        return made;
    }
    return {};
}

// Makes a FIFO in place of whatever has its name. Opened for writing as well, so that it does not end with its last
// writer.
vx::Fd makeFifo(const String &path) {
    const vx::StatusPath place(path.c_str(), vx::Use::writing);
    if (!place.valid()) return {};
    ::unlinkat(place.directory(), place.name(), 0);
    if (::mkfifoat(place.directory(), place.name(), fifoMode) == -1) return {};
    constexpr int flags = O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
    vx::Fd fd(vx::retryEintr([&] { return ::openat(place.directory(), place.name(), flags); }));
    struct stat status {};
    if (!fd.valid() || ::fstat(fd.get(), &status) == -1) return {};
    // Another one by now, where others may write to the directory.
    if (!S_ISFIFO(status.st_mode) || !vx::isPlacedByUs(place.directoryStatus(), status)) return {};
    return fd;
}

// Appends the file's content to `value`, which is empty; false when it is too long.
bool readValue(const vx::Fd &file, uintmax_t size, String &value) {
    if (size > mostOfValue) return false;
    // A block that fits from the start: a String that grows piece by piece copies its text again for each piece.
    if (size > pieceSize) value = String("", static_cast<long>(size));
    std::array<char, pieceSize> piece;
    while (value.length() <= static_cast<long>(mostOfValue)) {
        const ssize_t got = vx::retryEintr([&] { return ::read(file.get(), piece.data(), piece.size()); });
        if (got <= 0) return true;
        value.concat(piece.data(), static_cast<long>(got));
    }
    return false;
}

VX_LATE_NOTE(LibeventNote, R"([{"feature":"status-fifos","description":"Messages to status FIFOs in libevent's loop",)"
                           R"("priority":"recommended","soname":["libevent_core-2.1.so.7","libevent-2.1.so.7"]}])");

// The functions of libevent that are used here.
struct Libevent {
    // The second holds all of the first.
    static constexpr std::array sonames{"libevent_core-2.1.so.7", "libevent-2.1.so.7"};

    decltype(&::bufferevent_disable) bufferevent_disable;
    decltype(&::bufferevent_enable) bufferevent_enable;
    decltype(&::bufferevent_free) bufferevent_free;
    decltype(&::bufferevent_getcb) bufferevent_getcb;
    decltype(&::bufferevent_new) bufferevent_new;
    decltype(&::bufferevent_read) bufferevent_read;
    decltype(&::event_assign) event_assign;
    decltype(&::event_debug_unassign) event_debug_unassign;
    decltype(&::event_get_base) event_get_base;
    decltype(&::event_get_struct_event_size) event_get_struct_event_size;

    bool find([[maybe_unused]] vx::LateLibrary &library) {
        return VX_FIND_LATE(library, bufferevent_disable) && VX_FIND_LATE(library, bufferevent_enable) &&
               VX_FIND_LATE(library, bufferevent_free) && VX_FIND_LATE(library, bufferevent_getcb) &&
               VX_FIND_LATE(library, bufferevent_new) && VX_FIND_LATE(library, bufferevent_read) &&
               VX_FIND_LATE(library, event_assign) && VX_FIND_LATE(library, event_debug_unassign) &&
               VX_FIND_LATE(library, event_get_base) && VX_FIND_LATE(library, event_get_struct_event_size);
    }
};
constinit vx::LateCalls<Libevent> lateLibevent;

// bufferevent_new() takes it for granted that there is one; an event without base is given it, or has none still.
bool haveCurrentEventBase(const Libevent &libevent) {
    const vx::MallocPtr<event> probe(static_cast<event *>(calloc(1, libevent.event_get_struct_event_size())));
    const auto nothing = [](evutil_socket_t, short, void *) {};  // GCOVR_EXCL_LINE: never called
    if (probe == nullptr || libevent.event_assign(probe.get(), nullptr, -1, 0, nothing, nullptr) == -1) return false;
    const bool have = libevent.event_get_base(probe.get()) != nullptr;
    libevent.event_debug_unassign(probe.get());
    return have;
}

unsigned long identifierOf(const bufferevent *bev) { return reinterpret_cast<unsigned long>(bev); }

bufferevent_data_cb readCallbackOf(const Libevent &libevent, bufferevent *bev) {
    bufferevent_data_cb callback = nullptr;
    libevent.bufferevent_getcb(bev, &callback, nullptr, nullptr, nullptr);
    return callback;
}

}  // namespace

struct StatusInterface::Fifo {
    bufferevent *bev;
    int fd;
    Fifo *next;
    String path;
};

StatusFifoObserver::~StatusFifoObserver() = default;

StatusInterface::StatusInterface() : fifos_(nullptr) {}

StatusInterface::~StatusInterface() { cleanup(); }

bool StatusInterface::setup(BasePath basePath, const String &name) {
    const char *root = rootOf(basePath);
    if (root == nullptr) {
        path_ = String::EMPTY();
        vx::log(LOG_ERR, setupFailed, path_.c_str());
        return false;
    }
    path_ = root + name;
    try {
        const std::string failed = makeDirectories(path_.c_str());
        if (failed.empty()) return true;
        vx::log(LOG_ERR, directoryFailed, failed.c_str(), errno);
        vx::log(LOG_ERR, setupFailed, failed.c_str());
    } catch (const std::bad_alloc &) {
        vx::log(LOG_ERR, setupFailed, path_.c_str());
    }
    return false;
}

// Quirk Q68.
bool StatusInterface::setStatus(const String &name, const String &value) {
    const vx::StatusPath place((path_ + name).c_str(), vx::Use::writing);
    if (!place.valid()) return false;
    const vx::Target target = vx::openTarget(place.directory(), place.name(), fileMode);
    if (!target.valid() || !vx::emptyTarget(target)) return false;
    const auto size = static_cast<size_t>(value.length());
    const vx::BrokenPipeGuard guard(target);
    return vx::retryEintr([&] { return ::write(target.file.get(), value.c_str(), size); }) == value.length();
}

bool StatusInterface::getStatus(const String &name, String &value) const {
    const String path = path_ + name;  // first of all: value may be the name
    value = String::EMPTY();
    const vx::StatusPath place(path.c_str(), vx::Use::reading);
    if (!place.valid()) return false;
    struct stat status {};
    const vx::Fd file = vx::openValue(place.directory(), place.name(), status);
    if (!file.valid()) return false;
    if (readValue(file, static_cast<uintmax_t>(status.st_size), value)) return true;
    value = String::EMPTY();
    vx::log(LOG_ERR, tooLong, path.c_str(), mostOfValue);
    return false;
}

bool StatusInterface::setLink(const String &name, const String &target) {
    const vx::StatusPath place((path_ + name).c_str(), vx::Use::writing);
    const bool removed = target.length() == 0;
    if (!place.valid()) return removed && !place.isUnsafe();
    ::unlinkat(place.directory(), place.name(), 0);
    return removed || ::symlinkat(target.c_str(), place.directory(), place.name()) == 0;
}

// Quirk Q69.
unsigned long StatusInterface::setupIpcRxFifo(const String &name, StatusFifoObserver *observer) {
    std::unique_ptr<Fifo> fifo(new (std::nothrow) Fifo{nullptr, -1, nullptr, path_ + name});
    if (fifo == nullptr) return 0;
    vx::Fd fd = makeFifo(fifo->path);
    if (!fd.valid()) return 0;
    const Libevent libevent = lateLibevent.get();
    if (libevent.bufferevent_new == nullptr || !haveCurrentEventBase(libevent)) return 0;
    fifo->bev = libevent.bufferevent_new(fd.get(), STATUS_FIFO_READ_EVENT, nullptr, nullptr, observer);
    if (fifo->bev == nullptr) return 0;
    if (libevent.bufferevent_enable(fifo->bev, EV_READ) == -1) {
        libevent.bufferevent_free(fifo->bev);
        return 0;
    }

    fifo->fd = fd.release();
    fifo->next = fifos_;
    fifos_ = fifo.release();
    return identifierOf(fifos_->bev);
}

void StatusInterface::deleteIpcRxFifo(unsigned long id) {
    Fifo **link = &fifos_;
    while (*link != nullptr && identifierOf((*link)->bev) != id) link = &(*link)->next;
    Fifo *fifo = *link;
    if (fifo == nullptr) return;
    *link = fifo->next;
    // The event leaves the base while its descriptor is still open: the next file gets the same number, and a base that
    // has that number already would never watch it. In the callback of this FIFO bufferevent_free() alone is too late.
    const Libevent libevent = lateLibevent.get();
    libevent.bufferevent_disable(fifo->bev, EV_READ | EV_WRITE);
    libevent.bufferevent_free(fifo->bev);
    ::close(fifo->fd);
    const vx::StatusPath place(fifo->path.c_str(), vx::Use::writing);
    if (place.valid()) ::unlinkat(place.directory(), place.name(), 0);
    delete fifo;
}

void StatusInterface::cleanup() {
    while (fifos_ != nullptr) deleteIpcRxFifo(identifierOf(fifos_->bev));
}

void StatusInterface::STATUS_FIFO_READ_EVENT(struct bufferevent *bev, void *observer) {
    auto *receiver = static_cast<StatusFifoObserver *>(observer);
    // An observer that deletes its FIFO, and perhaps itself, must not be called again: libevent forgets the callback
    // then, while the buffered event itself lasts until its callbacks are over.
    const Libevent libevent = lateLibevent.get();
    const bufferevent_data_cb callback = readCallbackOf(libevent, bev);
    char data[pieceSize + 1];
    while (readCallbackOf(libevent, bev) == callback) {
        const size_t length = libevent.bufferevent_read(bev, data, pieceSize);
        if (length == 0) return;
        data[length] = '\0';
        if (receiver != nullptr) receiver->fifoDataReceived(bev, data, length);
    }
}
