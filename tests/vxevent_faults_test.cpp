// SPDX-License-Identifier: MIT
// Events where the FIFO, ZeroMQ or the system refuses a step, and what becomes of the record.
#include <vxutils/vxevent.h>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zmq.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <optional>
#include <string>

#include "support/call_hooks.h"
#include "support/descriptor_limit.h"
#include "support/files.h"
#include "support/interruptions.h"
#include "support/process.h"
#include "support/vxevent.h"
#include "support/watched_memory.h"

VXTEST_HOOK(int, close, (int fd), (fd))
VXTEST_HOOK_AS(int, fstat, "__fstat64_time64", (int fd, struct stat *status), (fd, status))
VXTEST_THREAD_HOOK(int, poll, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout))
VXTEST_THREAD_HOOK(ssize_t, write, (int fd, const void *data, size_t size), (fd, data, size))
VXTEST_HOOK(int, zmq_msg_close, (zmq_msg_t * message), (message))
VXTEST_HOOK(int, zmq_msg_send, (zmq_msg_t * message, void *socket, int flags), (message, socket, flags))
VXTEST_HOOK(int, zmq_setsockopt, (void *socket, int option, const void *value, size_t size),
            (socket, option, value, size))
VXTEST_HOOK(int, zmq_msg_init_data, (zmq_msg_t * message, void *data, size_t size, zmq_free_fn *function, void *hint),
            (message, data, size, function, hint))

