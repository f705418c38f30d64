/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** The event loop that a daemon's main function runs: descriptors that become readable or writable, timers,
 * and a way to stop that works from any thread and from a signal handler.
 *
 * **Example.**
 * @code
 * class Ticker : public ITimeoutEventsink {
 * public:
 *     explicit Ticker(IFDEventsource *source) : source_(source) {}
 *     void onTimeout(unsigned int expirations) override {
 *         ticks_ += expirations;
 *         if (ticks_ >= 3) source_->terminate();
 *     }
 *     int getTimeoutMs() override { return 10; }
 *     bool isOneShot() override { return false; }
 *
 * private:
 *     IFDEventsource *source_;
 *     unsigned int ticks_ = 0;
 * };
 *
 * CEPollEventsource loop;
 * Ticker ticker(&loop);
 * if (loop.init() != 0) return 1;
 * loop.addTimer(&ticker);
 * const int result = loop.evtLoop();  // until loop.terminate() is called
 * loop.removeTimer(&ticker);
 * printf("%d\n", result);  // prints 0
 * @endcode
 *
 * **Hang-ups.** A sink is called for what it asked for. A peer that only hangs up (EPOLLHUP or EPOLLERR without EPOLLIN
 * or EPOLLOUT) calls no function, and the loop spins at full load until the sink is removed. A stream socket whose peer
 * has closed is readable, so a sink with ET_READ learns of it by a read() of 0 bytes. A pipe or FIFO is not: when its
 * data has been read and its last writer has closed, it reports EPOLLHUP alone. So do sinks with ET_NONE or ET_WRITE.
 * Open a FIFO for reading and writing, so that it never hangs up; for a pipe to a child, let the child write a last
 * message, or watch the process by other means, and remove the sink.
 *
 * **Several timers of one sink.** Timers are known by their sink. removeTimer(), and the removal of a one-shot timer
 * when it fires, take the sink's timer with the lowest descriptor, which may be another one than the one that fired.
 * Use one sink for each timer.
 *
 * **Ownership.** The source stores plain pointers. Sinks belong to the caller, must live until they are removed or
 * until the source will not run any more, and are neither told nor touched when the source is destroyed. Descriptors of
 * sinks are never closed by removeSink().
 *
 * **Threads, signals, fork.** Everything except CEPollEventsource::terminate() belongs to the one thread that runs the
 * loop; nothing is locked. To hand something to that thread use CMessageQueue (messagequeue.h). terminate() only writes
 * one byte to a pipe and keeps `errno`, so a signal handler may call it. A forked child shares the epoll set with its
 * parent: leave the child's copy alone, or make a new source in the child.
 *
 * **Blocking.** evtLoop() waits until something happens, without limit. Nothing else blocks. Callbacks must not block:
 * they hold up all other sinks and timers.
 *
 * **Errors.** Failures are written to the system log and never thrown; only std::bad_alloc can come out of the
 * functions that register something, and what callbacks throw comes out of evtLoop(). evtLoop() returns -1 only when
 * waiting fails with EAGAIN, or without a command pipe; after other errors it waits again, so a loop whose epoll set
 * cannot be used spins.
 *
 * **Limits.** As many descriptors as the process may open. Periods are 0 to 2147483647 ms.
 *
 * **Privileges.** None.
 *
 * **Compatibility.** Behaviour kept on purpose (docs/compatibility.md): Q59 getEventMask() is always ET_NONE; Q60 a
 * refused descriptor stays registered; Q61 a refused period leaves a descriptor open; Q62 only EAGAIN ends the loop
 * with -1; Q63 an unknown descriptor ends the loop; Q64 a hang-up alone calls no sink; Q65 removing takes the timer
 * with the lowest descriptor; Q66 a timer of 0 ms never fires; Q67 the destructor leaves timers open.
 */
#ifndef VXUTILS_EVENTSOURCE_H
#define VXUTILS_EVENTSOURCE_H

#include <stdint.h>
#include <vxutils/api.h>

#include <map>

struct epoll_event;

/**
 * Receives the events of one file descriptor. Implemented by users of the loop. All calls come from the loop's thread.
 */
