// SPDX-License-Identifier: MIT
#include <vxutils/eventsource.h>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "vxutils/internal/errno_keeper.h"
#include "vxutils/internal/fd.h"
#include "vxutils/internal/log.h"

namespace {

constexpr char terminateByte = 'x';
constexpr int staleEvent = -1;

// Descriptors below this number have a slot in a table. An event then costs 89 instructions on the board, however many
// descriptors are registered; with the maps alone it costs 150 with two descriptors and 290 with 900. The table grows
// as needed, in steps.
constexpr size_t shortcutLimit = 4096;
constexpr size_t shortcutStep = 64;

// An event carries the descriptor's number, not a pointer to its sink: a callback may have deleted the sink before the
// event's turn comes, and a number can be looked up then.
epoll_event eventFor(int fd, uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = static_cast<uint64_t>(fd);
    return event;
}

itimerspec timerSetting(int ms, bool oneShot) {
    itimerspec setting{};
    setting.it_value.tv_sec = ms / 1000;
    setting.it_value.tv_nsec = static_cast<decltype(setting.it_value.tv_nsec)>(ms % 1000) * 1'000'000;
    if (!oneShot) setting.it_interval = setting.it_value;
    return setting;
}

}  // namespace

IFDEventsink::~IFDEventsink() = default;
ITimeoutEventsink::~ITimeoutEventsink() = default;
IFDEventsource::~IFDEventsource() = default;
ITimeoutEventsource::~ITimeoutEventsource() = default;

// The state that does not fit into the class. Shipped programs derive from the class, so its size cannot change.
struct CEPollEventsource::Tables {
    std::vector<Watched> byNumber;  // the same content as both maps for low descriptors, by number
    Batch *batch = nullptr;         // the events being served, null outside evtLoop()
};

// The pending events of one wake-up. When a callback removes a sink or a timer, its pending events are dropped: by the
// time of their turn the number may belong to another file. A callback may run the loop again, so batches nest. What an
// inner loop serves is dropped from the enclosing batches, which would otherwise serve it a second time.
struct CEPollEventsource::Batch {
    explicit Batch(Tables &tables) : owner(tables), outer(tables.batch) { owner.batch = this; }
    ~Batch() { owner.batch = outer; }
    Batch(const Batch &) = delete;
    Batch &operator=(const Batch &) = delete;

    // Applies `change` to the pending events of `fd` in this batch and every enclosing one. No effect on null.
    template <typename Change>
    static void forEach(Batch *batch, int fd, Change change) {
        for (; batch != nullptr; batch = batch->outer) {
            for (epoll_event *event = batch->next; event != batch->end; ++event) {
                if (event->data.fd == fd) change(*event);
            }
        }
    }

    // Drops the pending events of `fd`.
    static void drop(Batch *batch, int fd) {
        forEach(batch, fd, [](epoll_event &event) { event.data.fd = staleEvent; });
    }

    // Drops what `wanted` does not ask for from the pending events of `fd`.
    static void narrow(Batch *batch, int fd, uint32_t wanted) {
        forEach(batch, fd, [wanted](epoll_event &event) { event.events &= wanted; });
    }

    Tables &owner;
    Batch *const outer;
    epoll_event *next = nullptr;
    epoll_event *end = nullptr;
};

CEPollEventsource::CEPollEventsource()
    : sinks_(ByDescriptor{new Tables}), epollFd_(-1), commandWriteFd_(-1), commandReadFd_(-1), terminated_(false) {}

// Quirk Q67.
CEPollEventsource::~CEPollEventsource() {
    closeAll();
    delete &tables();
}

void CEPollEventsource::closeAll() {
    for (int *fd : {&epollFd_, &commandWriteFd_, &commandReadFd_}) vx::Fd(std::exchange(*fd, -1)).reset();
}

int CEPollEventsource::init() {
    closeAll();
    epollFd_ = ::epoll_create1(EPOLL_CLOEXEC);
    if (epollFd_ == -1) {
        vx::log(DL_ERR, "Unable to initialize epoll - errno=%s", std::strerror(errno));
        return -1;
    }
    // Non-blocking, so that terminate() cannot hang however often it is called.
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) == -1) {
        vx::log(DL_ERR, "Unable to initialize command pipe - errno=%s", std::strerror(errno));
        return -1;
    }
    commandReadFd_ = ends[0];
    commandWriteFd_ = ends[1];
    return epollAddEvent(commandReadFd_, EPOLLIN);
}