namespace {

using namespace vxtest::vxevents;

namespace hooks = vxtest::hooks;
namespace memory = vxtest::memory;

using vxtest::failingWith;
using vxtest::Hooked;

using VxeventFaults = Vxevent;
using LegacyFaults = Legacy;

// ---- the FIFO

TEST_F(VxeventFaults, ADirectoryInItsPlaceFails) {
    vxtest::makeDirs(fifoPath);
    EXPECT_EQ(vxevent(1, 2, "x"), -1);
    ::rmdir(fifoPath.c_str());
}

TEST_F(VxeventFaults, WithoutADescriptorItFails) {
    makeFifo();
    const vxtest::DescriptorLimit none(0);
    EXPECT_EQ(vxevent(1, 2, "x"), -1);
    EXPECT_EQ(errno, EMFILE);
}

TEST_F(VxeventFaults, AFifoThatStaysFullFailsAfterASecondWhateverTheSignals) {
    makeFifo();
    const size_t before = fill();
    const vxtest::Interruptions interruptions(20000);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(vxevent(9, 9, "late"), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(drain().size(), before) << "no half record";
    EXPECT_EQ(vxevent(9, 9, "later"), 0);
    EXPECT_EQ(drain(), bytes(9, 9, "later"));
}

TEST_F(VxeventFaults, TheErrorIsThatOfTheFirstFailureAndNotOfClosing) {
    makeFifo();
    const Hooked fstat(hooks::fstat, vxtest::answering(-1, ENOMEM));
    int closed = 0;
    const Hooked close(hooks::close, [&](int fd) -> std::optional<int> {
        ++closed;
        vxtest::real::close(fd);
        errno = EIO;
        return -1;
    });
    EXPECT_EQ(vxevent(1, 2, "x"), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(closed, 1);
}

TEST_F(VxeventFaults, AStepThatTheSystemRefusesFailsAtOnceWithItsError) {
    makeFifo();
    {
        const Hooked fstat(hooks::fstat, vxtest::answering(-1, EIO));
        EXPECT_EQ(vxevent(1, 2, "x"), -1);
        EXPECT_EQ(errno, EIO);
    }
    int writes = 0;
    int error = EIO;
    const Hooked write(hooks::write, [&](const auto &...) -> std::optional<ssize_t> {
        ++writes;
        errno = error;
        return -1;
    });
    EXPECT_EQ(vxevent(1, 2, "x"), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(writes, 1) << "only a full FIFO is waited for";

    error = EAGAIN;
    const Hooked poll(hooks::poll, [](pollfd *room, nfds_t count, int timeout) -> std::optional<int> {
        EXPECT_EQ(count, 1U);
        EXPECT_EQ(room->events, POLLOUT);
        EXPECT_GT(timeout, 0);
        EXPECT_LE(timeout, 1000);
        errno = ENOMEM;
        return -1;
    });
    EXPECT_EQ(vxevent(1, 2, "x"), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(writes, 2);
}

TEST_F(VxeventFaults, ARecordThatIsNotWrittenWholeFails) {
    makeFifo();
    int writes = 0;
    const Hooked write(hooks::write, [&](const auto &...) -> std::optional<ssize_t> {
        ++writes;
        errno = 0;
        return sizeof(vxevent_record) - 1;
    });
    EXPECT_EQ(vxevent(1, 2, "x"), -1);
    EXPECT_EQ(writes, 1);
}

TEST_F(VxeventFaults, OnlyAFifoIsWrittenTo) {
    const std::string secret = "/tmp/secret";
    vxtest::writeFile(secret, std::string(200, 's'));
    ASSERT_EQ(::link(secret.c_str(), fifoPath.c_str()), 0);
    EXPECT_EQ(vxevent(1, 2, "x"), -1);
    EXPECT_EQ(errno, EINVAL);
    ::unlink(fifoPath.c_str());
    ASSERT_EQ(::mkdir(fifoPath.c_str(), 0755), 0);
    EXPECT_EQ(vxevent(1, 2, "x"), -1);
    EXPECT_EQ(errno, EISDIR);
    ::rmdir(fifoPath.c_str());
    ASSERT_EQ(::mknod(fifoPath.c_str(), S_IFSOCK | 0666, 0), 0);
    EXPECT_EQ(vxevent(1, 2, "x"), -1);
    EXPECT_EQ(errno, ENXIO);
    ::unlink(fifoPath.c_str());
    for (const std::string &target : {secret, std::string("/tmp/other-fifo"), std::string("/tmp/none")}) {
        ASSERT_EQ(::symlink(target.c_str(), fifoPath.c_str()), 0);
        ::mkfifo("/tmp/other-fifo", 0600);
        EXPECT_EQ(vxevent(1, 2, "x"), -1) << target;
        EXPECT_EQ(errno, ELOOP) << target;
        ::unlink(fifoPath.c_str());
    }
    EXPECT_EQ(vxtest::readFile(secret), std::string(200, 's'));
    EXPECT_FALSE(vxtest::exists("/tmp/none"));
    ::unlink("/tmp/other-fifo");
}

// ---- ZeroMQ

TEST_F(LegacyFaults, WrongContextsAndEndpointsGiveNoSocket) {
    EXPECT_EQ(create_legacy_source(nullptr), nullptr);
    EXPECT_EQ(register_legacy_sink(nullptr), nullptr);
    for (const char *wrong : {"", "nonsense", "tcp://", "nosuch://x"}) {
        EXPECT_EQ(create_legacy_source_with_addr(context, wrong), nullptr) << wrong;
        EXPECT_EQ(register_legacy_sink_with_addr(context, wrong), nullptr) << wrong;
    }
    EXPECT_EQ(create_legacy_source_with_addr(context, nullptr), nullptr);
    EXPECT_EQ(register_legacy_sink_with_addr(context, nullptr), nullptr);
}

TEST_F(LegacyFaults, WithoutASubscriptionThereIsNoSink) {
    void *const other = zmq_ctx_new();
    {
        const Hooked refused(hooks::zmq_setsockopt, [](void *, int option, const void *, size_t) -> std::optional<int> {
            if (option != ZMQ_SUBSCRIBE) return std::nullopt;
            errno = EINVAL;
            return -1;
        });
        EXPECT_EQ(register_legacy_sink(other), nullptr);
    }
    zmq_ctx_term(other);  // would hang if a socket had been left
}

TEST_F(LegacyFaults, WhatCannotBeSentFails) {
    const vxevent_record record = recordOf(1, 2, "x");
    EXPECT_EQ(dispatch_legacy_event(nullptr, &record), -1);
    void *const sink = keep(register_legacy_sink(context));
    EXPECT_EQ(dispatch_legacy_event(sink, &record), -1);  // subscribers do not send
    EXPECT_EQ(errno, ENOTSUP);
    {
        const Hooked close(hooks::zmq_msg_close, [](zmq_msg_t *) -> std::optional<int> {
            errno = EFAULT;
            return std::nullopt;
        });
        EXPECT_EQ(dispatch_legacy_event(sink, &record), -1);
        EXPECT_EQ(errno, ENOTSUP) << "the reason, not what cleaning up said";
    }
    void *const source = keep(create_legacy_source(context));
    EXPECT_EQ(dispatch_legacy_event(source, nullptr), -1);
}

// ---- the memory of one record

std::atomic<int> releases = 0;   // called by ZeroMQ
zmq_free_fn *release = nullptr;  // the library's own

void countRelease(void *data, void *hint) {
    ++releases;
    release(data, hint);
}

// Watches what becomes of one record. The sockets are made beforehand: what ZeroMQ itself allocates is not meant.
class LegacyMemory : public Legacy {
protected:
    LegacyMemory() {
        source = keep(create_legacy_source(context));
        sink = keep(register_legacy_sink(context));
        connect(source, {sink});
        releases = 0;
        hooks::zmq_msg_init_data = [](zmq_msg_t *message, void *data, size_t size, zmq_free_fn *function,
                                      void *hint) -> std::optional<int> {
            release = function;
            return vxtest::real::zmq_msg_init_data(message, data, size, countRelease, hint);
        };
        memory::watch(sizeof(vxevent_record));
    }
    ~LegacyMemory() override {
        memory::stop();
        hooks::zmq_msg_init_data = nullptr;
    }
    LegacyMemory(const LegacyMemory &) = delete;
    LegacyMemory &operator=(const LegacyMemory &) = delete;

    // Where memory is not watched there is nothing to compare.
    static void expectFreedOnce() {
#ifdef VXTEST_MEMORY_IS_WATCHED
        EXPECT_EQ(memory::allocations, 1);
        EXPECT_EQ(memory::frees, 1);
#endif
    }

    void *source;
    void *sink;
    vxevent_record event = recordOf(11, 12, "watched");
};

TEST_F(LegacyMemory, ASentRecordIsFreedOnceByWhoeverIsDoneWithItLast) {
    EXPECT_EQ(dispatch_legacy_event(source, &event), 0);
    EXPECT_EQ(receive(sink), asBytes(event));
    EXPECT_TRUE(vxtest::eventually([] { return releases == 1; }));
    for (void *socket : sockets) zmq_close(socket);
    sockets.clear();
    zmq_ctx_term(context);  // waits for the threads that could still free something
    context = zmq_ctx_new();
    EXPECT_EQ(releases, 1);
    expectFreedOnce();
}

TEST_F(LegacyMemory, ARecordWithoutSubscribersIsFreedOnce) {
    for (void *socket : sockets) zmq_close(socket);
    sockets.clear();
    void *other = zmq_ctx_new();
    void *const lonely = create_legacy_source_with_addr(other, "tcp://127.0.0.1:47013");
    ASSERT_NE(lonely, nullptr);
    EXPECT_EQ(dispatch_legacy_event(lonely, &event), 0);
    zmq_close(lonely);
    zmq_ctx_term(other);
    EXPECT_EQ(releases, 1);
}

TEST_F(LegacyMemory, ARecordThatCannotBeSentIsFreedOnce) {
    EXPECT_EQ(dispatch_legacy_event(sink, &event), -1);  // subscribers do not send
    EXPECT_EQ(errno, ENOTSUP);
    EXPECT_EQ(releases, 1);
    expectFreedOnce();
}

TEST_F(LegacyMemory, ARecordThatIsNotSentWholeIsFreedOnce) {
    const Hooked cut(hooks::zmq_msg_send, [](zmq_msg_t *, void *, int flags) -> std::optional<int> {
        EXPECT_EQ(flags, 0);
        return sizeof(vxevent_record) - 1;
    });
    EXPECT_EQ(dispatch_legacy_event(source, &event), -1);
    EXPECT_EQ(releases, 1);
    expectFreedOnce();
}

TEST_F(LegacyMemory, WithoutAMessageTheRecordIsFreedOnce) {
    {
        const Hooked refused(hooks::zmq_msg_init_data, failingWith(ENOMEM));
        EXPECT_EQ(dispatch_legacy_event(source, &event), -1);
        EXPECT_EQ(errno, ENOMEM);
    }
    EXPECT_EQ(releases, 0);
    expectFreedOnce();
    EXPECT_EQ(dispatch_legacy_event(source, &event), 0);
    EXPECT_EQ(receive(sink), asBytes(event));
}

TEST_F(LegacyMemory, WithoutMemoryNothingIsSent) {
#ifndef VXTEST_MEMORY_IS_WATCHED
    GTEST_SKIP() << "malloc() cannot be watched under the thread sanitizer";
#endif
    memory::refused = true;
    const int result = dispatch_legacy_event(source, &event);
    memory::refused = false;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(releases, 0);
    const vxevent_record next = recordOf(13, 14, "next");
    EXPECT_EQ(dispatch_legacy_event(source, &next), 0);
    EXPECT_EQ(receive(sink), asBytes(next));  // nothing came before it
}

}  // namespace
