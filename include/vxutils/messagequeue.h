/* SPDX-License-Identifier: MIT */
/**
 * @file
 * Small messages from any thread into the thread that runs an event loop.
 *
 * @code
 * class Results : public IMQEventsink {
 * public:
 *     void onMessage(CMessageQueue *, const CQMsg &message) override { store(message.code, message.data); }
 *     void onQueueError(CMessageQueue *) override {}
 * };
 *
 * Results results;
 * CMessageQueue queue(&results, &loop);  // loop: a CEPollEventsource after init()
 * if (queue.init() != 0) return 1;
 * std::thread worker([&] { queue.send(CQMsg(42)); });
 * loop.evtLoop();                        // calls results.onMessage() on this thread
 * @endcode
 *
 * Messages arrive in the order in which they were sent, one per round of the loop, so that a flood of them does not
 * starve other sinks and timers. There is no limit but memory: a sender never waits for the loop, and none is lost when
 * the loop starts late.
 *
 * Threads: send(), lock() and unlock() from any thread; everything else from the loop's thread. The consumer is called
 * without the lock held and may send to the same queue, itself served on a later round.
 *
 * fork(): a child must not use its parent's queue; the wake-up pipe would be shared and the messages not.
 *
 * Ownership: the queue owns neither consumer, event source nor payloads. Destroy it before its event source and before
 * its consumer, when no thread can send any more.
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

    CQMsg(int messageCode, void *payload) : code(messageCode), data(payload) {}
    CQMsg(int messageCode) : code(messageCode), data(nullptr) {}
};

/** The consumer of a queue. Called on the loop's thread, no lock held. */
class VXUTILS_API IMQEventsink {
public:
    /** One message. @p message is valid during the call. */
    virtual void onMessage(CMessageQueue *queue, const CQMsg &message) = 0;

    /** The queue was called as readable and its wake-up pipe could not be read; the reason is in the system log. */
    virtual void onQueueError(CMessageQueue *queue) = 0;

    virtual ~IMQEventsink();
};

/** The queue. A sink of its event source; its IFDEventsink part is for the event source. */
class VXUTILS_API CMessageQueue : public IFDEventsink {
public:
    /** Opens nothing yet. Neither pointer may be null in a queue that is to deliver. */
    CMessageQueue(IMQEventsink *consumer, IFDEventsource *source);

    /** Leaves the event source. Messages not delivered are dropped, their payloads not touched. */
    ~CMessageQueue() override;

    CMessageQueue(const CMessageQueue &) = delete;
    CMessageQueue &operator=(const CMessageQueue &) = delete;

    /**
     * Opens the wake-up pipe, closed on exec, and registers with the event source. To be called once, on the loop's
     * thread.
     * @return 0, or -1 with the reason in the system log
     */
    int init();

    /**
     * Queues a copy of @p message behind all earlier ones. Does not wait for the loop: blocks only while another thread
     * is inside the queue or between lock() and unlock().
     * @return 0, or -1 when nothing was queued (no init()); the reason is in the system log
     * @throws std::system_error as lock(); std::bad_alloc when memory is short, nothing queued
     */
    int send(const CQMsg &message);

    /** Delivers one message. For the event source. */
    void onReadable() override;

    /** Does nothing. */
    void onWritable() override;

    /** The wake-up pipe's read end, -1 before init(). */
    int getFd() const override;

    /**
     * Keeps all other threads out of the queue until unlock(). The owner may lock again, and must unlock as often.
     * @throws std::system_error with the error number of a lock that could not be taken
     */
    void lock();

    /** Gives back one lock(). */
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