// Quirk Q60.
void CEPollEventsource::addSink(IFDEventsink *sink, event_type type) {
    const int fd = sink->getFd();
    if (!rememberSink(fd, sink, type)) return;
    if (epollAddEvent(fd, eventTypeToEpoll(type)) == -1) {
        vx::log(DL_ERROR, "Unable to add fd %i (sink 0x%p) to epoll-events", fd, static_cast<void *>(sink));
    }
}

void CEPollEventsource::removeSink(IFDEventsink *sink) {
    const int fd = sink->getFd();
    const auto found = sinks_.find(fd);
    if (found == sinks_.end()) return;
    // A descriptor that was closed too early has left the epoll set, and a new timer may have got its number. Removing
    // the number from the epoll set would then stop that timer.
    const bool takenOver = timers_.contains(fd);
    if (!takenOver && epollRemoveEvent(fd) == -1) {
        vx::log(DL_ERROR, "Unable to remove fd %i (sink 0x%p) from epoll-events", fd, static_cast<void *>(sink));
    }
    forgetSink(found);
}

void CEPollEventsource::modifyEventMask(IFDEventsink *sink, event_type type) {
    const int fd = sink->getFd();
    const auto found = sinks_.find(fd);
    if (found == sinks_.end() || found->second.type == type) return;
    found->second.type = type;
    epoll_event event = eventFor(fd, eventTypeToEpoll(type));
    if (timers_.contains(fd)) return;  // taken over, see removeSink(): the change would stop that timer
    Batch::narrow(tables().batch, fd, event.events);
    if (::epoll_ctl(epollFd_, EPOLL_CTL_MOD, fd, &event) == -1) {
        vx::log(DL_ERR, "Sink 0x%p (fd=%i) epoll_ctl(mod) failed - errno=%s", static_cast<void *>(sink), fd,
                std::strerror(errno));
    }
}

// Quirk Q59.
IFDEventsource::event_type CEPollEventsource::getEventMask(IFDEventsink *) { return ET_NONE; }

void CEPollEventsource::terminate() {
    const vx::ErrnoKeeper keeper;  // called from a signal handler: the interrupted code may be about to read errno
    if (::write(commandWriteFd_, &terminateByte, 1) == 1) return;
    if (errno == EAGAIN) return;  // the pipe is full of earlier requests, and one is enough
    vx::log(DL_ERROR, "unable to write to command-pipe (fd=%i) - errno=%s", commandWriteFd_, std::strerror(errno));
}

