// SPDX-License-Identifier: MIT
// The message queue before init(), and where the system refuses descriptors, locks, reads and writes.
#include <vxutils/messagequeue.h>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <system_error>
#include <thread>
#include <vector>

#include "support/call_hooks.h"
#include "support/descriptor_limit.h"
#include "support/messagequeue.h"
#include "support/short_objects.h"
#include "support/text.h"

VXTEST_HOOK(int, pthread_mutexattr_init, (pthread_mutexattr_t * attributes), (attributes))
VXTEST_HOOK(int, pthread_mutexattr_settype, (pthread_mutexattr_t * attributes, int kind), (attributes, kind))
VXTEST_HOOK(int, pthread_mutexattr_destroy, (pthread_mutexattr_t * attributes), (attributes))
VXTEST_HOOK(int, pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t *attributes),
            (mutex, attributes))
VXTEST_THREAD_HOOK(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex))
VXTEST_HOOK(int, close, (int fd), (fd))
VXTEST_HOOK(ssize_t, write, (int fd, const void *data, size_t size), (fd, data, size))

namespace {

using namespace vxtest::messagequeue;

namespace hooks = vxtest::hooks;

using vxtest::Hooked;
using vxtest::textf;

using MessagequeueFaults = Messagequeue;
using FullPipeFaults = FullPipe;

const auto noWrite = vxtest::answering<ssize_t>(-1, EIO);

// ---- the constructor and init()

TEST_F(MessagequeueFaults, TheConstructorCarriesOnWithoutARecursiveMutex) {
    struct Answers {
        std::optional<int> attrInit, setType, mutexInit;
    };
    int code = 0;
    for (const Answers &answers :
         {Answers{}, Answers{ENOMEM, {}, {}}, Answers{{}, EINVAL, {}}, Answers{{}, {}, EAGAIN}}) {
        int kindAsked = -1;
        int initialised = 0;
        int destroyed = 0;
        // Whatever was in the memory before must not become the mutex.
        alignas(CMessageQueue) std::array<unsigned char, sizeof(CMessageQueue)> memory;
        memory.fill(0xa5);
        CMessageQueue *own = nullptr;
        {
            const Hooked attrInit(hooks::pthread_mutexattr_init, [&](const auto &...) {
                ++initialised;
                return answers.attrInit;
            });
            const Hooked attrDestroy(hooks::pthread_mutexattr_destroy, [&](const auto &...) -> std::optional<int> {
                ++destroyed;
                return std::nullopt;
            });
            const Hooked setType(hooks::pthread_mutexattr_settype, [&](pthread_mutexattr_t *, int kind) {
                kindAsked = kind;
                return answers.setType;
            });
            const Hooked mutexInit(hooks::pthread_mutex_init, [&](const auto &...) { return answers.mutexInit; });
            own = new (memory.data()) CMessageQueue(&consumer, loop.get());
        }
        EXPECT_EQ(kindAsked, PTHREAD_MUTEX_RECURSIVE);
        EXPECT_EQ(initialised, 1);
        EXPECT_EQ(destroyed, 1) << "the attributes";
        EXPECT_EQ(own->init(), 0);
        EXPECT_EQ(own->send(CQMsg(code++)), 0);
        own->onReadable();
        own->~CMessageQueue();
    }
    EXPECT_EQ(consumer.codes, (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(consumer.errors, 0);
}

TEST_F(MessagequeueFaults, AQueueWithoutAPipeClosesNothing) {
    std::vector<int> closed;
    const Hooked close(hooks::close, [&](int fd) -> std::optional<int> {
        closed.push_back(fd);
        return std::nullopt;
    });
    { const CMessageQueue own(&consumer, loop.get()); }
    EXPECT_EQ(closed, std::vector<int>{});
}

TEST_F(MessagequeueFaults, InitFailsWithoutDescriptors) {
    for (const size_t more : {0, 1}) {
        const vxtest::DescriptorLimit limit(more);
        EXPECT_EQ(queue->init(), -1);
        EXPECT_EQ(log.take(), (Lines{{vxtest::errorLevel, "Unable to create pipe-fds - errno=Too many open files"}}));
        EXPECT_EQ(queue->getFd(), -1);
    }
    const vxtest::DescriptorLimit enough(2);
    EXPECT_EQ(queue->init(), 0);
}

TEST_F(MessagequeueFaults, InitThrowsWhatTheSourceThrowsAndTheQueueCanBeDestroyed) {
    struct FullSource : CEPollEventsource {
        void addSink(IFDEventsink *, event_type) override { throw std::bad_alloc(); }
    };
    FullSource source;
    ASSERT_EQ(source.init(), 0);
    const auto before = vxtest::openDescriptors();
    {
        CMessageQueue unregistered(nullptr, &source);
        EXPECT_THROW(unregistered.init(), std::bad_alloc);
    }
    EXPECT_EQ(vxtest::openDescriptors(), before);
}

TEST_F(MessagequeueFaults, InitSucceedsThoughTheSourceCannotWatchTheQueue) {
    CEPollEventsource source;  // without its init() it has no epoll set
    auto unwatched = std::make_unique<CMessageQueue>(&consumer, &source);
    void *const sink = static_cast<IFDEventsink *>(unwatched.get());
    EXPECT_EQ(unwatched->init(), 0);
    const int fd = unwatched->getFd();
    EXPECT_EQ(log.take(),
              (Lines{{vxtest::errorLevel, textf("Unable to add fd %i (sink 0x%p) to epoll-events", fd, sink)}}));
    EXPECT_EQ(unwatched->send(CQMsg(1)), 0);
    unwatched->onReadable();
    EXPECT_EQ(consumer.codes, std::vector<int>{1});
    unwatched.reset();
    EXPECT_EQ(log.take(),
              (Lines{{vxtest::errorLevel, textf("Unable to remove fd %i (sink 0x%p) from epoll-events", fd, sink)}}));
}

TEST_F(MessagequeueFaults, SendingBeforeInitFailsAndQueuesNothing) {
    EXPECT_EQ(queue->send(CQMsg(1)), -1);
    EXPECT_EQ(log.take(), (Lines{{vxtest::errorLevel, "Unable to write to pipe - errno=Bad file descriptor"}}));
    ASSERT_EQ(queue->init(), 0);
    ASSERT_EQ(queue->send(CQMsg(2)), 0);
    consumer.whenMessage = [&](CMessageQueue *, const CQMsg &) { loop->terminate(); };
    EXPECT_EQ(loop->evtLoop(), 0);
    EXPECT_EQ(consumer.codes, std::vector<int>{2});
}

// ---- reads, writes and locks that fail

TEST_F(MessagequeueFaults, AnUnreadablePipeIsReportedToTheConsumer) {
    queue->onReadable();
    EXPECT_EQ(consumer.errors, 1);
    EXPECT_EQ(log.take(), (Lines{{vxtest::errorLevel, "Unable to read from pipe - errno=Bad file descriptor"}}));
    ASSERT_EQ(queue->init(), 0);
    consumer.whenError = [&](CMessageQueue *from) {
        EXPECT_EQ(from, queue.get());
        std::thread([&] { EXPECT_EQ(queue->send(CQMsg(3)), 0); }).join();  // the lock is not held
        EXPECT_EQ(log.take(),
                  (Lines{{vxtest::errorLevel, "Unable to read from pipe - errno=Resource temporarily unavailable"}}));
    };
    queue->onReadable();  // nothing sent
    EXPECT_EQ(consumer.errors, 2);
    queue->onReadable();
    EXPECT_EQ(consumer.codes, std::vector<int>{3});
    queue->onWritable();  // does nothing
}

TEST_F(MessagequeueFaults, ALockThatFailsThrowsItsErrorNumber) {
    ASSERT_EQ(queue->init(), 0);
    const pthread_mutex_t *broken = nullptr;
    const auto errorOf = [&](const std::function<void()> &call) {
        const Hooked noLock(hooks::pthread_mutex_lock, [&](const pthread_mutex_t *mutex) -> std::optional<int> {
            broken = mutex;
            return EAGAIN;
        });
        try {
            call();
        } catch (const std::system_error &failure) {
            return failure.code().value();
        }
        return 0;
    };
    EXPECT_EQ(errorOf([&] { queue->lock(); }), EAGAIN);
    EXPECT_EQ(errorOf([&] { queue->send(CQMsg(1)); }), EAGAIN);
    EXPECT_EQ(errorOf([&] { queue->onReadable(); }), EAGAIN);
    EXPECT_NE(broken, nullptr);
    EXPECT_EQ(bytesInPipe(), 0);
}

TEST_F(FullPipeFaults, AWriteThatFailsRefusesItsMessageAndDelaysNoOther) {
    ASSERT_EQ(queue->send(CQMsg(1)), 0);
    {
        const Hooked failing(hooks::write, noWrite);
        EXPECT_EQ(queue->send(CQMsg(2)), -1);
    }
    EXPECT_EQ(log.take(), (Lines{{vxtest::errorLevel, "Unable to write to pipe - errno=Input/output error"}}));
    ASSERT_EQ(queue->send(CQMsg(3)), 0);
    deliverWhatTheLoopWould();
    EXPECT_EQ(consumer.codes, (std::vector<int>{1, 3}));
}

TEST_F(FullPipeFaults, EveryMessageArrivesWhenNoLaterWriteSucceeds) {
    const int count = 2 * capacity + 10;
    for (int i = 0; i < count; ++i) ASSERT_EQ(queue->send(CQMsg(i)), 0);
    {
        const Hooked failing(hooks::write, noWrite);
        deliverWhatTheLoopWould();
    }
    ASSERT_EQ(consumer.codes.size(), static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) ASSERT_EQ(consumer.codes[static_cast<size_t>(i)], i);
    EXPECT_EQ(consumer.errors, 0);
    EXPECT_EQ(bytesInPipe(), 0);
}

TEST_F(FullPipeFaults, AReadThatFailsLeavesTheMessageForTheNextCall) {
    ASSERT_EQ(queue->send(CQMsg(1)), 0);
    const int kept = ::dup(queue->getFd());
    const int unreadable = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(::dup2(unreadable, queue->getFd()), queue->getFd());
    queue->onReadable();
    EXPECT_EQ(consumer.errors, 1);
    EXPECT_EQ(log.take(), (Lines{{vxtest::errorLevel, "Unable to read from pipe - errno=Bad file descriptor"}}));
    ASSERT_EQ(::dup2(kept, queue->getFd()), queue->getFd());
    ::close(kept);
    ::close(unreadable);
    deliverWhatTheLoopWould();
    EXPECT_EQ(consumer.codes, std::vector<int>{1});
}

// Every message is first sent without memory; most fit into what the queue has.
TEST_F(FullPipeFaults, AMessageWithoutMemoryIsNotQueuedAndDelaysNoOther) {
    capacity = ::fcntl(queue->getFd(), F_SETPIPE_SZ, 4096);
    ASSERT_GE(capacity, 4096);
    for (const int count : {2 * capacity, capacity / 2}) {
        int refusals = 0;
        for (int i = 0; i < count; ++i) {
            vxtest::objectsLeft = 0;
            vxtest::objectsRunOut = true;
            bool refused = false;
            try {
                queue->send(CQMsg(i));
            } catch (const std::bad_alloc &) {
                refused = true;
            }
            vxtest::objectsRunOut = false;
            if (refused) {
                ++refusals;
                ASSERT_EQ(queue->send(CQMsg(i)), 0);
            }
        }
        EXPECT_GT(refusals, 2) << "of " << count;
        deliverWhatTheLoopWould();
        ASSERT_EQ(consumer.codes.size(), static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) ASSERT_EQ(consumer.codes[static_cast<size_t>(i)], i);
        EXPECT_EQ(consumer.errors, 0);
        EXPECT_EQ(bytesInPipe(), 0);
        consumer.codes.clear();
    }
}

}  // namespace
