// SPDX-License-Identifier: MIT
// The message queue: real threads, a real loop.
#include <vxutils/messagequeue.h>

#include <devlog.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include "support/descriptor_limit.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace {

using Lines = std::vector<vxtest::LogLine>;

constexpr int errorLevel = LOG_CRIT;  // what is logged at DL_ERROR

std::atomic<pthread_mutex_t *> brokenMutex = nullptr;  // the one that cannot be locked
thread_local bool locksFail = false;
std::atomic<bool> writesFail = false;

// What the constructor asks for and may not get.
enum class Call { none, attrInit, setType, mutexInit };
Call failing = Call::none;
int kindAsked = -1;

template <typename Function>
Function real(const char *name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int pthread_mutexattr_init(pthread_mutexattr_t *attributes) noexcept {
    if (failing == Call::attrInit) return ENOMEM;
    return real<int (*)(pthread_mutexattr_t *)>("pthread_mutexattr_init")(attributes);
}

extern "C" int pthread_mutexattr_settype(pthread_mutexattr_t *attributes, int kind) noexcept {
    kindAsked = kind;
    if (failing == Call::setType) return EINVAL;
    return real<int (*)(pthread_mutexattr_t *, int)>("pthread_mutexattr_settype")(attributes, kind);
}

extern "C" int pthread_mutex_init(pthread_mutex_t *mutex, const pthread_mutexattr_t *attributes) noexcept {
    if (failing == Call::mutexInit) return EAGAIN;
    return real<int (*)(pthread_mutex_t *, const pthread_mutexattr_t *)>("pthread_mutex_init")(mutex, attributes);
}

// The library's calls come through here, so that a lock can fail.
extern "C" int pthread_mutex_lock(pthread_mutex_t *mutex) noexcept {
    if (locksFail) {
        brokenMutex = mutex;
        return EAGAIN;
    }
    static const auto next = reinterpret_cast<int (*)(pthread_mutex_t *)>(::dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    return next(mutex);
}

extern "C" ssize_t write(int fd, const void *data, size_t size) {
    if (writesFail) {
        errno = EIO;
        return -1;
    }
    static const auto next = real<ssize_t (*)(int, const void *, size_t)>("write");
    return next(fd, data, size);
}

// The boards write both levels of errors with one priority; here they are told apart.
extern "C" int devlog_level_to_prio(const devlog_level *level) {
    static const auto next = real<int (*)(const devlog_level *)>("devlog_level_to_prio");
    return level == DL_ERROR ? errorLevel : next(level);
}

namespace {

class Consumer : public IMQEventsink {
public:
    void onMessage(CMessageQueue *queue, const CQMsg &message) override {
        codes.push_back(message.code);
        data.push_back(message.data);
        if (whenMessage) whenMessage(queue, message);
    }
    void onQueueError(CMessageQueue *queue) override {
        ++errors;
        if (whenError) whenError(queue);
    }

    std::function<void(CMessageQueue *, const CQMsg &)> whenMessage;
    std::function<void(CMessageQueue *)> whenError;
    std::vector<int> codes;
    std::vector<void *> data;
    int errors = 0;
};

class Messagequeue : public testing::Test {
protected:
    Messagequeue() {
        ::openlog("messagequeue_test", LOG_NDELAY, LOG_USER);
        before_ = vxtest::openDescriptors();
        loop = std::make_unique<CEPollEventsource>();
        if (loop->init() != 0) ADD_FAILURE() << "no loop";
        queue = std::make_unique<CMessageQueue>(&consumer, loop.get());
    }
    ~Messagequeue() override {
        queue.reset();
        loop.reset();
        EXPECT_EQ(vxtest::openDescriptors(), before_);
        EXPECT_EQ(log.take(), Lines{});
        ::closelog();
    }
    int bytesInPipe() const {
        int bytes = -1;
        EXPECT_EQ(::ioctl(queue->getFd(), FIONREAD, &bytes), 0);
        return bytes;
    }

    vxtest::SyslogCapture log;
    std::vector<std::string> before_;
    Consumer consumer;
    std::unique_ptr<CEPollEventsource> loop;
    std::unique_ptr<CMessageQueue> queue;
};

TEST_F(Messagequeue, AMessageHasACodeAndAPayload) {
    int payload = 0;
    EXPECT_EQ(CQMsg(7).code, 7);
    EXPECT_EQ(CQMsg(7).data, nullptr);
    EXPECT_EQ(CQMsg(-1, &payload).code, -1);
    EXPECT_EQ(CQMsg(-1, &payload).data, &payload);
}

TEST_F(Messagequeue, TheConstructorCarriesOnWithoutARecursiveMutex) {
    for (const Call call : {Call::none, Call::attrInit, Call::setType, Call::mutexInit}) {
        kindAsked = -1;
        failing = call;
        // Whatever was in the memory before must not become the mutex.
        alignas(CMessageQueue) std::array<unsigned char, sizeof(CMessageQueue)> memory;
        memory.fill(0xa5);
        auto *const own = new (memory.data()) CMessageQueue(&consumer, loop.get());
        failing = Call::none;
        EXPECT_EQ(kindAsked, PTHREAD_MUTEX_RECURSIVE);
        EXPECT_EQ(own->init(), 0);
        EXPECT_EQ(own->send(CQMsg(static_cast<int>(call))), 0);
        own->onReadable();
        own->~CMessageQueue();
    }
    EXPECT_EQ(consumer.codes, (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(consumer.errors, 0);
}

TEST_F(Messagequeue, TheConstructorOpensNothing) {
    EXPECT_EQ(queue->getFd(), -1);
    EXPECT_EQ(vxtest::openDescriptors().size(), before_.size() + 3);  // the loop's own
}

TEST_F(Messagequeue, InitOpensAPipeAndRegistersForReading) {
    ASSERT_EQ(queue->init(), 0);
    EXPECT_EQ(vxtest::openDescriptors().size(), before_.size() + 5);
    EXPECT_NE(::fcntl(queue->getFd(), F_GETFD) & FD_CLOEXEC, 0);
    consumer.whenMessage = [&](CMessageQueue *from, const CQMsg &) {
        EXPECT_EQ(from, queue.get());
        loop->terminate();
    };
    ASSERT_EQ(queue->send(CQMsg(1)), 0);
    EXPECT_EQ(loop->evtLoop(), 0);
    EXPECT_EQ(consumer.codes, std::vector<int>{1});
}

TEST_F(Messagequeue, InitFailsWithoutDescriptors) {
    for (const size_t more : {0, 1}) {
        const vxtest::DescriptorLimit limit(more);
        EXPECT_EQ(queue->init(), -1);
        EXPECT_EQ(log.take(), (Lines{{errorLevel, "Unable to create pipe-fds - errno=Too many open files"}}));
        EXPECT_EQ(queue->getFd(), -1);
    }
    const vxtest::DescriptorLimit enough(2);
    EXPECT_EQ(queue->init(), 0);
}

TEST_F(Messagequeue, SendingBeforeInitFailsAndQueuesNothing) {
    EXPECT_EQ(queue->send(CQMsg(1)), -1);
    EXPECT_EQ(log.take(), (Lines{{errorLevel, "Unable to write to pipe - errno=Bad file descriptor"}}));
    ASSERT_EQ(queue->init(), 0);
    ASSERT_EQ(queue->send(CQMsg(2)), 0);
    consumer.whenMessage = [&](CMessageQueue *, const CQMsg &) { loop->terminate(); };
    EXPECT_EQ(loop->evtLoop(), 0);
    EXPECT_EQ(consumer.codes, std::vector<int>{2});
}

TEST_F(Messagequeue, AnUnreadablePipeIsReportedToTheConsumer) {
    queue->onReadable();
    EXPECT_EQ(consumer.errors, 1);
    EXPECT_EQ(log.take(), (Lines{{errorLevel, "Unable to read from pipe - errno=Bad file descriptor"}}));
    ASSERT_EQ(queue->init(), 0);
    consumer.whenError = [&](CMessageQueue *from) {
        EXPECT_EQ(from, queue.get());
        std::thread([&] { EXPECT_EQ(queue->send(CQMsg(3)), 0); }).join();  // the lock is not held
    };
    queue->onReadable();  // nothing sent
    EXPECT_EQ(consumer.errors, 2);
    EXPECT_EQ(log.take(), (Lines{{errorLevel, "Unable to read from pipe - errno=Resource temporarily unavailable"}}));
    queue->onReadable();
    EXPECT_EQ(consumer.codes, std::vector<int>{3});
    queue->onWritable();  // does nothing
}

TEST_F(Messagequeue, OneByteStandsForOneMessage) {
    ASSERT_EQ(queue->init(), 0);
    for (int i = 1; i <= 5; ++i) {
        ASSERT_EQ(queue->send(CQMsg(i)), 0);
        EXPECT_EQ(bytesInPipe(), i);
    }
    queue->onReadable();
    EXPECT_EQ(consumer.codes, std::vector<int>{1});
    std::array<char, 6> bytes{};
    EXPECT_EQ(::read(queue->getFd(), bytes.data(), bytes.size()), 4);
    EXPECT_STREQ(bytes.data(), "xxxx");
}

TEST_F(Messagequeue, MessagesOfAnotherThreadArriveInOrderOneARound) {
    ASSERT_EQ(queue->init(), 0);
    int payload = 0;
    std::thread([&] {
        EXPECT_EQ(queue->send(CQMsg(1, &payload)), 0);
        EXPECT_EQ(queue->send(CQMsg(2)), 0);
        EXPECT_EQ(queue->send(CQMsg(3)), 0);
    }).join();
    const auto loopThread = std::this_thread::get_id();
    consumer.whenMessage = [&](CMessageQueue *, const CQMsg &message) {
        EXPECT_EQ(std::this_thread::get_id(), loopThread);
        if (message.code == 3) loop->terminate();
    };
    EXPECT_EQ(loop->evtLoop(), 0);
    EXPECT_EQ(consumer.codes, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(consumer.data, (std::vector<void *>{&payload, nullptr, nullptr}));
}

TEST_F(Messagequeue, AMessageSentFromOnMessageComesOnALaterRound) {
    ASSERT_EQ(queue->init(), 0);
    int depth = 0;
    consumer.whenMessage = [&](CMessageQueue *from, const CQMsg &message) {
        EXPECT_EQ(++depth, 1);
        if (message.code < 4) {
            EXPECT_EQ(from->send(CQMsg(message.code + 1)), 0);
        } else {
            loop->terminate();
        }
        --depth;
    };
    ASSERT_EQ(queue->send(CQMsg(1)), 0);
    EXPECT_EQ(loop->evtLoop(), 0);
    EXPECT_EQ(consumer.codes, (std::vector<int>{1, 2, 3, 4}));
}

TEST_F(Messagequeue, TheConsumerIsCalledWithoutTheLock) {
    ASSERT_EQ(queue->init(), 0);
    consumer.whenMessage = [&](CMessageQueue *, const CQMsg &message) {
        if (message.code == 1) std::thread([&] { EXPECT_EQ(queue->send(CQMsg(2)), 0); }).join();
    };
    ASSERT_EQ(queue->send(CQMsg(1)), 0);
    queue->onReadable();
    queue->onReadable();
    EXPECT_EQ(consumer.codes, (std::vector<int>{1, 2}));
}

TEST_F(Messagequeue, TheLockIsRecursiveAndKeepsOthersOut) {
    ASSERT_EQ(queue->init(), 0);
    queue->lock();
    queue->lock();
    EXPECT_EQ(queue->send(CQMsg(1)), 0);
    std::atomic<bool> sent = false;
    std::thread other([&] {
        EXPECT_EQ(queue->send(CQMsg(2)), 0);
        sent = true;
    });
    queue->unlock();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(sent);
    queue->unlock();
    other.join();
    queue->onReadable();
    queue->onReadable();
    EXPECT_EQ(consumer.codes, (std::vector<int>{1, 2}));
}

TEST_F(Messagequeue, ALockThatFailsThrowsItsErrorNumber) {
    ASSERT_EQ(queue->init(), 0);
    const auto errorOf = [](const std::function<void()> &call) {
        int error = 0;
        locksFail = true;
        try {
            call();
        } catch (const std::system_error &failure) {
            error = failure.code().value();
        }
        locksFail = false;
        return error;
    };
    EXPECT_EQ(errorOf([&] { queue->lock(); }), EAGAIN);
    EXPECT_EQ(errorOf([&] { queue->send(CQMsg(1)); }), EAGAIN);
    EXPECT_EQ(errorOf([&] { queue->onReadable(); }), EAGAIN);
    EXPECT_NE(brokenMutex.load(), nullptr);
    EXPECT_EQ(bytesInPipe(), 0);
}

// --- more messages than the pipe has room for

class FullPipe : public Messagequeue {
protected:
    FullPipe() {
        if (queue->init() != 0) ADD_FAILURE() << "no queue";
        capacity = ::fcntl(queue->getFd(), F_GETPIPE_SZ);
    }
    // Calls the queue as the loop does, as long as it is readable.
    void deliverWhatTheLoopWould() {
        pollfd ready{queue->getFd(), POLLIN, 0};
        while (::poll(&ready, 1, 0) == 1) queue->onReadable();
    }
    void expectInOrder(int count) {
        consumer.whenMessage = [&, count](CMessageQueue *, const CQMsg &message) {
            if (message.code == count - 1) loop->terminate();
        };
        ASSERT_EQ(loop->evtLoop(), 0);
        ASSERT_EQ(consumer.codes.size(), static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) ASSERT_EQ(consumer.codes[static_cast<size_t>(i)], i);
        EXPECT_EQ(bytesInPipe(), 0);
    }
    int capacity = 0;
};

TEST_F(FullPipe, ExactlyWhatThePipeHoldsArrives) {
    for (int i = 0; i < capacity; ++i) ASSERT_EQ(queue->send(CQMsg(i)), 0);
    expectInOrder(capacity);
}

TEST_F(FullPipe, OneMoreThanThePipeHoldsArrives) {
    for (int i = 0; i <= capacity; ++i) ASSERT_EQ(queue->send(CQMsg(i)), 0);
    EXPECT_EQ(bytesInPipe(), capacity);
    expectInOrder(capacity + 1);
}

TEST_F(FullPipe, SeveralTimesWhatThePipeHoldsArrivesFromTheLoopThreadItself) {
    const int count = 3 * capacity + 17;
    for (int i = 0; i < count; ++i) ASSERT_EQ(queue->send(CQMsg(i)), 0);
    expectInOrder(count);
}

TEST_F(FullPipe, WhatIsSentWhileTheLoopCatchesUpKeepsItsPlace) {
    const int count = 2 * capacity;
    int next = 0;
    for (; next <= capacity; ++next) ASSERT_EQ(queue->send(CQMsg(next)), 0);
    consumer.whenMessage = [&](CMessageQueue *, const CQMsg &message) {
        if (message.code == count - 1) loop->terminate();
        if (next == count) return;
        EXPECT_EQ(queue->send(CQMsg(next++)), 0);
    };
    ASSERT_EQ(loop->evtLoop(), 0);
    ASSERT_EQ(consumer.codes.size(), static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) ASSERT_EQ(consumer.codes[static_cast<size_t>(i)], i);
    EXPECT_EQ(bytesInPipe(), 0);
}

TEST_F(FullPipe, ASmallPipeWorksAlike) {
    ASSERT_EQ(::fcntl(queue->getFd(), F_SETPIPE_SZ, 4096), 4096);
    for (int i = 0; i < 20000; ++i) ASSERT_EQ(queue->send(CQMsg(i)), 0);
    EXPECT_EQ(bytesInPipe(), 4096);
    expectInOrder(20000);
    ASSERT_EQ(queue->send(CQMsg(0)), 0);  // back to one byte for one message
    EXPECT_EQ(bytesInPipe(), 1);
}

TEST_F(FullPipe, EveryMessageArrivesWhenNoLaterWriteSucceeds) {
    const int count = 2 * capacity + 10;
    for (int i = 0; i < count; ++i) ASSERT_EQ(queue->send(CQMsg(i)), 0);
    writesFail = true;
    deliverWhatTheLoopWould();
    writesFail = false;
    ASSERT_EQ(consumer.codes.size(), static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) ASSERT_EQ(consumer.codes[static_cast<size_t>(i)], i);
    EXPECT_EQ(consumer.errors, 0);
    EXPECT_EQ(bytesInPipe(), 0);
}

TEST_F(FullPipe, AWriteThatFailsRefusesItsMessageAndDelaysNoOther) {
    ASSERT_EQ(queue->send(CQMsg(1)), 0);
    writesFail = true;
    EXPECT_EQ(queue->send(CQMsg(2)), -1);
    writesFail = false;
    EXPECT_EQ(log.take(), (Lines{{errorLevel, "Unable to write to pipe - errno=Input/output error"}}));
    ASSERT_EQ(queue->send(CQMsg(3)), 0);
    deliverWhatTheLoopWould();
    EXPECT_EQ(consumer.codes, (std::vector<int>{1, 3}));
}

TEST_F(FullPipe, AReadThatFailsLeavesTheMessageForTheNextCall) {
    ASSERT_EQ(queue->send(CQMsg(1)), 0);
    const int kept = ::dup(queue->getFd());
    const int unreadable = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(::dup2(unreadable, queue->getFd()), queue->getFd());
    queue->onReadable();
    EXPECT_EQ(consumer.errors, 1);
    EXPECT_EQ(log.take(), (Lines{{errorLevel, "Unable to read from pipe - errno=Bad file descriptor"}}));
    ASSERT_EQ(::dup2(kept, queue->getFd()), queue->getFd());
    ::close(kept);
    ::close(unreadable);
    deliverWhatTheLoopWould();
    EXPECT_EQ(consumer.codes, std::vector<int>{1});
}

TEST_F(FullPipe, AMillionMessagesOfEightThreadsIntoALoopThatStartsLate) {
    constexpr int threads = 8;
    constexpr int each = 125000;
    std::vector<int> next(threads, 0);
    int delivered = 0;
    bool inOrder = true;
    consumer.codes.reserve(threads * each);
    consumer.data.reserve(threads * each);
    consumer.whenMessage = [&](CMessageQueue *, const CQMsg &message) {
        const auto sender = static_cast<size_t>(message.code % threads);
        if (message.code / threads != next[sender]++) inOrder = false;
        if (++delivered == threads * each) loop->terminate();
    };
    std::atomic<int> failures = 0;
    std::vector<std::thread> senders;
    for (int thread = 0; thread < threads; ++thread) {
        senders.emplace_back([&, thread] {
            for (int i = 0; i < each; ++i) {
                if (queue->send(CQMsg(i * threads + thread)) != 0) ++failures;
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(loop->evtLoop(), 0);
    for (std::thread &sender : senders) sender.join();
    EXPECT_EQ(failures, 0);
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(next, std::vector<int>(threads, each));
    EXPECT_EQ(bytesInPipe(), 0);
}

TEST_F(FullPipe, TwoQueuesOnOneLoopDoNotMix) {
    Consumer others;
    CMessageQueue second(&others, loop.get());
    ASSERT_EQ(second.init(), 0);
    others.whenMessage = consumer.whenMessage = [&](CMessageQueue *, const CQMsg &) {
        if (consumer.codes.size() == 1000 && others.codes.size() == 1000) loop->terminate();
    };
    std::thread first([&] {
        for (int i = 0; i < 1000; ++i) queue->send(CQMsg(i));
    });
    for (int i = 0; i < 1000; ++i) second.send(CQMsg(-i));
    EXPECT_EQ(loop->evtLoop(), 0);
    first.join();
    for (int i = 0; i < 1000; ++i) {
        EXPECT_EQ(consumer.codes[static_cast<size_t>(i)], i);
        EXPECT_EQ(others.codes[static_cast<size_t>(i)], -i);
    }
}

// --- the end of a queue

TEST_F(Messagequeue, UndeliveredMessagesAreDroppedAndTheLoopForgetsTheQueue) {
    ASSERT_EQ(queue->init(), 0);
    int payload = 1;
    for (int i = 0; i < 100; ++i) ASSERT_EQ(queue->send(CQMsg(i, &payload)), 0);
    queue.reset();
    CMessageQueue next(&consumer, loop.get());  // gets the numbers of the one before
    ASSERT_EQ(next.init(), 0);
    consumer.whenMessage = [&](CMessageQueue *from, const CQMsg &) {
        EXPECT_EQ(from, &next);
        loop->terminate();
    };
    ASSERT_EQ(next.send(CQMsg(1000)), 0);
    EXPECT_EQ(loop->evtLoop(), 0);
    EXPECT_EQ(consumer.codes, std::vector<int>{1000});
    EXPECT_EQ(payload, 1);
}

TEST_F(Messagequeue, AQueueWithoutASourceClosesItsPipe) {
    CMessageQueue alone(&consumer, nullptr);
    ASSERT_EQ(alone.init(), 0);
    ASSERT_EQ(alone.send(CQMsg(4)), 0);
    alone.onReadable();
    EXPECT_EQ(consumer.codes, std::vector<int>{4});
}

TEST_F(Messagequeue, AConsumerMayDestroyAnotherQueueOfTheSameRound) {
    auto first = std::make_unique<CMessageQueue>(&consumer, loop.get());
    auto second = std::make_unique<CMessageQueue>(&consumer, loop.get());
    ASSERT_EQ(first->init(), 0);
    ASSERT_EQ(second->init(), 0);
    ASSERT_EQ(first->send(CQMsg(1)), 0);
    ASSERT_EQ(second->send(CQMsg(2)), 0);
    consumer.whenMessage = [&](CMessageQueue *from, const CQMsg &) {
        (from == first.get() ? second : first).reset();
        loop->terminate();
    };
    EXPECT_EQ(loop->evtLoop(), 0);
    EXPECT_EQ(consumer.codes.size(), 1U);
}

TEST_F(Messagequeue, TheExampleDeliversWhatItsWorkersSend) {
    const auto output = vxtest::run({vxtest::built("examples/messagequeue")});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_EQ(output.text, "3 workers, 15 results, sum 120\n");
}

}  // namespace
