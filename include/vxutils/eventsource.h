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
 * **Hang-ups.** A sink is called only for what it asked for. A hang-up or an error alone (EPOLLHUP or EPOLLERR, without
 * EPOLLIN or EPOLLOUT) calls no function. The kernel reports it again at once, so the loop runs at full load until the
 * sink is removed. What that means for each kind of descriptor:
 * - A stream socket whose peer has closed is also readable. A sink with ET_READ is called, and read() returns 0.
 * - A pipe or FIFO whose last writer has closed is not readable once its data has been read: it reports the hang-up
 *   alone. Open a FIFO for reading and writing, so that it never hangs up. For a pipe from a child process, let the
 *   child write a last message, or learn of its end by other means, and remove the sink.
 * - A sink with ET_NONE is not called for any hang-up, whatever its descriptor is.
 *
 * **Several timers of one sink.** The source finds a timer by its sink alone. removeTimer(), and the removal of a
 * one-shot timer when it fires, end the sink's timer with the lowest descriptor, which need not be the one that fired.
 * Use one sink for each timer.
 *
 * **Ownership.** The source stores plain pointers. Sinks belong to the caller and must live until they are removed or
 * until the source does not run any more. The source's destructor does not call or read them. removeSink() leaves the
 * sink's descriptor open; the caller closes it, after removeSink().
 *
 * **Threads, signals, fork.** Everything except CEPollEventsource::terminate() belongs to the one thread that runs the
 * loop; nothing is locked. To hand something to that thread use CMessageQueue (messagequeue.h). terminate() only writes
 * one byte to a pipe and keeps `errno`, so a signal handler may call it after init() has returned 0 (before that, the
 * failure is logged, which a handler must not do). After fork() the child shares the epoll set and the pipe with its
 * parent, and what it registers or removes changes the parent's loop: the child must not use its copy, and makes a new
 * source if it needs one. Destructors of sinks that call removeSink() count as use: a child that does not call exec
 * ends with _exit(), because exit() runs the destructors of static objects.
 *
 * **Blocking.** evtLoop() waits until something happens, without limit. Nothing else blocks. Callbacks must not block:
 * they hold up all other sinks and timers.
 *
 * **Errors.** A call that the kernel refuses is logged, not reported to the caller: only init() and evtLoop() have a
 * result. addSink(), addTimer(), the constructor and evtLoop() throw std::bad_alloc when memory is short. What a
 * callback throws comes out of evtLoop(), which may be called again. evtLoop() returns -1 in two cases: epoll_wait()
 * failed with EAGAIN, or there is no command pipe. After any other error it waits again, so a loop whose epoll set
 * cannot be used runs at full load.
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
 * Receives the events of one file descriptor. Users of the loop implement it. All calls come from the loop's thread.
 */
class VXUTILS_API IFDEventsink {
public:
    /**
     * Handle a readable descriptor: it has data, or its peer has closed and read() returns 0. Called on every round of
     * the loop until the data has been read. May add and remove any sink and timer, this sink included.
     */
    virtual void onReadable() = 0;

    /**
     * Handle a writable descriptor. Not called while the descriptor is also readable and the sink wants both. Called on
     * every round while there is room: use ET_WRITE only while there is something to write. May do what onReadable()
     * may.
     */
    virtual void onWritable() = 0;

    /**
     * Tell the descriptor to watch. The source finds the registration by this number, so it must not change between
     * addSink() and removeSink().
     * @return the descriptor
     */
    virtual int getFd() const = 0;

    virtual ~IFDEventsink();
};

/** Receives the expirations of its timers. Users of the loop implement it. All calls come from the loop's thread. */
class VXUTILS_API ITimeoutEventsink {
public:
    /**
     * Handle an expiration.
     * @param expirations  how many periods have passed since the last call, modulo 2^32; more than 1 when the loop was
     *        late. Always 1 for a one-shot timer.
     *
     * A one-shot timer has already been removed when this is called, so the function may add it again.
     */
    virtual void onTimeout(unsigned int expirations) = 0;

    /**
     * Tell the period: the time from addTimer() to the first call and, unless one-shot, from one expiration to the
     * next. Asked once per addTimer().
     * @return milliseconds; 0 makes a timer that never fires, and the kernel refuses a negative period
     */
    virtual int getTimeoutMs() = 0;

    /**
     * Tell whether the timer fires once. Asked by addTimer() and before each onTimeout().
     * @return true for a timer that fires once
     */
    virtual bool isOneShot() = 0;

    virtual ~ITimeoutEventsink();
};

