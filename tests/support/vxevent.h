// SPDX-License-Identifier: MIT
// What the tests of events share: the event manager's FIFO, publishers and subscribers.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/vxevent.h>
#include <zmq.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/process.h"
#include "support/syslog_capture.h"

namespace vxtest::vxevents {

inline const std::string fifoPath = "/tmp/status/event-manager/throw";
inline const std::string endpoint = "tcp://127.0.0.1:47011";

class Vxevent : public testing::Test {
protected:
    Vxevent() {
        ::unlink(fifoPath.c_str());
        makeDirs("/tmp/status/event-manager");
    }
    ~Vxevent() override {
        if (fifo >= 0) ::close(fifo);
        ::unlink(fifoPath.c_str());
        EXPECT_EQ(log.take(), std::vector<LogLine>{});  // nothing here ever logs
    }
    void makeFifo() {
        ASSERT_EQ(::mkfifo(fifoPath.c_str(), 0600), 0);
        fifo = ::open(fifoPath.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        ASSERT_NE(fifo, -1);
    }
    // Everything in the FIFO, as bytes.
    std::string drain() const {
        std::string all;
        std::array<char, 65536> piece;
        for (;;) {
            const ssize_t got = ::read(fifo, piece.data(), piece.size());
            if (got <= 0) return all;
            all.append(piece.data(), static_cast<size_t>(got));
        }
    }
    // Fills the FIFO with whole records; how many fit depends on how the kernel packs them. Returns their bytes.
    size_t fill() const {
        size_t sent = 0;
        while (::write(fifo, bytes(0, 0, "filler").data(), 136) == 136) sent += 136;
        EXPECT_GE(sent, static_cast<size_t>(::fcntl(fifo, F_GETPIPE_SZ)) / 2);
        return sent;
    }
    static std::string bytes(uint32_t id, uint32_t param, const std::string &text) {
        std::string record;
        record.append(reinterpret_cast<const char *>(&id), 4);
        record.append(reinterpret_cast<const char *>(&param), 4);
        record.append(text);
        record.resize(136, '\0');
        return record;
    }

    SyslogCapture log;
    int fifo = -1;
};

// ---- ZeroMQ

inline vxevent_record recordOf(uint32_t id, uint32_t param, const std::string &text) {
    vxevent_record record{};
    record.id = id;
    record.param = param;
    text.copy(record.text, sizeof record.text - 1);
    return record;
}

class Legacy : public testing::Test {
protected:
    ~Legacy() override {
        for (void *socket : sockets) zmq_close(socket);
        zmq_ctx_term(context);
    }
    void *keep(void *socket) {
        if (socket != nullptr) {
            sockets.push_back(socket);
            const int timeout = 20000;
            zmq_setsockopt(socket, ZMQ_RCVTIMEO, &timeout, sizeof timeout);
        }
        return socket;
    }
    // Dispatches probes until the sink has one: only then the connection is made.
    static void connect(void *source, const std::vector<void *> &sinks) {
        const vxevent_record probe = recordOf(0xfeed, 0, "probe");
        for (void *sink : sinks) {
            std::array<char, 256> got;
            ASSERT_TRUE(eventually([&] {
                EXPECT_EQ(dispatch_legacy_event(source, &probe), 0);
                return zmq_recv(sink, got.data(), got.size(), ZMQ_DONTWAIT) == 136;
            }));
        }
    }
    // The next event that is not a probe.
    static std::string receive(void *sink) {
        for (;;) {
            std::array<char, 256> got;
            const int size = zmq_recv(sink, got.data(), got.size(), 0);
            if (size < 0) return "nothing";
            vxevent_record record;
            if (size != 136) return "size " + std::to_string(size);
            std::memcpy(&record, got.data(), sizeof record);
            if (record.id != 0xfeed) return std::string(got.data(), 136);
        }
    }
    static std::string asBytes(const vxevent_record &record) {
        return {reinterpret_cast<const char *>(&record), sizeof record};
    }

    SyslogCapture log;
    void *context = zmq_ctx_new();
    std::vector<void *> sockets;
};

}  // namespace vxtest::vxevents
