// SPDX-License-Identifier: MIT
#include <vxutils/wwanmd.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <memory>
#include <string_view>
#include <thread>

#include "support/files.h"
#include "support/interruptions.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/short_memory.h"
#include "support/syslog_capture.h"

namespace {

// Looks for the reset marker that see it as it is; the next one makes it. Negative: none makes it.
int looksBeforeReset = -1;

void makeMarkerInTime(std::string_view path) {
    if (looksBeforeReset < 0 || !path.ends_with("/reset")) return;
    if (looksBeforeReset-- == 0) vxtest::writeFile(std::string(path), "");
}

}  // namespace

// Replaces the C library's for this program, so that a card's reset can begin between two given looks.
extern "C" int access(const char *path, int mode) noexcept {
    makeMarkerInTime(path);
    return ::faccessat(AT_FDCWD, path, mode, 0);
}

namespace {
// This thread's waits and its receives fail with EPIPE: what no local stream socket does.
thread_local bool waitsBreak = false;
thread_local bool receivesBreak = false;
}  // namespace

namespace {
// This thread cannot take locks of the POSIX library.
thread_local bool locksFail = false;
}  // namespace

extern "C" int pthread_mutex_lock(pthread_mutex_t *mutex) noexcept {
    if (locksFail) return EAGAIN;
    static const auto next = reinterpret_cast<int (*)(pthread_mutex_t *)>(::dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    return next(mutex);
}

extern "C" int poll(pollfd *waiting, nfds_t count, int timeout) {
    if (waitsBreak) {
        errno = EPIPE;
        return -1;
    }
    return static_cast<int>(::syscall(SYS_poll, waiting, count, timeout));
}

extern "C" ssize_t recv(int fd, void *data, size_t size, int flags) {
    if (receivesBreak) {
        errno = EPIPE;
        return -1;
    }
    return ::syscall(SYS_recvfrom, fd, data, size, flags, nullptr, nullptr);
}

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::StartsWith;
using vxtest::LogLine;

static_assert(sizeof(wwanmd_handle::last_io.tv_sec) == 8);

struct Event {
    long long us;
    std::string text;
};

// The daemon's stand-in, another process.
class Modem {
public:
    explicit Modem(int card = 0) : process_({vxtest::built("gateway/wwanmd"), std::to_string(card)}) {
        if (process_.readLine() != "ready") throw std::runtime_error("wwanmd is not ready");
    }

    void tell(const std::string &line) {
        process_.send(line + "\n");
        for (;;) {
            const std::string answer = process_.readLine();
            if (answer == "done") return;
            events_.push_back(parse(answer));
        }
    }

    // What happened since the last call.
    std::vector<Event> events() {
        tell("sync");
        return std::exchange(events_, {});
    }

    // The same, times left out.
    std::vector<std::string> happened() {
        std::vector<std::string> texts;
        for (const Event &event : events()) texts.push_back(event.text);
        return texts;
    }

    void die() {
        process_.send("die\n");
        process_.wait();
    }

private:
    static Event parse(const std::string &line) {
        const size_t blank = line.find(' ');
        return {std::stoll(line.substr(0, blank)), line.substr(blank + 1)};
    }

    vxtest::Process process_;
    std::vector<Event> events_;
};

struct FreeHandle {
    void operator()(wwanmd_handle *handle) const { wwanmd_free(handle); }
};
using Handle = std::unique_ptr<wwanmd_handle, FreeHandle>;

struct Message : wwanmd_msg {
    explicit Message(const std::string &command = "", int seconds = 0) : wwanmd_msg{} {
        std::memcpy(data, command.data(), command.size());
        len = static_cast<int>(command.size());
        timeout = seconds;
    }
    std::string text() const { return len < 0 ? "(none)" : std::string(data, static_cast<size_t>(len)); }
};

class Wwanmd : public testing::Test {
protected:
    ~Wwanmd() override { ::closelog(); }

    Handle connect() {
        Handle handle(wwanmd_init(0, "tester"));
        modem.events();
        log.take();
        return handle;
    }

    // Without the pause between commands, which has its own test.
    static int command(const Handle &handle, Message &message) {
        handle->last_io = {};
        return wwanmd_command(handle.get(), &message);
    }

    static void waitReadable(const Handle &handle) {
        pollfd waiting{handle->fd, POLLIN, 0};
        ASSERT_EQ(::poll(&waiting, 1, 15000), 1);
    }

    std::vector<std::string> logTexts() {
        std::vector<std::string> texts;
        for (const LogLine &line : log.take()) {
            EXPECT_EQ(line.priority, LOG_DEBUG) << line;
            texts.push_back(line.text);
        }
        return texts;
    }

    vxtest::SyslogCapture log;
    Modem modem;
};

// The log line of a busy daemon after a wait that began with that many seconds and needed less than one.
auto busyWithin(int seconds) {
    const std::string start = "wwanmd0 is busy, remaining timeout is ";
    return testing::AnyOf(StartsWith(start + std::to_string(seconds - 1) + "."),
                          start + std::to_string(seconds) + ".0s");
}

class Stopwatch {
public:
    auto elapsed() const { return std::chrono::steady_clock::now() - start_; }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

TEST_F(Wwanmd, NumbersOfNoCardAreRefusedEverywhere) {
    wwanmd_handle handle{};
    handle.fd = -1;
    Message message("x");
    for (const int card : {-1, 6, 7, 9, 16, 1000}) {
        const LogLine refusal{LOG_ERR, "invalid wwan card " + std::to_string(card)};
        handle.card = card;
        EXPECT_EQ(wwanmd_init(card, "tester"), nullptr);
        EXPECT_EQ(wwanmd_in_reset(card), -1);
        EXPECT_EQ(wwanmd_is_suspended(card), -1);
        EXPECT_EQ(wwanmd_open(&handle), -1);
        EXPECT_EQ(wwanmd_command(&handle, &message), -1);
        EXPECT_EQ(wwanmd_send(&handle, &message), -1);
        EXPECT_EQ(wwanmd_recv(&handle, &message), -1);
        EXPECT_EQ(log.take(), std::vector<LogLine>(7, refusal));
    }
    EXPECT_EQ(message.text(), "x");
}

TEST_F(Wwanmd, BothRangesOfCardsAreServed) {
    for (const int card : {0, 5, 10, 15}) {
        Modem own(card);
        const Handle handle(wwanmd_init(card, "tester"));
        ASSERT_NE(handle, nullptr) << card;
        EXPECT_EQ(handle->card, card);
        EXPECT_THAT(own.happened(), ElementsAre("connected", "command init tester"));
    }
}

TEST_F(Wwanmd, NullIsTakenAsDocumented) {
    wwanmd_handle handle{};
    Message message;
    wwanmd_free(nullptr);
    wwanmd_close(nullptr);
    EXPECT_EQ(wwanmd_open(nullptr), -1);
    EXPECT_EQ(wwanmd_command(nullptr, &message), -1);
    EXPECT_EQ(wwanmd_command(&handle, nullptr), -1);
    EXPECT_EQ(wwanmd_send(nullptr, &message), -1);
    EXPECT_EQ(wwanmd_send(&handle, nullptr), -1);
    EXPECT_EQ(wwanmd_recv(nullptr, &message), -1);
    EXPECT_EQ(wwanmd_recv(&handle, nullptr), -1);
    EXPECT_TRUE(log.take().empty());
}

TEST_F(Wwanmd, ApplicationNamesHaveOneToFifteenCharacters) {
    for (const char *name : {static_cast<const char *>(nullptr), "", "abcdefghijklmnop"}) {
        EXPECT_EQ(wwanmd_init(0, name), nullptr);
        EXPECT_THAT(logTexts(), ElementsAre("invalid app name for wwanmd connection"));
    }
    const Handle handle(wwanmd_init(0, "abcdefghijklmno"));
    ASSERT_NE(handle, nullptr);
    EXPECT_STREQ(handle->app, "abcdefghijklmno");
    EXPECT_THAT(modem.happened(), ElementsAre("connected", "command init abcdefghijklmno"));
}

TEST_F(Wwanmd, TheSystemLogKeepsTheNameThoughTheCallersTextIsGone) {
    std::array<char, 16> name{};
    std::strcpy(name.data(), "first");
    const Handle first(wwanmd_init(0, name.data()));
    std::strcpy(name.data(), "second");
    const Handle second(wwanmd_init(0, name.data()));
    name.fill('#');
    ASSERT_TRUE(first && second);
    ::syslog(LOG_INFO, "hello");
    const auto raw = log.takeRaw();
    ASSERT_FALSE(raw.empty());
    EXPECT_NE(raw.back().find(" second[" + std::to_string(::getpid()) + "]: hello"), std::string::npos) << raw.back();
    EXPECT_EQ(raw.back().substr(0, 4), "<" + std::to_string(LOG_USER | LOG_INFO) + ">");
}

TEST_F(Wwanmd, WithoutMemoryThereIsNoHandle) {
    ::syslog(LOG_DEBUG, "opens the log's own socket");
    log.take();
    const vxtest::NoLeaks leaks;
    vxtest::objectsRunOut = true;  // for the copy of the name
    const wwanmd_handle *handle = wwanmd_init(0, "memoryless");
    vxtest::objectsRunOut = false;
    EXPECT_EQ(handle, nullptr);
    EXPECT_THAT(logTexts(), ElementsAre("no mem for wwanmd connection"));
    EXPECT_TRUE(modem.happened().empty());
}

TEST_F(Wwanmd, WithoutMemoryForTheRecordThereIsNoHandleEither) {
    connect();  // the name is kept from now on
    modem.events();
    log.take();
    const vxtest::NoLeaks leaks;
    vxtest::scarceRecord = sizeof(wwanmd_handle);
    const wwanmd_handle *handle = wwanmd_init(0, "tester");
    vxtest::scarceRecord = 0;
    EXPECT_EQ(handle, nullptr);
    EXPECT_THAT(logTexts(), ElementsAre("no mem for wwanmd connection"));
    EXPECT_TRUE(modem.happened().empty());
    EXPECT_NE(connect(), nullptr);
}

TEST_F(Wwanmd, ConnectsWhereLocksFail) {
    locksFail = true;
    const Handle handle(wwanmd_init(0, "lockless"));
    locksFail = false;
    ASSERT_NE(handle, nullptr);
    EXPECT_THAT(modem.happened(), ElementsAre("connected", "command init lockless"));
}

TEST_F(Wwanmd, ManyThreadsConnectAtOnceUnderTheSameAndOtherNames) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([i] {
            for (int round = 0; round < 10; ++round) {
                const std::string name = "app " + std::to_string(i % 2) + " " + std::to_string(round);
                const Handle handle(wwanmd_init(0, name.c_str()));
                ASSERT_NE(handle, nullptr);
                EXPECT_EQ(handle->app, name);
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
}

TEST_F(Wwanmd, WithoutADaemonThereIsNoHandle) {
    EXPECT_EQ(wwanmd_init(1, "tester"), nullptr);
    EXPECT_THAT(logTexts(), ElementsAre("can't bind to wwanmd1 (No such file or directory)"));
    modem.die();
    EXPECT_EQ(wwanmd_init(0, "tester"), nullptr);
    EXPECT_THAT(logTexts(), ElementsAre("can't bind to wwanmd0 (Connection refused)"));
}

TEST_F(Wwanmd, AnAttemptToConnectStartsTheCountsAnewWhateverItComesTo) {
    wwanmd_handle handle{};
    handle.card = 1;
    handle.fd = -1;
    handle.failures = 3;
    handle.busy_count = 16;
    EXPECT_EQ(wwanmd_open(&handle), -1);
    EXPECT_EQ(handle.failures, 0);
    EXPECT_EQ(handle.busy_count, 0);
    EXPECT_NE(handle.last_io.tv_sec + handle.last_io.tv_nsec, 0);
}

TEST_F(Wwanmd, TheSystemLogIsConnectedToAtOnce) {
    ::closelog();
    const size_t before = vxtest::openDescriptors().size();
    const Handle handle(wwanmd_init(0, "tester"));
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(vxtest::openDescriptors().size(), before + 2);  // the daemon's and the log's
}

TEST_F(Wwanmd, ASocketThatCannotBeMadeIsReported) {
    rlimit old{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
    wwanmd_handle handle{};
    handle.fd = -1;
    ::syslog(LOG_DEBUG, "opens the log's own socket");
    log.take();
    const int next = ::dup(0);
    ::close(next);
    const rlimit none{static_cast<rlim_t>(next), old.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const int result = wwanmd_open(&handle);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &old), 0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(handle.fd, -1);
    EXPECT_THAT(logTexts(), ElementsAre("can't open socket to wwanmd0 (Too many open files)"));
}

TEST_F(Wwanmd, AnOkYieldsTheTextAfterIt) {
    const Handle handle = connect();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->flags, 1);
    modem.tell("ok abc");
    Message message("signal");
    EXPECT_EQ(wwanmd_command(handle.get(), &message), 0);
    EXPECT_EQ(message.text(), "abc");
    EXPECT_EQ(message.data[3], '\0');
    EXPECT_THAT(modem.happened(), ElementsAre("command signal"));
    EXPECT_TRUE(log.take().empty());
}

TEST_F(Wwanmd, AnErrorYieldsItsTextAndFails) {
    const Handle handle = connect();
    modem.tell("error xyz");
    Message message("signal");
    EXPECT_EQ(command(handle, message), -1);
    EXPECT_EQ(message.text(), "xyz");
    EXPECT_EQ(handle->failures, 1);
    EXPECT_THAT(logTexts(), ElementsAre("receiving from wwanmd0 failed (1 failures)", "command failed"));
}

TEST_F(Wwanmd, ErrorsAloneNeverReconnectAsEverySendStartsTheCountAnew) {
    const Handle handle = connect();
    modem.tell("error");
    for (int i = 0; i < 8; ++i) {
        Message message("signal");
        EXPECT_EQ(command(handle, message), -1);
        EXPECT_EQ(handle->failures, 1);
    }
    EXPECT_EQ(modem.happened(), std::vector<std::string>(8, "command signal"));
}

TEST_F(Wwanmd, ShortAnswersAreJudgedByTheirLength) {
    const Handle handle = connect();
    struct Case {
        const char *answer;
        int result;
        const char *text;
    };
    for (const Case &one : {Case{"OK", 0, ""}, Case{"ERROR", -1, ""}, Case{"ERRORx", -1, "x"}, Case{"OKO", 0, "O"}}) {
        modem.tell(std::string("raw ") + one.answer);
        Message message("c");
        EXPECT_EQ(command(handle, message), one.result) << one.answer;
        EXPECT_EQ(message.text(), one.text) << one.answer;
    }
    log.take();
    for (const char *answer : {"O", "E", "BU", "BUS", "NOPE", "ERRO", "ok", "hello"}) {
        modem.tell(std::string("raw ") + answer);
        Message message("c");
        EXPECT_EQ(command(handle, message), -1) << answer;
        EXPECT_EQ(message.text(), "(none)") << answer;
        EXPECT_EQ(message.data[0], '\0') << answer;
        EXPECT_THAT(logTexts(), ElementsAre("invalid response received from wwanmd0",
                                            "receiving from wwanmd0 failed (1 failures)", "command failed"));
    }
}

TEST_F(Wwanmd, ANewlineIsAppendedOnlyWhereThereIsNone) {
    const Handle handle = connect();
    Message without("one");
    EXPECT_EQ(command(handle, without), 0);
    Message with("two\n");
    EXPECT_EQ(command(handle, with), 0);
    Message third("three");
    EXPECT_EQ(command(handle, third), 0);
    EXPECT_THAT(modem.happened(), ElementsAre("command one", "command two", "command three"));
}

TEST_F(Wwanmd, CommandsEndAt8190Bytes) {
    const Handle handle = connect();
    for (const int length : {8189, 8190}) {
        Message longest(std::string(static_cast<size_t>(length), 'a'));
        EXPECT_EQ(command(handle, longest), 0);
    }
    EXPECT_THAT(modem.happened(),
                ElementsAre("command " + std::string(8189, 'a'), "command " + std::string(8190, 'a')));
    for (const int length : {8191, 8192, 100000}) {
        Message tooLong(std::string(8192, 'a'));
        tooLong.len = length;
        EXPECT_EQ(command(handle, tooLong), -1);
        EXPECT_EQ(tooLong.len, length);
        EXPECT_THAT(logTexts(), ElementsAre("buffer length exceeded"));
    }
    EXPECT_TRUE(modem.happened().empty());
}

TEST_F(Wwanmd, ACommandOfNoLengthIsANewlineAlone) {
    const Handle handle = connect();
    for (const int length : {0, -1, -100000}) {
        struct {
            std::array<char, 64> before;
            Message message;
        } guarded{{}, Message("stale text")};
        guarded.before.fill('g');
        guarded.message.len = length;
        EXPECT_EQ(command(handle, guarded.message), 0);
        EXPECT_EQ(std::string(guarded.before.data(), 64), std::string(64, 'g'));
    }
    EXPECT_THAT(modem.happened(), ElementsAre("command ", "command ", "command "));
}

TEST_F(Wwanmd, AnswersMayHoldAnyBytes) {
    const Handle handle = connect();
    modem.tell("raw OK\\x00\\x01\\xff\\x0a\\x00z");
    Message message("dump");
    EXPECT_EQ(command(handle, message), 0);
    EXPECT_EQ(message.text(), std::string("\0\x01\xff\n\0z", 6));
    modem.tell("raw ERROR\\x00\\x00");
    Message failing("dump");
    EXPECT_EQ(command(handle, failing), -1);
    EXPECT_EQ(failing.text(), std::string("\0\0", 2));
}

TEST_F(Wwanmd, AnswersFillTheReceiveTo8191Bytes) {
    const Handle handle = connect();
    for (const int size : {8190, 8191}) {
        modem.tell("fill " + std::to_string(size));
        Message message("dump");
        EXPECT_EQ(command(handle, message), 0);
        EXPECT_EQ(message.text(), std::string(static_cast<size_t>(size) - 2, 'x'));
        EXPECT_EQ(message.data[message.len], '\0');
    }
    EXPECT_TRUE(log.take().empty());
}

TEST_F(Wwanmd, WhatIsBeyondOneReceiveIsStale) {
    const Handle handle = connect();
    modem.tell("fill 8192");
    Message message("dump");
    EXPECT_EQ(command(handle, message), 0);
    EXPECT_EQ(message.len, 8189);
    modem.tell("ok");
    Message next("next");
    EXPECT_EQ(command(handle, next), 0);
    EXPECT_EQ(next.text(), "");
    EXPECT_THAT(logTexts(), ElementsAre("flushed 1 bytes from wwanmd0 before sending"));
}

TEST_F(Wwanmd, AnAnswerInPiecesIsItsFirstPiece) {
    const Handle handle = connect();
    modem.tell("ok abcdef");
    modem.tell("pieces 4");
    Message message("dump");
    EXPECT_EQ(command(handle, message), 0);
    EXPECT_EQ(message.text(), "ab");
    waitReadable(handle);
    modem.tell("normal");
    Message next("next");
    EXPECT_EQ(command(handle, next), 0);
    EXPECT_EQ(next.text(), "\n");
    EXPECT_THAT(logTexts(), ElementsAre("flushed 4 bytes from wwanmd0 before sending"));
}

TEST_F(Wwanmd, StaleAnswersAreThrownAwayBeforeTheNextCommand) {
    const Handle handle = connect();
    modem.tell("stale OKold news");
    waitReadable(handle);
    modem.tell("ok fresh");
    Message message("news");
    EXPECT_EQ(command(handle, message), 0);
    EXPECT_EQ(message.text(), "fresh");
    EXPECT_THAT(logTexts(), ElementsAre("flushed 10 bytes from wwanmd0 before sending"));
}

TEST_F(Wwanmd, OneReceiveIsThrownAwayAndNoMore) {
    const Handle handle = connect();
    modem.tell("stale " + std::string(8191, 'x') + "OKrest");
    waitReadable(handle);
    Message message("news");
    EXPECT_EQ(command(handle, message), 0);
    EXPECT_THAT(message.text(), StartsWith("rest"));
    EXPECT_THAT(logTexts(), ElementsAre("flushed 8191 bytes from wwanmd0 before sending"));
}

TEST_F(Wwanmd, CommandsAreAtLeast300MillisecondsApartOnTheWire) {
    const Handle handle(wwanmd_init(0, "tester"));
    ASSERT_NE(handle, nullptr);
    // When each send was over at the latest, by the client's own stamp, beside when the next arrived at the earliest.
    std::vector<long long> sent;
    const auto stamp = [&] { sent.push_back(handle->last_io.tv_sec * 1000000LL + handle->last_io.tv_nsec / 1000); };
    stamp();
    for (int i = 0; i < 3; ++i) {
        Message message("c");
        EXPECT_EQ(wwanmd_command(handle.get(), &message), 0);
        stamp();
    }
    // The handshake of a reconnection waits for nothing older than the reconnection, and the next command for it.
    EXPECT_EQ(wwanmd_open(handle.get()), 0);
    stamp();
    Message last("last");
    EXPECT_EQ(wwanmd_command(handle.get(), &last), 0);

    std::vector<long long> arrived;
    for (const Event &event : modem.events()) {
        if (event.text.rfind("command", 0) == 0) arrived.push_back(event.us);
    }
    ASSERT_EQ(arrived.size(), 6U);
    for (size_t i = 1; i < arrived.size(); ++i) EXPECT_GE(arrived[i] - sent[i - 1], 300000) << i;
}

TEST_F(Wwanmd, NoPauseIsMadeWhenTheLastCommandIsLongAgo) {
    const Handle handle = connect();
    timespec before{};
    ::clock_gettime(CLOCK_MONOTONIC, &before);
    handle->last_io = {};
    Message message("c");
    EXPECT_EQ(wwanmd_command(handle.get(), &message), 0);
    EXPECT_TRUE(handle->last_io.tv_sec > before.tv_sec ||
                (handle->last_io.tv_sec == before.tv_sec && handle->last_io.tv_nsec >= before.tv_nsec));
}

TEST_F(Wwanmd, TheHandshakeOfAReconnectionWaitsForItsPauseToo) {
    const Handle handle = connect();
    handle->last_io = {};
    const Stopwatch watch;
    EXPECT_EQ(wwanmd_open(handle.get()), 0);
    EXPECT_GE(watch.elapsed(), milliseconds(300));
}

TEST_F(Wwanmd, ASilentDaemonIsWaitedForAtLeastFiveSeconds) {
    const Handle handle = connect();
    modem.tell("silent");
    for (const int timeout : {0, -3, 4}) {
        const Stopwatch watch;
        Message message("signal", timeout);
        EXPECT_EQ(command(handle, message), -1);
        EXPECT_GE(watch.elapsed(), milliseconds(5000));
        EXPECT_EQ(message.text(), "(none)");
        EXPECT_THAT(logTexts(), ElementsAre("recv from wwanmd0 timed out", "receiving from wwanmd0 failed (1 failures)",
                                            "command failed"));
    }
}

TEST_F(Wwanmd, ALongerTimeoutIsWaitedFor) {
    const Handle handle = connect();
    modem.tell("late 6000");
    modem.tell("ok at last");
    Message message("signal", 8);
    EXPECT_EQ(command(handle, message), 0);
    EXPECT_EQ(message.text(), "at last");
    modem.tell("late 60000");
    const Stopwatch watch;
    Message tooLate("signal", 6);
    EXPECT_EQ(command(handle, tooLate), -1);
    EXPECT_GE(watch.elapsed(), milliseconds(6000));
}

TEST_F(Wwanmd, TimeoutsAreCutTo5And300Seconds) {
    const Handle handle = connect();
    modem.tell("busy 1");
    for (const auto &[timeout, seconds] : {std::pair{0, 5}, {5, 5}, {6, 6}, {300, 300}, {301, 300}, {1000, 300}}) {
        Message message("signal", timeout);
        EXPECT_EQ(command(handle, message), 0);
        EXPECT_THAT(logTexts(), ElementsAre(busyWithin(seconds)));
    }
}

TEST_F(Wwanmd, BusyAnswersAreWaitedOut) {
    const Handle handle = connect();
    modem.tell("busy 20");
    modem.tell("ok done");
    handle->busy_count = 3;
    Message message("scan");
    EXPECT_EQ(command(handle, message), 0);
    EXPECT_EQ(message.text(), "done");
    EXPECT_EQ(handle->busy_count, 0);
    EXPECT_EQ(logTexts().size(), 20U);
}

TEST_F(Wwanmd, AfterTwentyOneBusyAnswersTheCommandEnds) {
    const Handle handle = connect();
    modem.tell("busy 21  dialling");
    modem.tell("raw");
    Message message("scan");
    EXPECT_EQ(command(handle, message), -1);
    EXPECT_EQ(message.text(), " dialling");
    EXPECT_EQ(handle->busy_count, 1);
    EXPECT_EQ(handle->failures, 0);
    const auto lines = logTexts();
    ASSERT_EQ(lines.size(), 23U);
    for (size_t i = 0; i < 21; ++i) EXPECT_THAT(lines[i], busyWithin(5));
    EXPECT_EQ(lines[21], "wwanmd0 is busy");
    EXPECT_EQ(lines[22], "command failed");
}

TEST_F(Wwanmd, TheSeventeenthBusyCommandInARowReconnects) {
    const Handle handle = connect();
    modem.tell("busy 21");
    modem.tell("raw");
    for (int i = 1; i <= 16; ++i) {
        Message message("scan");
        EXPECT_EQ(command(handle, message), -1);
        EXPECT_EQ(handle->busy_count, i);
    }
    EXPECT_EQ(modem.happened(), std::vector<std::string>(16, "command scan"));
    Message message("scan");
    EXPECT_EQ(command(handle, message), -1);
    EXPECT_EQ(handle->busy_count, 0);
    EXPECT_NE(handle->fd, -1);
    EXPECT_THAT(modem.happened(),
                testing::UnorderedElementsAre("command scan", "closed", "connected", "command init tester"));
    modem.tell("normal");
    Message next("signal");
    EXPECT_EQ(command(handle, next), 0);
}

TEST_F(Wwanmd, OneBudgetCoversAllPassesOfOneReceive) {
    const Handle handle = connect();
    // "BUSY" at once, and the answer when less than one second is left of five.
    modem.tell("busyfor 4300");
    modem.tell("raw BUSYstill");
    Message message("scan");
    EXPECT_EQ(command(handle, message), -1);
    EXPECT_EQ(message.text(), "still");
    EXPECT_THAT(logTexts(), ElementsAre(busyWithin(5), StartsWith("wwanmd0 is busy, remaining timeout is 0."),
                                        "wwanmd0 is busy", "command failed"));
    EXPECT_EQ(handle->busy_count, 1);

    // "BUSY" at once and nothing more: the wait ends as a failure, when the rest of the budget is used up.
    modem.tell("busyfor 60000");
    const Stopwatch watch;
    Message forgotten("scan");
    EXPECT_EQ(command(handle, forgotten), -1);
    EXPECT_GE(watch.elapsed(), milliseconds(5000));
    EXPECT_EQ(forgotten.text(), "(none)");
    EXPECT_EQ(handle->failures, 1);
}

TEST_F(Wwanmd, AfterATimeoutTheNextCommandIsSentOnANewConnection) {
    const Handle handle = connect();
    modem.tell("echo");
    modem.tell("times 5800");
    Message first("first");
    EXPECT_EQ(command(handle, first), -1);
    EXPECT_EQ(handle->failures, 1);
    EXPECT_THAT(modem.happened(), ElementsAre("command first"));
    modem.tell("times 2000");
    Message second("second");
    EXPECT_EQ(command(handle, second), 0);
    EXPECT_EQ(second.text(), " second");
    EXPECT_EQ(handle->flags, 1);
    EXPECT_THAT(modem.happened(),
                testing::UnorderedElementsAre("closed", "connected", "command init tester", "command second"));
    Message third("third");
    EXPECT_EQ(command(handle, third), 0);
    EXPECT_EQ(third.text(), " third");
    EXPECT_THAT(modem.happened(), ElementsAre("command third"));
}

TEST_F(Wwanmd, WhatCameTooLateIsReportedAndTheConnectionIsNewAllTheSame) {
    const Handle handle = connect();
    modem.tell("echo");
    modem.tell("times 5500,7500");
    Message first("first");
    EXPECT_EQ(command(handle, first), -1);
    waitReadable(handle);
    modem.tell("times 3000");
    log.take();
    Message second("second");
    EXPECT_EQ(command(handle, second), 0);
    EXPECT_EQ(second.text(), " second");
    EXPECT_THAT(logTexts(), ElementsAre("flushed 8 bytes from wwanmd0 before sending"));
}

TEST_F(Wwanmd, AnotherReceiveGoesOnWaitingForAnAnswerThatTimedOut) {
    const Handle handle = connect();
    modem.tell("echo");
    modem.tell("times 7000");
    Message first("first");
    EXPECT_EQ(command(handle, first), -1);
    Message again;
    EXPECT_EQ(wwanmd_recv(handle.get(), &again), 0);
    EXPECT_EQ(again.text(), " first");
}

TEST_F(Wwanmd, ABusyCommandWhoseTimeIsUpIsCountedAndFollowedByANewConnection) {
    const Handle handle = connect();
    modem.tell("on scan = BUSY");
    modem.tell("times 4500,6000");
    handle->busy_count = 3;
    Message scan("scan");
    EXPECT_EQ(command(handle, scan), -1);
    EXPECT_EQ(handle->busy_count, 4);
    modem.happened();
    modem.tell("times 1000");
    Message again("scan");
    EXPECT_EQ(command(handle, again), -1);  // BUSY once, then nothing
    EXPECT_EQ(handle->busy_count, 4) << "kept by the new connection";
    EXPECT_EQ(handle->failures, 1);
    EXPECT_THAT(modem.happened(), testing::IsSupersetOf({"closed", "connected", "command init tester"}));
}

TEST_F(Wwanmd, AConnectionThatCannotBeRenewedFailsTheCommandAndTheNextOneTriesAgain) {
    const Handle handle = connect();
    modem.tell("silent");
    Message message("signal");
    EXPECT_EQ(command(handle, message), -1);
    modem.tell("handshake error");
    log.take();
    EXPECT_EQ(command(handle, message), -1);
    EXPECT_EQ(handle->fd, -1);
    EXPECT_EQ(handle->flags, 1);
    EXPECT_NE(handle->last_io.tv_sec, 0);
    EXPECT_THAT(logTexts(), ElementsAre("receiving from wwanmd0 failed (1 failures)", "command failed",
                                        "cannot initialize wwanmd0 (Success)"));
    modem.tell("normal");
    EXPECT_EQ(command(handle, message), 0);
}

TEST_F(Wwanmd, AResetThatBeginsAfterATimeoutIsSeenByTheNextSend) {
    const Handle handle = connect();
    modem.tell("silent");
    Message message("signal");
    EXPECT_EQ(command(handle, message), -1);
    modem.tell("reset on");
    EXPECT_EQ(wwanmd_send(handle.get(), &message), -11);
    EXPECT_EQ(handle->fd, -1);
    modem.tell("reset off");
}

// Many processes give commands whose answers come at all times and in all orders.
class WwanmdLate : public Wwanmd, public testing::WithParamInterface<const char *> {
protected:
    static constexpr int processes = 32;
    static constexpr int rounds = 5;
    static constexpr int wrong = 99;

    // Number of commands that were answered, unless one got the answer to another.
    static int giveCommands(int process) {
        const Handle handle(wwanmd_init(0, "tester"));
        if (handle == nullptr) return 0;
        int answered = 0;
        for (int round = 0; round < rounds; ++round) {
            const std::string text = "command " + std::to_string(process) + " " + std::to_string(round);
            Message message(text, 5 + process % 6);
            if (wwanmd_command(handle.get(), &message) != 0) continue;
            if (message.text() != " " + text) return wrong;
            ++answered;
        }
        return answered;
    }
};

TEST_P(WwanmdLate, AnswersAreNeverTakenForThoseToLaterCommands) {
    modem.tell("echo");
    modem.tell(std::string("times ") + GetParam());
    std::vector<pid_t> children;
    for (int i = 0; i < processes; ++i) children.push_back(vxtest::startChild([i] { return giveCommands(i); }));
    int answered = 0;
    for (const pid_t child : children) {
        const int result = vxtest::waitChild(child);
        ASSERT_LE(result, rounds);
        answered += result;
    }
    EXPECT_GT(answered, 0);
    EXPECT_LT(answered, processes * rounds);
}

INSTANTIATE_TEST_SUITE_P(Delays, WwanmdLate,
                         testing::Values("9000 11000 0 16000 9500 25000 12000 40000 4000",           // once each
                                         "11000,11000 9000 14000,40000 12000,25000 4500",            // late ones twice
                                         "10500 9000 10200 9500 19500 9400 29000 9300 3000 7000"));  // in another order

TEST_F(Wwanmd, FourFailedReceivesReconnect) {
    const Handle handle = connect();
    for (int i = 1; i <= 3; ++i) {
        modem.tell("stale nonsense");
        Message message;
        EXPECT_EQ(wwanmd_recv(handle.get(), &message), -1);
        EXPECT_EQ(handle->failures, i);
    }
    EXPECT_TRUE(modem.happened().empty());
    modem.tell("stale nonsense");
    log.take();
    Message message;
    EXPECT_EQ(wwanmd_recv(handle.get(), &message), -1);
    EXPECT_EQ(handle->failures, 0);
    EXPECT_THAT(logTexts(),
                ElementsAre("invalid response received from wwanmd0", "receiving from wwanmd0 failed (4 failures)"));
    EXPECT_THAT(modem.happened(), testing::UnorderedElementsAre("closed", "connected", "command init tester"));
}

TEST_F(Wwanmd, AnOkForgetsEarlierFailures) {
    const Handle handle = connect();
    handle->failures = 3;
    handle->busy_count = 16;
    modem.tell("stale OK");
    Message message;
    EXPECT_EQ(wwanmd_recv(handle.get(), &message), 0);
    EXPECT_EQ(handle->failures, 0);
    EXPECT_EQ(handle->busy_count, 0);
}

TEST_F(Wwanmd, AStalledDaemonIsReconnectedToAtOnce) {
    const Handle handle = connect();
    modem.tell("hangup");
    Message message("signal");
    EXPECT_EQ(command(handle, message), -1);
    EXPECT_THAT(logTexts(), ElementsAre("could not send 7 bytes to wwanmd0 (Broken pipe)", "faced stalled wwanmd0",
                                        "sending to wwanmd0 failed (4 failures)"));
    EXPECT_EQ(handle->failures, 0);
    EXPECT_THAT(modem.happened(), ElementsAre("closed", "connected", "command init tester"));
    Message next("signal");
    EXPECT_EQ(command(handle, next), 0);
}

TEST_F(Wwanmd, ABrokenPipeWhileWaitingToSendIsAStalledDaemon) {
    const Handle handle = connect();
    Message message("signal");
    handle->last_io = {};
    waitsBreak = true;
    const int result = wwanmd_send(handle.get(), &message);
    waitsBreak = false;
    EXPECT_EQ(result, -1);
    const auto lines = logTexts();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0], "faced stalled wwanmd0");
    EXPECT_EQ(lines[1], "sending to wwanmd0 failed (4 failures)");
    EXPECT_THAT(modem.happened(), testing::IsSupersetOf({"closed", "connected"}));  // at once
}

TEST_F(Wwanmd, ABrokenPipeWhileReceivingIsAStalledDaemon) {
    const Handle handle = connect();
    modem.tell("stale OK");
    waitReadable(handle);
    Message message;
    receivesBreak = true;
    const int result = wwanmd_recv(handle.get(), &message);
    receivesBreak = false;
    EXPECT_EQ(result, -1);
    const auto lines = logTexts();
    ASSERT_GE(lines.size(), 3U);
    EXPECT_EQ(lines[0], "couldn't read from wwanmd0 (Broken pipe)");
    EXPECT_EQ(lines[1], "faced stalled wwanmd0");
    EXPECT_EQ(lines[2], "receiving from wwanmd0 failed (4 failures)");
    EXPECT_THAT(modem.happened(), testing::IsSupersetOf({"closed", "connected"}));
}

TEST_F(Wwanmd, ADaemonThatHangsUpInsteadOfAnsweringCountsAsOneFailure) {
    const Handle handle = connect();
    modem.tell("silent");
    EXPECT_EQ(wwanmd_send(handle.get(), std::make_unique<Message>("signal").get()), 0);
    modem.tell("hangup");
    Message message;
    EXPECT_EQ(wwanmd_recv(handle.get(), &message), -1);
    EXPECT_EQ(handle->failures, 1);
    EXPECT_THAT(logTexts(),
                ElementsAre("couldn't read from wwanmd0 (Success)", "receiving from wwanmd0 failed (1 failures)"));
}

TEST_F(Wwanmd, ALeftoverErrnoIsNotTakenForAStalledDaemon) {
    const Handle handle = connect();
    modem.tell("silent");
    Message message("signal");
    errno = EPIPE;
    EXPECT_EQ(command(handle, message), -1);
    EXPECT_EQ(handle->failures, 1);
    EXPECT_THAT(logTexts(), ElementsAre("recv from wwanmd0 timed out", "receiving from wwanmd0 failed (1 failures)",
                                        "command failed"));
}

TEST_F(Wwanmd, ADaemonThatReadsNothingMakesSendingTimeOut) {
    const Handle handle = connect();
    modem.tell("clog");
    const Message filler(std::string(8190, 'f'));
    while (handle->failures == 0) {
        handle->last_io = {};
        Message message = filler;
        errno = EPIPE;
        const Stopwatch watch;
        if (wwanmd_send(handle.get(), &message) == 0) continue;
        EXPECT_GE(watch.elapsed(), milliseconds(5000));
    }
    EXPECT_EQ(handle->failures, 1);
    EXPECT_NE(handle->last_io.tv_sec, 0);  // an attempt is one even where it failed
    EXPECT_THAT(logTexts(), ElementsAre("sending to wwanmd0 timed out", "cannot send command to wwanmd0",
                                        "sending to wwanmd0 failed (1 failures)"));
}

TEST_F(Wwanmd, ACommandTheSocketTakesOnlyInPartHasFailed) {
    const Handle handle = connect();
    modem.tell("clog");
    const int smallest = 1;
    ASSERT_EQ(::setsockopt(handle->fd, SOL_SOCKET, SO_SNDBUF, &smallest, sizeof smallest), 0);
    Message message(std::string(8190, 'f'));
    EXPECT_EQ(command(handle, message), -1);
    EXPECT_THAT(logTexts(), ElementsAre("could not send 8191 bytes to wwanmd0 (Success)",
                                        "sending to wwanmd0 failed (1 failures)"));
}

TEST_F(Wwanmd, ADaemonThatAcceptsAndClosesAtOnceEndsEachCallAndIsRecoveredFrom) {
    const Handle handle = connect();
    modem.tell("drop");
    modem.tell("hangup");
    modem.events();
    const Stopwatch watch;
    for (int i = 0; i < 2; ++i) {
        Message message("signal");
        EXPECT_EQ(command(handle, message), -1);
        EXPECT_EQ(handle->fd, -1);
        // One attempt to connect in each call, no more.
        EXPECT_THAT(modem.happened(), ElementsAre("connected", "closed"));
    }
    EXPECT_LT(watch.elapsed(), std::chrono::seconds(20));
    EXPECT_EQ(wwanmd_open(handle.get()), -1);
    modem.tell("normal");
    Message message("signal");
    EXPECT_EQ(command(handle, message), 0);
}

TEST_F(Wwanmd, AHandshakeAnsweredWithErrorFailsTheConnection) {
    modem.tell("handshake error");
    EXPECT_EQ(wwanmd_init(0, "tester"), nullptr);
    EXPECT_THAT(logTexts(), ElementsAre("receiving from wwanmd0 failed (1 failures)", "command failed",
                                        "cannot initialize wwanmd0 (Success)"));
    EXPECT_THAT(modem.happened(), ElementsAre("connected", "command init tester", "closed"));
}

TEST_F(Wwanmd, AHandshakeThatIsNeverAnsweredEndsAfterFiveSeconds) {
    const Handle handle = connect();
    modem.tell("handshake silent");
    const Stopwatch watch;
    EXPECT_EQ(wwanmd_open(handle.get()), -1);
    EXPECT_GE(watch.elapsed(), milliseconds(5000));
    EXPECT_EQ(handle->fd, -1);
    EXPECT_EQ(handle->flags, 1);
    EXPECT_THAT(logTexts(), ElementsAre("recv from wwanmd0 timed out", "receiving from wwanmd0 failed (1 failures)",
                                        "command failed", "cannot initialize wwanmd0 (Success)"));
    EXPECT_THAT(modem.happened(),
                testing::UnorderedElementsAre("closed", "connected", "command init tester", "closed"));
    modem.tell("handshake ok");
    Message message("signal");
    EXPECT_EQ(command(handle, message), 0);
}

TEST_F(Wwanmd, AHandshakeAnsweredWithBusyAloneEndsToo) {
    modem.tell("handshake busy");
    wwanmd_handle handle{};
    handle.fd = -1;
    EXPECT_EQ(wwanmd_open(&handle), -1);
    EXPECT_EQ(handle.fd, -1);
    EXPECT_EQ(handle.flags, 0);
}

TEST_F(Wwanmd, AFullQueueOfConnectionsIsWaitedForFiveSeconds) {
    const Handle handle = connect();
    modem.tell("deaf");
    const Stopwatch watch;
    EXPECT_EQ(wwanmd_open(handle.get()), -1);
    EXPECT_GE(watch.elapsed(), milliseconds(5000));
    EXPECT_THAT(logTexts(), ElementsAre("can't bind to wwanmd0 (Resource temporarily unavailable)"));
    modem.tell("normal");
    EXPECT_EQ(wwanmd_open(handle.get()), 0);
}

TEST_F(Wwanmd, SignalsNeitherCutNorStretchTheWaits) {
    modem.tell("handshake silent");
    const vxtest::Interruptions interruptions(20000);
    const Stopwatch watch;
    wwanmd_handle handle{};
    handle.fd = -1;
    EXPECT_EQ(wwanmd_open(&handle), -1);
    EXPECT_GE(watch.elapsed(), milliseconds(5000));
    modem.tell("normal");
    EXPECT_EQ(wwanmd_open(&handle), 0);
    modem.tell("deaf");
    const Stopwatch again;
    EXPECT_EQ(wwanmd_open(&handle), -1);
    EXPECT_GE(again.elapsed(), milliseconds(5000));
    modem.tell("reset on");
    const Stopwatch reset;
    EXPECT_EQ(wwanmd_in_reset(0), 1);
    EXPECT_GE(reset.elapsed(), milliseconds(5000));
}

TEST_F(Wwanmd, ACardInResetIsNeverConnectedTo) {
    const Handle handle = connect();
    modem.tell("reset on");
    Message message("signal");
    handle->failures = 2;
    EXPECT_EQ(wwanmd_open(handle.get()), -11);
    EXPECT_EQ(handle->fd, -1);
    EXPECT_EQ(handle->failures, 2);  // no attempt was made
    EXPECT_THAT(logTexts(), ElementsAre("wwanmd0 is currently in reset"));
    EXPECT_EQ(wwanmd_command(handle.get(), &message), -1);
    EXPECT_EQ(wwanmd_send(handle.get(), &message), -1);
    EXPECT_EQ(wwanmd_recv(handle.get(), &message), -1);
    EXPECT_EQ(wwanmd_init(0, "tester"), nullptr);
    EXPECT_EQ(logTexts(), std::vector<std::string>(4, "wwanmd0 is currently in reset"));
    EXPECT_THAT(modem.happened(), ElementsAre("closed"));
    modem.tell("reset off");
    EXPECT_EQ(command(handle, message), 0);
}

TEST_F(Wwanmd, AResetThatBeginsBetweenSendAndReceiveIsSeen) {
    const Handle handle = connect();
    Message message("signal");
    looksBeforeReset = 1;  // the look before sending
    const int result = wwanmd_command(handle.get(), &message);
    ::unlink("/tmp/status/wwanmd/card0/reset");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(handle->fd, -1);
    EXPECT_THAT(logTexts(), ElementsAre("wwanmd0 is currently in reset", "command failed"));
    ::signal(SIGPIPE, SIG_DFL);  // left ignored, as by any receive that ends early
}

TEST_F(Wwanmd, AResetClosesAnOpenConnection) {
    for (const bool sending : {true, false}) {
        const Handle handle = connect();
        modem.tell("reset on");
        Message message("signal");
        EXPECT_EQ((sending ? wwanmd_send : wwanmd_recv)(handle.get(), &message), -11);
        EXPECT_EQ(handle->fd, -1);
        EXPECT_THAT(logTexts(), ElementsAre("wwanmd0 is currently in reset"));
        modem.tell("reset off");
    }
}

TEST_F(Wwanmd, AResetMarkerMustStayForFiveSeconds) {
    EXPECT_EQ(wwanmd_in_reset(0), 0);
    modem.tell("reset on");
    const Stopwatch whole;
    errno = E2BIG;
    EXPECT_EQ(wwanmd_in_reset(0), 1);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_GE(whole.elapsed(), milliseconds(5000));
    EXPECT_EQ(wwanmd_in_reset(1), 0);

    std::thread later([&] {
        std::this_thread::sleep_for(milliseconds(1500));
        modem.tell("reset off");
    });
    const Stopwatch part;
    EXPECT_EQ(wwanmd_in_reset(0), 0);
    EXPECT_GE(part.elapsed(), milliseconds(3000));  // the check that finds it gone, and one more second
    later.join();
}

TEST_F(Wwanmd, ASuspendedCardIsSeenByItsMarker) {
    EXPECT_EQ(wwanmd_is_suspended(0), 0);
    modem.tell("suspend on");
    EXPECT_EQ(wwanmd_is_suspended(0), 1);
    EXPECT_EQ(wwanmd_is_suspended(10), 0);
    modem.tell("suspend off");
    errno = E2BIG;
    EXPECT_EQ(wwanmd_is_suspended(0), 0);
    EXPECT_EQ(errno, E2BIG);
}

TEST_F(Wwanmd, AMarkerThatTheCallerMayNotReadIsNone) {
    modem.tell("suspend on");
    modem.tell("reset on");
    const std::string directory = "/tmp/status/wwanmd/card0/";
    const auto asUser = [](int (*probe)(int)) {
        return vxtest::inChild([&] { return ::setuid(65534) == 0 ? probe(0) : 99; });
    };
    for (const char *marker : {"suspended", "reset"}) ASSERT_EQ(::chmod((directory + marker).c_str(), 0644), 0);
    EXPECT_EQ(asUser(wwanmd_is_suspended), 1);
    EXPECT_EQ(asUser(wwanmd_in_reset), 1);
    for (const char *marker : {"suspended", "reset"}) ASSERT_EQ(::chmod((directory + marker).c_str(), 0600), 0);
    EXPECT_EQ(asUser(wwanmd_is_suspended), 0);
    EXPECT_EQ(asUser(wwanmd_in_reset), 0);
    modem.tell("reset off");
}

TEST_F(Wwanmd, BrokenPipesHaveTheirDefaultActionAfterwards) {
    const auto disposition = [] {
        struct sigaction action {};
        ::sigaction(SIGPIPE, nullptr, &action);
        return action.sa_handler;
    };
    const Handle handle = connect();
    for (const char *manner : {"ok", "error", "raw nonsense", "hangup"}) {
        ::signal(SIGPIPE, [](int) {});
        modem.tell(manner);
        Message message("c");
        command(handle, message);
        EXPECT_EQ(disposition(), SIG_DFL) << manner;
    }
    modem.tell("normal");
    EXPECT_EQ(wwanmd_open(handle.get()), 0);
    EXPECT_EQ(disposition(), SIG_DFL);
    for (auto *step : {wwanmd_send, wwanmd_recv}) {
        ::signal(SIGPIPE, [](int) {});
        Message message("c");
        EXPECT_EQ(step(handle.get(), &message), 0);
        EXPECT_EQ(disposition(), SIG_DFL);
    }
    // Where a receive ends before it reaches the socket, the signal stays ignored.
    modem.tell("reset on");
    Message message;
    EXPECT_EQ(wwanmd_recv(handle.get(), &message), -11);
    EXPECT_EQ(disposition(), SIG_IGN);
    modem.tell("reset off");
    ::signal(SIGPIPE, SIG_DFL);
    modem.die();
    EXPECT_EQ(wwanmd_recv(handle.get(), &message), -1);
    EXPECT_EQ(disposition(), SIG_IGN);
    ::signal(SIGPIPE, SIG_DFL);
}

TEST_F(Wwanmd, AClosedHandleConnectsAnewWithTheNextCall) {
    const Handle handle = connect();
    wwanmd_close(handle.get());
    wwanmd_close(handle.get());
    EXPECT_EQ(handle->fd, -1);
    Message message("one");
    EXPECT_EQ(command(handle, message), 0);
    wwanmd_close(handle.get());
    Message alone("two");
    EXPECT_EQ(wwanmd_send(handle.get(), &alone), 0);
    EXPECT_EQ(wwanmd_recv(handle.get(), &alone), 0);
    EXPECT_EQ(handle->flags, 1);
}

TEST_F(Wwanmd, AFailedReconnectionLeavesTheTimeOfTheAttempt) {
    const Handle handle = connect();
    wwanmd_close(handle.get());
    modem.die();
    handle->last_io = {};
    Message message("c");
    EXPECT_EQ(wwanmd_send(handle.get(), &message), -1);
    EXPECT_NE(handle->last_io.tv_sec + handle->last_io.tv_nsec, 0);
}

TEST_F(Wwanmd, DescriptorsBeyond1024Work) {
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_cur < 2000) {
        limit.rlim_cur = 2000;
        if (limit.rlim_max < 2000) limit.rlim_max = 2000;
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    std::vector<int> occupied;
    while (occupied.empty() || occupied.back() < 1100) occupied.push_back(::dup(0));
    const Handle handle(wwanmd_init(0, "tester"));
    ASSERT_NE(handle, nullptr) << testing::PrintToString(log.take());
    EXPECT_GT(handle->fd, 1100);
    Message message("c");
    EXPECT_EQ(command(handle, message), 0);
    for (const int fd : occupied) ::close(fd);
}

TEST_F(Wwanmd, NothingIsLeftOpen) {
    ::syslog(LOG_DEBUG, "opens the log's own socket");
    const vxtest::NoLeaks leaks;
    for (int i = 0; i < 3; ++i) {
        const Handle handle(wwanmd_init(0, "tester"));
        ASSERT_NE(handle, nullptr);
        EXPECT_NE(::fcntl(handle->fd, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_NE(::fcntl(handle->fd, F_GETFL) & O_NONBLOCK, 0);
        Message message("c");
        EXPECT_EQ(command(handle, message), 0);
        EXPECT_EQ(wwanmd_open(handle.get()), 0);
        modem.tell("hangup");
        EXPECT_EQ(command(handle, message), -1);
    }
    modem.tell("handshake error");
    EXPECT_EQ(wwanmd_init(0, "tester"), nullptr);
}

TEST_F(Wwanmd, TheExampleAsksOneQuestion) {
    const std::string example = vxtest::built("examples/wwanmd_signal");
    modem.tell("on signal = OK -71 dBm\\n");
    EXPECT_EQ(vxtest::run({example, "0"}).text, "card 0: signal: -71 dBm\n");
    modem.tell("error  no such thing\\n");
    EXPECT_EQ(vxtest::run({example, "0", "dance"}).text, "card 0: dance: refused: no such thing\n");
    modem.tell("suspend on");
    EXPECT_EQ(vxtest::run({example, "0"}).text, "card 0 is suspended\n");
    EXPECT_EQ(vxtest::run({example, "1"}).text, "card 1: no modem daemon\n");
    EXPECT_EQ(vxtest::run({example}).status, 2);
}

TEST_F(Wwanmd, TheStandInAnswersSingleCommandsTheirOwnWay) {
    const Handle handle = connect();
    modem.tell("on signal = OK -71 dBm");
    Message signal("signal");
    EXPECT_EQ(command(handle, signal), 0);
    EXPECT_EQ(signal.text(), " -71 dBm");
    Message other("other");
    EXPECT_EQ(command(handle, other), 0);
    EXPECT_EQ(other.text(), "\n");
    EXPECT_EQ(vxtest::run({vxtest::built("gateway/wwanmd"), "--help"}).status, 0);
}

}  // namespace