/** Watches descriptors. A class that needs a loop takes this interface, so that a test can pass another source. */
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
     * @param sink  not NULL; must live until it is removed
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
     * Tell what a sink is called for, if the source supports it. CEPollEventsource does not: it returns ET_NONE.
     * @param sink  not NULL
     * @return the events, or ET_NONE
     */
    virtual event_type getEventMask(IFDEventsink *sink) = 0;

    /** Ask the loop to end. */
    virtual void terminate() = 0;

    virtual ~IFDEventsource();
};

/** Runs timers. */
class VXUTILS_API ITimeoutEventsource {
public:
    /**
     * Start a timer for @p sink.
     * @param sink  not NULL; must live until its timer is removed or, if one-shot, has fired
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
 * The event loop on Linux's epoll and timerfd. Construct it, call init(), register sinks and timers, call evtLoop(). A
 * source that was terminated stays terminated: evtLoop() then returns 0 at once.
 *
 * No pointer given to its functions may be null, with two exceptions: activeTimer() returns false for a null sink, and
 * removeTimer() then has no effect.
 */
class VXUTILS_API CEPollEventsource : public IFDEventsource, public ITimeoutEventsource {
public:
    /** Open nothing. @throws std::bad_alloc */
    CEPollEventsource();

    /**
     * Close what init() opened. The descriptors of timers that still run stay open for good: remove the timers first.
     * Do not call it from a callback of this source.
     */
    ~CEPollEventsource() override;

    CEPollEventsource(const CEPollEventsource &) = delete;
    CEPollEventsource &operator=(const CEPollEventsource &) = delete;

    /**
     * Open the epoll set and the pipe of terminate(), all close-on-exec. Call it once, before every other function;
     * call it again only after it has failed.
     * @return 0, or -1 with the reason in the system log
     */
    int init();

    /**
     * Register @p sink for @p type. Ignored when its descriptor is registered already, even by another sink. A
     * descriptor that the kernel refuses (a regular file, a closed one) is logged; the sink then counts as registered
     * and is never called. Quirk Q60.
     */
    void addSink(IFDEventsink *sink, event_type type) override;

    /**
     * End the registration under @p sink 's descriptor; no effect if there is none. Remove a sink before closing its
     * descriptor: the kernel refuses to remove a closed one, which is logged. After this call the sink is not called
     * any more, not even for an event that the loop had already fetched.
     */
    void removeSink(IFDEventsink *sink) override;

    /**
     * Change what @p sink is called for. No effect if it is not registered; no system call if @p type is what was set
     * last. From now on the sink is not called for anything that @p type does not ask for, not even for an event that
     * the loop had already fetched. What @p type asks for and is still ready comes on the next round.
     */
    void modifyEventMask(IFDEventsink *sink, event_type type) override;

    /** Return ET_NONE, whatever the sink is registered for. A caller that needs a sink's mask keeps its own record. */
    event_type getEventMask(IFDEventsink *sink) override;

    /**
     * Make evtLoop() return 0, now and whenever it is called later. May be called from any thread, callback or signal
     * handler; does not block. Events that the loop had already fetched may still be served. Before init() there is no
     * pipe: that is logged, and the request is lost.
     */
    void terminate() override;

    /**
     * Start a timer on the monotonic clock with the period that @p sink names. To change the period of a running timer,
     * remove it and add it again. When the timer cannot be made or its period is refused, that is logged and there is
     * no timer. When it cannot be watched (before init()), that is logged and the timer is active but never fires.
     * Calling this twice makes two timers (see "Several timers of one sink").
     */
    void addTimer(ITimeoutEventsink *sink) override;

    /** End one timer of @p sink, the one with the lowest descriptor. No effect if the sink has no timer. Quirk Q65. */
    void removeTimer(ITimeoutEventsink *sink) override;

    /** Tell whether @p sink has a timer; a one-shot timer that fired is gone. */
    bool activeTimer(ITimeoutEventsink *sink) override;

    /**
     * Wait for events and serve them in the order in which the kernel reports them, until terminate(). Blocks without
     * limit when nothing happens. A callback may run the loop again: the outer loop does not serve again what the inner
     * one has served, and terminate() ends both.
     * @return 0 after terminate(), at once when the source was terminated before; -1 when waiting failed with EAGAIN
     *         (logged), or at once and without a message when init() has not opened the command pipe
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

    /* Orders the sinks by descriptor and holds the pointer to the tables. The size of this class is fixed; a std::map
     * has room for a comparator of this size, which would be padding if the comparator were empty. */
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
