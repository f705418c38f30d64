/* SPDX-License-Identifier: MIT */
/**
 * @file
 * **Purpose.** Passes small messages from any thread to the thread that runs an event loop (eventsource.h). Messages
 * arrive in the order in which they were sent, one per round of the loop, so that many of them do not starve other
 * sinks and timers. To run a long or blocking call without holding up the loop, run it in a thread and send its result.
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
 * **Ownership.** The queue owns none of its consumer, its event source and the payloads. Sender and consumer agree who
 * frees a payload; the payloads of messages that were never delivered are not freed. Destroy the queue on the loop's
 * thread, when no other thread can send any more, before its consumer and its event source.
 *
 * **Threads, signals, fork.** Any thread may call send(), lock() and unlock(); everything else belongs to the loop's
 * thread. The consumer is called without the lock held and may send to the same queue; such a message is served on a
 * later round. Not for signal handlers. A child of fork() must not use its parent's queue: the wake-up pipe would be
 * shared and the messages would not. It must not destroy the queue either, because that takes the parent's queue out of
 * the shared epoll set; a child that does not call exec ends with _exit(), which runs no destructors.
 *
 * **Blocking.** A sender never waits for the loop, only for another thread that is inside the queue or between lock()
 * and unlock().
 *
 * **Errors.** init() and send() return -1 with the reason in the system log. lock(), send() and onReadable() throw
 * std::system_error when the lock cannot be taken; that of onReadable() comes out of the loop. send() throws
 * std::bad_alloc when memory is short; nothing is queued then. The constructor throws std::bad_alloc as well, and
 * init() throws what the source's addSink() throws; such a queue can only be destroyed.
 *
 * **Limits.** The number of messages is limited by memory alone. Messages sent before the loop runs wait for it.
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
    void *data; /**< payload or null; see "Ownership" */

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

/** The consumer of a queue. Its functions are called on the loop's thread, without the queue's lock. */
class VXUTILS_API IMQEventsink {
public:
    /**
     * Handle one message.
     * @param queue    the queue that calls; may be destroyed here
     * @param message  the message; valid until this function returns
     */
    virtual void onMessage(CMessageQueue *queue, const CQMsg &message) = 0;

    /**
     * Handle a failed read of the wake-up pipe; the reason is in the system log. The loop calls the queue again as long
     * as the pipe is reported as readable.
     * @param queue  the queue that calls
     */
    virtual void onQueueError(CMessageQueue *queue) = 0;

    virtual ~IMQEventsink();
};

/** The queue. It is a sink of its event source, which alone calls onReadable(), onWritable() and getFd(). */
class VXUTILS_API CMessageQueue : public IFDEventsink {
public:
    /**
     * Store the pointers; open nothing yet.
     * @param consumer  receives the messages; not NULL once a message or an error is delivered
     * @param source    event loop that the queue registers with; with NULL nothing is delivered until the program
     *        itself calls onReadable()
     */
    CMessageQueue(IMQEventsink *consumer, IFDEventsource *source);

    /** Leave the event source and close the pipe. Undelivered messages are dropped; their payloads are not freed. */
    ~CMessageQueue() override;

    CMessageQueue(const CMessageQueue &) = delete;
    CMessageQueue &operator=(const CMessageQueue &) = delete;

    /**
     * Open the wake-up pipe, which is close-on-exec, and register with the event source. Call it once, on the loop's
     * thread, after the source's init(). A source that cannot watch the pipe, as before its init(), logs that; this
     * function then returns 0 all the same, and nothing is delivered.
     * @return 0, or -1 if the pipe cannot be made; the reason is in the system log
     */
    int init();

    /**
     * Queue a copy of @p message after all earlier ones. Does not wait for the loop: blocks only while another thread
     * is inside the queue or between lock() and unlock().
     * @param message  the message
     * @return 0, or -1 when nothing was queued, as before init(); the reason is in the system log
     * @throws std::system_error as lock(); std::bad_alloc when memory is short and nothing was queued
     */
    int send(const CQMsg &message);

    /**
     * Handle a wake-up: take the oldest message and pass it to the consumer. For the event source.
     * @throws std::system_error as lock()
     */
    void onReadable() override;

    /** Do nothing. */
    void onWritable() override;

    /** Tell the read end of the wake-up pipe; -1 before init(). */
    int getFd() const override;

    /**
     * Keep all other threads out of the queue until unlock(), so that several messages arrive without another thread's
     * between them. Blocks while another thread holds the lock. The owner may lock again, and must unlock as often.
     * @throws std::system_error with the error number when the lock could not be taken
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