class VXUTILS_API IFDEventsink {
public:
    /**
     * Handle a readable descriptor: it can be read, or its peer has gone and reading shows that. Called again on the
     * next round as long as this stays true. May add and remove any sink and timer, itself included.
     */
    virtual void onReadable() = 0;

    /** Handle a descriptor that can be written and is not readable at the same time. Otherwise as onReadable(). */
    virtual void onWritable() = 0;

    /**
     * Tell the descriptor to watch. Registrations are found by this number: it must be the same from addSink() to
     * removeSink().
     * @return the descriptor
     */
    virtual int getFd() const = 0;

    virtual ~IFDEventsink();
};

/** Receives the expirations of its timers. Implemented by users of the loop. All calls come from the loop's thread. */
class VXUTILS_API ITimeoutEventsink {
public:
    /**
     * Handle an expiration.
     * @param expirations how many periods have passed since the last call: more than 1 when callbacks were late. The
     *        count's low 32 bits.
     *
     * A one-shot timer has already been removed: the sink may be added again here.
     */
    virtual void onTimeout(unsigned int expirations) = 0;

    /**
     * Tell the milliseconds from addTimer() to the first call and, unless one-shot, from each call to the next. Asked
     * once per addTimer(). 0 makes a timer that never fires, a negative value one that is refused.
     * @return milliseconds
     */
    virtual int getTimeoutMs() = 0;

    /**
     * Tell whether the timer fires once. Asked by addTimer() and before each onTimeout().
     * @return true for a timer that fires once
     */
    virtual bool isOneShot() = 0;

    virtual ~ITimeoutEventsink();
};

/** What watches descriptors. */
class VXUTILS_API IFDEventsource {
public:
    /** What a sink wants to be called for. */
    enum event_type : int {
        ET_NONE = 0,      /**< stay registered, call for nothing */
        ET_READ = 1,      /**< IFDEventsink::onReadable() */
        ET_WRITE = 2,     /**< IFDEventsink::onWritable() */
        ET_READWRITE = 3, /**< both; when both are possible, onReadable() only */
    };

    /**
     * Register @p sink under its descriptor.
     * @param sink  not NULL
     * @param type  what the sink is called for
     */
    virtual void addSink(IFDEventsink *sink, event_type type) = 0;

    /**
     * End the registration of @p sink 's descriptor, which stays open.
     * @param sink  not NULL
     */
    virtual void removeSink(IFDEventsink *sink) = 0;

    /**
     * Change what @p sink is called for.
     * @param sink  not NULL
     * @param type  what the sink is called for
     */
    virtual void modifyEventMask(IFDEventsink *sink, event_type type) = 0;

    /**
     * Tell the events of a sink, where a source keeps them; CEPollEventsource does not.
     * @param sink  not NULL
     * @return ET_NONE
     */
    virtual event_type getEventMask(IFDEventsink *sink) = 0;

    /** Ask the loop to end. */
    virtual void terminate() = 0;

    virtual ~IFDEventsource();
};

/** What runs timers. */
class VXUTILS_API ITimeoutEventsource {
public:
    /**
     * Start a timer for @p sink.
     * @param sink  not NULL
     */
    virtual void addTimer(ITimeoutEventsink *sink) = 0;

    /**
     * End one timer of @p sink.
     * @param sink  not NULL
     */
    virtual void removeTimer(ITimeoutEventsink *sink) = 0;

    /**
     * Tell whether @p sink has a timer.
     * @param sink  not NULL
     * @return whether there is one
     */
    virtual bool activeTimer(ITimeoutEventsink *sink) = 0;

    virtual ~ITimeoutEventsource();
};

/**
 * The event loop on Linux's epoll and timerfd. Life: constructed, init(), evtLoop(), terminated for good.
 *
 * No pointer given to its functions may be null.
 */
class VXUTILS_API CEPollEventsource : public IFDEventsource, public ITimeoutEventsource {
public:
    /** Open nothing. @throws std::bad_alloc */
    CEPollEventsource();

    /**
     * Close what init() opened. Timers that still run are forgotten, their descriptors stay open: remove them first.
     * Do not call it from a callback of this source.
     */
    ~CEPollEventsource() override;

    CEPollEventsource(const CEPollEventsource &) = delete;
    CEPollEventsource &operator=(const CEPollEventsource &) = delete;

