// SPDX-License-Identifier: MIT
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <vxutils/statusinterface.h>
extern "C" {
#include <event2/bufferevent_compat.h>  // has no linkage of its own
}
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "vxutils/internal/fd.h"
#include "vxutils/internal/handles.h"
#include "vxutils/internal/log.h"
#include "vxutils/internal/retry.h"

namespace {

constexpr std::array<const char *, 3> roots{"/tmp/status", "/nvstatus", "/proc"};  // in the order of BasePath
constexpr size_t pieceSize = 99;

constexpr mode_t directoryMode = 0777;
constexpr mode_t fileMode = 0644;
constexpr mode_t fifoMode = 0666;

constexpr const char *setupFailed = "Could not setup status interface for %s!";
constexpr const char *directoryFailed = "Could not create directory %s. Errno:%d!";

const char *rootOf(BasePath basePath) {
    const auto index = static_cast<size_t>(basePath);
    return index < roots.size() ? roots[index] : nullptr;
}

// Makes the directory and its missing parents, from the top. Returns the one that could not be made, empty on success.
std::string makeDirectories(std::string_view path) {
    std::string made;
    while (!path.empty()) {
        const std::string_view component = path.substr(0, path.find('/'));
        path.remove_prefix(std::min(component.size() + 1, path.size()));
        if (component.empty()) continue;
        made.append("/").append(component);
        if (::mkdir(made.c_str(), directoryMode) == -1 && errno != EEXIST) return made;
    }
    return {};
}

vx::Fd openFile(const String &path, int flags) {
    return vx::Fd(vx::retryEintr([&] { return ::open(path.c_str(), flags | O_CLOEXEC, fileMode); }));
}

// bufferevent_new() takes it for granted that there is one; an event without base is given it, or has none still.
bool haveCurrentEventBase() {
    const vx::MallocPtr<event> probe(static_cast<event *>(calloc(1, event_get_struct_event_size())));
    const auto nothing = [](evutil_socket_t, short, void *) {};
    if (probe == nullptr || event_assign(probe.get(), nullptr, -1, 0, nothing, nullptr) == -1) return false;
    const bool have = event_get_base(probe.get()) != nullptr;
    event_debug_unassign(probe.get());
    return have;
}

unsigned long identifierOf(const bufferevent *bev) { return reinterpret_cast<unsigned long>(bev); }

bufferevent_data_cb readCallbackOf(bufferevent *bev) {
    bufferevent_data_cb callback = nullptr;
    bufferevent_getcb(bev, &callback, nullptr, nullptr, nullptr);
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
    const std::string failed = makeDirectories(path_.c_str());
    if (!failed.empty()) {
        vx::log(LOG_ERR, directoryFailed, failed.c_str(), errno);
        vx::log(LOG_ERR, setupFailed, failed.c_str());
    }
    return failed.empty();
}

bool StatusInterface::setStatus(const String &name, const String &value) {
    const vx::Fd file = openFile(path_ + name, O_WRONLY | O_CREAT | O_TRUNC);
    if (!file.valid()) return false;
    const auto size = static_cast<size_t>(value.length());
    return vx::retryEintr([&] { return ::write(file.get(), value.c_str(), size); }) == value.length();
}

bool StatusInterface::getStatus(const String &name, String &value) const {
    const vx::Fd file = openFile(path_ + name, O_RDONLY);  // first of all: value may be the name
    value = String::EMPTY();
    if (!file.valid()) return false;
    std::array<char, pieceSize> piece;
    for (;;) {
        const ssize_t got = vx::retryEintr([&] { return ::read(file.get(), piece.data(), piece.size()); });
        if (got <= 0) return true;
        value.concat(piece.data(), static_cast<long>(got));
    }
}

bool StatusInterface::setLink(const String &name, const String &target) {
    const String path = path_ + name;
    ::unlink(path.c_str());
    return target.length() == 0 || ::symlink(target.c_str(), path.c_str()) == 0;
}

unsigned long StatusInterface::setupIpcRxFifo(const String &name, StatusFifoObserver *observer) {
    auto fifo = std::unique_ptr<Fifo>(new Fifo{nullptr, -1, nullptr, path_ + name});
    ::unlink(fifo->path.c_str());
    if (::mkfifo(fifo->path.c_str(), fifoMode) == -1) return 0;

    // Open for writing as well, so that it does not end with its last writer.
    vx::Fd fd = openFile(fifo->path, O_RDWR | O_NONBLOCK);
    if (!fd.valid() || !haveCurrentEventBase()) return 0;
    fifo->bev = bufferevent_new(fd.get(), STATUS_FIFO_READ_EVENT, nullptr, nullptr, observer);
    if (fifo->bev == nullptr) return 0;
    if (bufferevent_enable(fifo->bev, EV_READ) == -1) {
        bufferevent_free(fifo->bev);
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
    bufferevent_free(fifo->bev);
    ::close(fifo->fd);
    *link = fifo->next;
    ::unlink(fifo->path.c_str());
    delete fifo;
}

void StatusInterface::cleanup() {
    while (fifos_ != nullptr) deleteIpcRxFifo(identifierOf(fifos_->bev));
}

void StatusInterface::STATUS_FIFO_READ_EVENT(struct bufferevent *bev, void *observer) {
    auto *receiver = static_cast<StatusFifoObserver *>(observer);
    // An observer that deletes its FIFO, and perhaps itself, must not be called again: libevent forgets the callback
    // then, while the buffered event itself lasts until its callbacks are over.
    const bufferevent_data_cb callback = readCallbackOf(bev);
    char data[pieceSize + 1];
    while (readCallbackOf(bev) == callback) {
        const size_t length = bufferevent_read(bev, data, pieceSize);
        if (length == 0) return;
        data[length] = '\0';
        if (receiver != nullptr) receiver->fifoDataReceived(bev, data, length);
    }
}