// Quirk Q66.
void CEPollEventsource::addTimer(ITimeoutEventsink *sink) {
    vx::Fd fd(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    if (!fd.valid()) {
        vx::log(DL_ERR, "Unable to create a timerfd for sink 0x%p - errno=%s", static_cast<void *>(sink),
                std::strerror(errno));
        return;
    }
    // The program has closed a descriptor of the loop, and the new timer got the number of the old one.
    if (const auto stale = timers_.find(fd.get()); stale != timers_.end()) {
        vx::log(DL_ERR, "sink 0x%p - timerfd %i is already in the map !?", static_cast<void *>(sink), fd.get());
        forgetTimer(stale);
    }
    const int ms = sink->getTimeoutMs();
    const itimerspec setting = timerSetting(ms, sink->isOneShot());
    if (::timerfd_settime(fd.get(), 0, &setting, nullptr) == -1) {
        vx::log(DL_ERR, "Unable to set requested timer value (%i ms) for sink 0x%p - errno=%s", ms,
                static_cast<void *>(sink), std::strerror(errno));
        (void)fd.release();  // Quirk Q61.
        return;
    }
    if (epollAddEvent(fd.get(), EPOLLIN) == -1) {
        vx::log(DL_ERROR, "Unable to add timer (fd %i, sink 0x%p) to epoll-events", fd.get(),
                static_cast<void *>(sink));
    }
    rememberTimer(fd.get(), sink);
    (void)fd.release();  // owned by its entry now
}

void CEPollEventsource::removeTimer(ITimeoutEventsink *sink) {
    const vx::Fd fd(lowestTimerOf(sink));
    if (!fd.valid()) return;
    if (epollRemoveEvent(fd.get()) == -1) {
        vx::log(DL_ERROR, "Unable to remove timer (fd %i, sink 0x%p) from epoll-events", fd.get(),
                static_cast<void *>(sink));
    }
    forgetTimer(timers_.find(fd.get()));
}

bool CEPollEventsource::activeTimer(ITimeoutEventsink *sink) { return lowestTimerOf(sink) != -1; }

int CEPollEventsource::evtLoop() {
    if (terminated_) return 0;
    if (commandReadFd_ == -1) return -1;  // terminate() could not end it
    std::vector<epoll_event> events(1);
    const Batch batch(tables());  // onEpollWakeup() fills it
    while (!terminated_) {
        const size_t wanted = sinks_.size() + timers_.size();
        if (events.size() < wanted) events.resize(wanted);
        const int count = ::epoll_wait(epollFd_, events.data(), static_cast<int>(events.size()), -1);
        if (count > 0) {
            onEpollWakeup(events.data(), count);
        } else if (count == 0) {
            vx::log(DL_ERR, "Got a timeout from epoll_wait() without specifying a timeout!?");
        } else if (errno == EAGAIN) {  // Quirk Q62.
            vx::log(DL_ERROR, "epoll_wait failed will errno=%s - terminating.", std::strerror(errno));
            return -1;
        }
    }
    return 0;
}

int CEPollEventsource::epollAddEvent(int fd, uint32_t events) {
    if (epollFd_ == -1) return -1;
    epoll_event event = eventFor(fd, events);
    if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &event) == 0) return 0;
    vx::log(DL_ERR, "epoll_ctl(add) failed fd=%i, event=0x%x, errno=%s", fd, events, std::strerror(errno));
    return -1;
}

int CEPollEventsource::epollRemoveEvent(int fd) {
    if (epollFd_ == -1) return -1;
    if (::epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr) == 0) return 0;
    vx::log(DL_ERR, "epoll_ctl(del) failed fd=%i, errno=%s", fd, std::strerror(errno));
    return -1;
}

uint32_t CEPollEventsource::eventTypeToEpoll(event_type type) {
    switch (type) {
        case ET_NONE:
            return 0;
        case ET_READ:
            return EPOLLIN;
        case ET_WRITE:
            return EPOLLOUT;
        case ET_READWRITE:
            return EPOLLIN | EPOLLOUT;
    }
    vx::log(DL_ERR, "Invalid event type %i", static_cast<int>(type));
    return 0;
}

void CEPollEventsource::onEpollWakeup(epoll_event *events, int count) {
    const Tables &tables = this->tables();
    Batch &batch = *tables.batch;
    batch.next = events;
    batch.end = events + count;
    while (batch.next != batch.end) {
        const uint32_t what = batch.next->events;
        const int fd = batch.next->data.fd;
        ++batch.next;
        if (fd == staleEvent) continue;
        // As lookUp(), whose call would add 10 to the 86 instructions of an event on the board.
        const auto number = static_cast<size_t>(fd);
        const Watched watched = number < tables.byNumber.size() ? tables.byNumber[number] : lookUp(fd);
        if (watched.timer != nullptr) {
            Batch::drop(batch.outer, fd);
            onEpollTimeout(fd, watched.timer);
        } else if (fd == commandReadFd_) {
            batch.next = batch.end;
            onCommand();
        } else if (watched.sink != nullptr) {
            Batch::drop(batch.outer, fd);
            // Quirk Q64.
            if ((what & EPOLLIN) != 0) {
                watched.sink->onReadable();
            } else if ((what & EPOLLOUT) != 0) {
                watched.sink->onWritable();
            }
        } else {
            onUnknownDescriptor(fd);
        }
    }
}

void CEPollEventsource::onEpollTimeout(int fd, ITimeoutEventsink *sink) {
    uint64_t expirations = 0;
    const ssize_t got = ::read(fd, &expirations, sizeof expirations);
    if (got == 0) return;
    if (got != static_cast<ssize_t>(sizeof expirations)) {
        vx::log(DL_ERR, "Unable to read from timerfd");
        return;
    }
    if (expirations == 0) {
        vx::log(DL_ERROR, "Got a wakeup with a zero # of timeouts (fd=%i, sink=0x%p)", fd, static_cast<void *>(sink));
        return;
    }
    if (sink->isOneShot()) removeTimer(sink);
    sink->onTimeout(static_cast<unsigned int>(expirations));
}