    /**
     * Open the epoll set and the pipe of terminate(), all of it closed on exec. Call it once, before anything
     * else; again only after a failure.
     * @return 0, or -1 with the reason in the system log
     */
    int init();

    /**
     * Register @p sink for @p type. Ignored when its descriptor is registered already, even by another sink. When the
     * kernel refuses the descriptor (regular files, closed ones) that is logged and the sink still counts as
     * registered.
     */
    void addSink(IFDEventsink *sink, event_type type) override;

    /**
     * End the registration under @p sink 's descriptor; no effect if there is none. The descriptor may be closed
     * already (that is logged). After this the sink is not called any more, not even for an event that was already
     * fetched.
     */
    void removeSink(IFDEventsink *sink) override;

    /**
     * Change what @p sink is called for. No effect when it is not registered, or (without a system call) when @p type
     * is what was set last. This also holds for an event that was already fetched: the sink is not called for anything
     * that @p type does not ask for. The kernel reports what is still ready when it is asked for again.
     */
    void modifyEventMask(IFDEventsink *sink, event_type type) override;

    /** Return ET_NONE, whatever the sink is registered for. A caller that needs a sink's mask keeps its own record. */
    event_type getEventMask(IFDEventsink *sink) override;

    /**
     * Make evtLoop() return 0, now or when it is called. From any thread, from callbacks, from signal handlers; does
     * not block. Events fetched before may still be served.
     */
    void terminate() override;

    /**
     * Start a timer on the monotonic clock with the period that @p sink names. A sink may have several, which are
     * not independent (see "Several timers of one sink"). To change a running timer's period remove it and add it
     * again.
     */
    void addTimer(ITimeoutEventsink *sink) override;

    /** End one timer of @p sink, the one with the lowest descriptor. No effect if the sink has no timer. Quirk Q65. */
    void removeTimer(ITimeoutEventsink *sink) override;

    /** Tell whether @p sink has a timer; a one-shot timer that fired is gone. */
    bool activeTimer(ITimeoutEventsink *sink) override;

    /**
     * Wait for events and serve them in the order in which the kernel reports them, until terminate(). Blocks without
     * limit when nothing happens. A callback may run the loop again: what the inner loop serves is not served a second
     * time by the outer one, and terminate() ends both.
     * @return 0 after terminate(), at once when the source was terminated before; -1 when waiting became impossible, at
     *         once and without a message when init() has not opened the command pipe
     */
    int evtLoop();

private:
    struct CSinkData {
        IFDEventsink *sink;
        event_type type;
    };
    struct Watched {
        IFDEventsink *sink;
        ITimeoutEventsink *timer;
    };
    struct Tables;
    struct Batch;

    /* Orders the sinks by descriptor. A std::map keeps its comparator where an empty one would only be padding: the
     * pointer costs the class no room. */
    struct ByDescriptor {
        Tables *tables;

        bool operator()(int left, int right) const { return left < right; }
    };
    typedef std::map<int, CSinkData, ByDescriptor> SinkMap;
    typedef std::map<int, ITimeoutEventsink *> TimerMap;

    Tables &tables() const { return *sinks_.key_comp().tables; }
    void closeAll();
    int epollAddEvent(int fd, uint32_t events);
    int epollRemoveEvent(int fd);
    static uint32_t eventTypeToEpoll(event_type type);
    void onEpollWakeup(epoll_event *events, int count);
    void onEpollTimeout(int fd, ITimeoutEventsink *sink);
    int onCommand();
    void onUnknownDescriptor(int fd);
    Watched lookUp(int fd) const;
    void reserveShortcut(int fd);
    Watched *shortcut(int fd);
    bool rememberSink(int fd, IFDEventsink *sink, event_type type);
    void forgetSink(SinkMap::iterator entry);
    void rememberTimer(int fd, ITimeoutEventsink *sink);
    void forgetTimer(TimerMap::iterator timer);
    int lowestTimerOf(const ITimeoutEventsink *sink) const;
    void dropFetchedEvents(int fd);

    SinkMap sinks_;
    TimerMap timers_;
    int epollFd_;
    int commandWriteFd_;
    int commandReadFd_;
    bool terminated_;
};

#endif
