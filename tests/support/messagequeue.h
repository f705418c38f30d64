// SPDX-License-Identifier: MIT
// What the tests of the message queue share: a consumer that keeps what it gets, a queue on a loop. To be included by one
// source file of a test program.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <syslog.h>
#include <vxutils/messagequeue.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/error_level.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace vxtest::messagequeue {

using Lines = std::vector<LogLine>;

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
        before_ = openDescriptors();
        loop = std::make_unique<CEPollEventsource>();
        if (loop->init() != 0) ADD_FAILURE() << "no loop";
        queue = std::make_unique<CMessageQueue>(&consumer, loop.get());
    }
    ~Messagequeue() override {
        queue.reset();
        loop.reset();
        EXPECT_EQ(openDescriptors(), before_);
        EXPECT_EQ(log.take(), Lines{});
        ::closelog();
    }
    int bytesInPipe() const {
        int bytes = -1;
        EXPECT_EQ(::ioctl(queue->getFd(), FIONREAD, &bytes), 0);
        return bytes;
    }

    SyslogCapture log;
    std::vector<std::string> before_;
    Consumer consumer;
    std::unique_ptr<CEPollEventsource> loop;
    std::unique_ptr<CMessageQueue> queue;
};

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

}  // namespace vxtest::messagequeue
