// SPDX-License-Identifier: MIT
// The message queue: real threads, a real loop.
#include <vxutils/messagequeue.h>

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "support/messagequeue.h"
#include "support/process.h"

namespace {

using namespace vxtest::messagequeue;

TEST_F(Messagequeue, TheExampleDeliversWhatItsWorkersSend) {
    const auto output = vxtest::run({vxtest::built("examples/messagequeue")});
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_EQ(output.text, "3 workers, 15 results, sum 120\n");
}

TEST_F(Messagequeue, AMessageHasACodeAndAPayload) {
    int payload = 0;
    EXPECT_EQ(CQMsg(7).code, 7);
    EXPECT_EQ(CQMsg(7).data, nullptr);
    EXPECT_EQ(CQMsg(-1, &payload).code, -1);
    EXPECT_EQ(CQMsg(-1, &payload).data, &payload);
}

// ---- from the constructor to the consumer

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

TEST_F(Messagequeue, AQueueWithoutASourceClosesItsPipe) {
    CMessageQueue alone(&consumer, nullptr);
    ASSERT_EQ(alone.init(), 0);
    ASSERT_EQ(alone.send(CQMsg(4)), 0);
    alone.onReadable();
    EXPECT_EQ(consumer.codes, std::vector<int>{4});
}

// ---- more messages than the pipe has room for

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

// ---- lock() and unlock()

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

// ---- the end of a queue

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

}  // namespace