// Leaves the byte in the pipe: a terminated source never waits again. The result is not used; it belongs to the
// recorded interface.
int CEPollEventsource::onCommand() {
    terminated_ = true;
    return 1;
}

// Closes a descriptor that is in the epoll set but not registered, and ends the loop. The event may also come from a
// file whose descriptor was closed while a duplicate kept it open; its number may belong to another file by now. The
// kernel then refuses to remove the number from the epoll set, and the other file is not closed.
// Quirk Q63.
void CEPollEventsource::onUnknownDescriptor(int fd) {
    vx::log(DL_ERR, "Unable to find corresponding event-sink for active file descriptor %i - terminating!", fd);
    if (::epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr) == 0) ::close(fd);
    dropFetchedEvents(fd);
    terminate();
}

CEPollEventsource::Watched CEPollEventsource::lookUp(int fd) const {
    const auto number = static_cast<size_t>(fd);
    if (number < tables().byNumber.size()) return tables().byNumber[number];
    const auto sink = sinks_.find(fd);
    const auto timer = timers_.find(fd);
    return {sink == sinks_.end() ? nullptr : sink->second.sink, timer == timers_.end() ? nullptr : timer->second};
}

// Call this before inserting into a map, so that a throwing resize cannot leave a map entry without a table slot.
void CEPollEventsource::reserveShortcut(int fd) {
    const auto number = static_cast<size_t>(fd);  // a negative one becomes larger than any limit
    std::vector<Watched> &byNumber = tables().byNumber;
    if (number < byNumber.size() || number >= shortcutLimit) return;
    byNumber.resize((number / shortcutStep + 1) * shortcutStep);
}

CEPollEventsource::Watched *CEPollEventsource::shortcut(int fd) {
    const auto number = static_cast<size_t>(fd);
    std::vector<Watched> &byNumber = tables().byNumber;
    return number < byNumber.size() ? &byNumber[number] : nullptr;
}

bool CEPollEventsource::rememberSink(int fd, IFDEventsink *sink, event_type type) {
    reserveShortcut(fd);
    if (!sinks_.try_emplace(fd, CSinkData{sink, type}).second) return false;
    if (Watched *const entry = shortcut(fd)) entry->sink = sink;
    return true;
}

void CEPollEventsource::forgetSink(SinkMap::iterator entry) {
    dropFetchedEvents(entry->first);
    if (Watched *const quick = shortcut(entry->first)) quick->sink = nullptr;
    sinks_.erase(entry);
}

void CEPollEventsource::rememberTimer(int fd, ITimeoutEventsink *sink) {
    reserveShortcut(fd);
    timers_.emplace(fd, sink);
    if (Watched *const entry = shortcut(fd)) entry->timer = sink;
}

void CEPollEventsource::forgetTimer(TimerMap::iterator timer) {
    dropFetchedEvents(timer->first);
    if (Watched *const quick = shortcut(timer->first)) quick->timer = nullptr;
    timers_.erase(timer);
}

// Searches all slots, at three instructions each. An index by sink would cost 380 of the 1180 instructions that
// addTimer() and removeTimer() take on the board, which is more than it saves with fewer than 120 descriptors.
// Quirk Q65.
int CEPollEventsource::lowestTimerOf(const ITimeoutEventsink *sink) const {
    if (sink == nullptr) return -1;  // slots without a timer hold null as well
    const std::vector<Watched> &low = tables().byNumber;
    const auto found = std::find_if(low.begin(), low.end(), [=](const Watched &one) { return one.timer == sink; });
    if (found != low.end()) return static_cast<int>(found - low.begin());
    for (auto timer = timers_.lower_bound(static_cast<int>(low.size())); timer != timers_.end(); ++timer) {
        if (timer->second == sink) return timer->first;
    }
    return -1;
}

void CEPollEventsource::dropFetchedEvents(int fd) { Batch::drop(tables().batch, fd); }
