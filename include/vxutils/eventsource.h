/* SPDX-License-Identifier: MIT */
/**
 * @file
 * The event loop that a daemon's main function runs: descriptors that become readable or writable, timers, and a way to
 * stop that works from any thread and from a signal handler.
 *
 * @code
 * class Ticker : public ITimeoutEventsink {
 * public:
 *     void onTimeout(unsigned int expirations) override { uptime += expirations; }
 *     int getTimeoutMs() override { return 1000; }
 *     bool isOneShot() override { return false; }
 *     unsigned int uptime = 0;
 * };
 *
 * CEPollEventsource loop;
 * Ticker ticker;
 * if (loop.init() != 0) return 1;
 * loop.addTimer(&ticker);
 * return loop.evtLoop();  // until somebody calls loop.terminate()
 * @endcode
 *
 * Threads: everything but CEPollEventsource::terminate() belongs to the one thread that runs the loop; nothing is
 * locked. To hand something to that thread use CMessageQueue (messagequeue.h).
 *
 * Signals: terminate() only writes one byte to a pipe and keeps @c errno, so a signal handler may call it.
 *
 * fork(): a child shares the epoll set with its parent. Leave the child's copy alone, or make a new source in the
 * child.
 *
 * Ownership: the source stores plain pointers. Sinks stay their owner's, must live until they are removed or until the
 * source will not run any more, and are neither told nor touched when the source is destroyed.
 *
 * Failures are written to the system log and never thrown; only the standard library's @c std::bad_alloc can come out
 * of the functions that register something, and what callbacks throw comes out of evtLoop().
 */
#ifndef VXUTILS_EVENTSOURCE_H
#define VXUTILS_EVENTSOURCE_H

#include <stdint.h>
#include <vxutils/api.h>

#include <map>

struct epoll_event;

/** Somebody with a descriptor to watch. Implemented by users of the loop. All calls come from the loop's thread. */
class VXUTILS_API IFDEventsink {
public:
    /**
     * The descriptor can be read, or its peer has gone and reading shows that. Called again on the next round as long
     * as this stays true. May add and remove any sink and timer, itself included.
     */
    virtual void onReadable() = 0;

    /** The descriptor can be written and is not readable at the same time. Otherwise as onReadable(). */
    virtual void onWritable() = 0;

    /**
     * The descriptor to watch. Registrations are found by this number: it must be the same from addSink() to
     * removeSink().
     */
    virtual int getFd() const = 0;

    virtual ~IFDEventsink();
};

/** Somebody with a time-out. Implemented by users of the loop. All calls come from the loop's thread. */
class VXUTILS_API ITimeoutEventsink {
public:
    /**
     * The time has come.
     * @param expirations how many periods have passed since the last call: more than 1 when callbacks were late. The
     *        count's low 32 bits.
     *
     * A one-shot timer has already been removed: the sink may be added again here.
     */
    virtual void onTimeout(unsigned int expirations) = 0;

    /**
     * Milliseconds from addTimer() to the first call and, unless one-shot, from each call to the next. Asked once per
     * addTimer(). 0 makes a timer that never fires, a negative value one that is refused.
     */
    virtual int getTimeoutMs() = 0;

    /** True for a timer that fires once. Asked by addTimer() and before each onTimeout(). */
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

    /** Registers @p sink under its descriptor. */
    virtual void addSink(IFDEventsink *sink, event_type type) = 0;

    /** Ends the registration of @p sink 's descriptor; does not close it. */
    virtual void removeSink(IFDEventsink *sink) = 0;

    /** Changes what @p sink is called for. */
    virtual void modifyEventMask(IFDEventsink *sink, event_type type) = 0;

    /** See CEPollEventsource::getEventMask(). */
    virtual event_type getEventMask(IFDEventsink *sink) = 0;

    /** Asks the loop to end. */
    virtual void terminate() = 0;

    virtual ~IFDEventsource();
};

/** What runs timers. */
class VXUTILS_API ITimeoutEventsource {
public:
    /** Starts a timer for @p sink. */
    virtual void addTimer(ITimeoutEventsink *sink) = 0;

    /** Ends one timer of @p sink. */
    virtual void removeTimer(ITimeoutEventsink *sink) = 0;

    /** True while @p sink has a timer. */
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
    /** Opens nothing. @throws std::bad_alloc */
    CEPollEventsource();

    /**
     * Closes what init() opened. Timers that still run are forgotten, their descriptors stay open: remove them first.
     * Not to be called from a callback of this source.
     */
    ~CEPollEventsource() override;

    CEPollEventsource(const CEPollEventsource &) = delete;
    CEPollEventsource &operator=(const CEPollEventsource &) = delete;

    /**
     * Opens the epoll set and the pipe of terminate(), all of it closed on exec. To be called once, before anything
     * else; again only after a failure.
     * @return 0, or -1 with the reason in the system log
     */
    int init();

    /**
     * Registers @p sink for @p type. Ignored when its descriptor is registered already, even by another sink. When the
     * kernel refuses the descriptor (regular files, closed ones) that is logged and the sink still counts as
     * registered.
     */
    void addSink(IFDEventsink *sink, event_type type) override;

    /**
     * Ends the registration under @p sink 's descriptor; none: nothing happens. The descriptor may be closed already
     * (that is logged). After this the sink is not called any more, not even for an event that was already fetched.
     */
    void removeSink(IFDEventsink *sink) override;

    /**
     * Changes what @p sink is called for. No effect when it is not registered, or (without a system call) when @p type
     * is what was set last. This also holds for an event that was already fetched: the sink is not called for anything
     * that @p type does not ask for. The kernel reports what is still ready when it is asked for again.
     */
    void modifyEventMask(IFDEventsink *sink, event_type type) override;

    /** Always ET_NONE, whatever the sink is registered for: who needs to know its mask keeps a record of it. */
    event_type getEventMask(IFDEventsink *sink) override;

    /**
     * Makes evtLoop() return 0, now or when it is called. From any thread, from callbacks, from signal handlers; does
     * not block. Events fetched before may still be served.
     */
    void terminate() override;

    /**
     * Starts a timer on the monotonic clock with the period that @p sink names. A sink may have several; they are
     * independent. To change a running timer's period remove it and add it again.
     */
    void addTimer(ITimeoutEventsink *sink) override;

    /** Ends one timer of @p sink, the one with the lowest descriptor; none: nothing happens. */
    void removeTimer(ITimeoutEventsink *sink) override;

    /** True while @p sink has a timer; a one-shot timer that fired is gone. */
    bool activeTimer(ITimeoutEventsink *sink) override;

    /**
     * Waits for events and serves them in the order in which the kernel reports them, until terminate(). Blocks without
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
