/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Small messages from any thread into the thread that runs an event loop (eventsource.h). Messages arrive
 * in the order in which they were sent, one per round of the loop, so that a flood of them does not starve other sinks
 * and timers.
 *
 * **Example.**
 * @code
 * #include <vxutils/eventsource.h>
 * class Results : public IMQEventsink {
 * public:
 *     explicit Results(IFDEventsource *source) : source_(source) {}
 *     void onMessage(CMessageQueue *, const CQMsg &message) override {
 *         printf("%d\n", message.code);  // prints 42
 *         source_->terminate();
 *     }
 *     void onQueueError(CMessageQueue *) override { source_->terminate(); }
 *
 * private:
 *     IFDEventsource *source_;
 * };
 *
 * CEPollEventsource loop;
 * Results results(&loop);
 * CMessageQueue queue(&results, &loop);
 * if (loop.init() != 0 || queue.init() != 0) return 1;
 * queue.send(CQMsg(42));  // from any thread
 * loop.evtLoop();         // calls results.onMessage() on this thread
 * @endcode
 *
 * **Ownership.** The queue owns neither consumer, event source nor payloads. Destroy it before its event source and
 * before its consumer, when no thread can send any more.
 *
 * **Threads, signals, fork.** send(), lock() and unlock() from any thread; everything else from the loop's thread. The
 * consumer is called without the lock held and may send to the same queue; such a message is served on a later round.
 * Not for signal handlers. A child of fork() must not use its parent's queue: the wake-up pipe would be shared and the
 * messages would not.
 *
 * **Blocking.** A sender never waits for the loop, only for another thread that is inside the queue or between lock()
 * and unlock().
 *
 * **Errors.** Results of -1 with the reason in the system log; std::system_error for a lock that cannot be taken;
 * std::bad_alloc from send(), nothing queued.
 *
 * **Limits.** No limit but memory, and no message is lost when the loop starts late.
 *
 * **Privileges.** None.
 *
 * **Compatibility.** None.
 */
#ifndef VXUTILS_MESSAGEQUEUE_H
#define VXUTILS_MESSAGEQUEUE_H

#include <pthread.h>
#include <stddef.h>
#include <vxutils/api.h>
#include <vxutils/eventsource.h>

#include <deque>

class CMessageQueue;

/** One message, copied by value. */
struct CQMsg {
    int code;   /**< what the message says, in the users' own numbering */
    void *data; /**< payload or null; whose it is, sender and consumer agree */

    /**
     * Make a message.
     * @param messageCode  what the message says
     * @param payload      pointer to hand over
     */
    CQMsg(int messageCode, void *payload) : code(messageCode), data(payload) {}
    /**
     * Make a message without payload: data is null.
     * @param messageCode  what the message says
     */
    CQMsg(int messageCode) : code(messageCode), data(nullptr) {}
};

/** The consumer of a queue. Called on the loop's thread, no lock held. */
class VXUTILS_API IMQEventsink {
public:
    /**
     * Handle one message. @p message is valid during the call.
     * @param queue    the queue that calls
     * @param message  the message
     */
    virtual void onMessage(CMessageQueue *queue, const CQMsg &message) = 0;

    /**
     * Handle a wake-up pipe that could not be read when the queue was called as readable; the reason is in the system
     * log.
     * @param queue  the queue that calls
     */
    virtual void onQueueError(CMessageQueue *queue) = 0;

    virtual ~IMQEventsink();
};

/** The queue. A sink of its event source; its IFDEventsink part is for the event source. */
class VXUTILS_API CMessageQueue : public IFDEventsink {
public:
    /**
     * Open nothing yet. Neither pointer may be null in a queue that is to deliver.
     * @param consumer  receives the messages
     * @param source    event loop that the queue registers with
     */
    CMessageQueue(IMQEventsink *consumer, IFDEventsource *source);

    /** Leave the event source. Messages not delivered are dropped, their payloads not touched. */
    ~CMessageQueue() override;

    CMessageQueue(const CMessageQueue &) = delete;
    CMessageQueue &operator=(const CMessageQueue &) = delete;

    /**
     * Open the wake-up pipe, closed on exec, and register with the event source. Call it once, on the loop's
     * thread.
     * @return 0, or -1 with the reason in the system log
     */
    int init();

    /**
     * Queue a copy of @p message after all earlier ones. Does not wait for the loop: blocks only while another thread
     * is inside the queue or between lock() and unlock().
     * @param message  the message
     * @return 0, or -1 when nothing was queued (no init()); the reason is in the system log
     * @throws std::system_error as lock(); std::bad_alloc when memory is short, nothing queued
     */
    int send(const CQMsg &message);

    /** Deliver one message. For the event source. */
    void onReadable() override;

    /** Do nothing. */
    void onWritable() override;

    /** Tell the wake-up pipe's read end, -1 before init(). */
    int getFd() const override;

    /**
     * Keep all other threads out of the queue until unlock(). The owner may lock again, and must unlock as often.
     * @throws std::system_error with the error number of a lock that could not be taken
     */
    void lock();

    /** Give back one lock(). */
    void unlock();

private:
    bool takeMessage(CQMsg &message);

    IMQEventsink *consumer_;
    IFDEventsource *source_;
    pthread_mutex_t mutex_;
    int writeFd_;
    int readFd_;
    std::deque<CQMsg> messages_;
};

#endif
