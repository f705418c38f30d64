// SPDX-License-Identifier: MIT
// The configuration daemon's client against the virtual gateway's daemon, a process of its own.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/configd.h>
#include <vxutils/strutil.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <memory>
#include <thread>

#include "support/configd.h"
#include "support/descriptor_limit.h"
#include "support/files.h"
#include "support/interruptions.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

namespace {

bool memoryIsShort = false;

}  // namespace

// Replaces the library's own, from which its handles and entries come.
void *zalloc(size_t size) { return memoryIsShort ? nullptr : std::calloc(size, 1); }

// What the library hands to the kernel, and a kernel that takes less than all of it, as no datagram socket does.
namespace {

socklen_t boundLength = 0;
struct {
    socklen_t addressLength = 0;
    int flags = -1;
    bool cut = false;
} sending;

}  // namespace

// Replaces what was bound to a name: what a stranger may do where he can write to the socket directory.
void (*afterBind)(const char *path) = nullptr;

extern "C" int bind(int fd, const sockaddr *address, socklen_t length) noexcept {
    boundLength = length;
    const auto result = static_cast<int>(::syscall(SYS_bind, fd, address, length));
    if (afterBind != nullptr) afterBind(reinterpret_cast<const sockaddr_un *>(address)->sun_path);
    return result;
}
extern "C" ssize_t sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t length) {
    sending.addressLength = length;
    sending.flags = flags;
    if (sending.cut) return static_cast<ssize_t>(size) - 1;
    return ::syscall(SYS_sendto, fd, data, size, flags, to, length);
}

// A daemon that sends faster than the library receives: its queue is never seen empty.
namespace {

std::atomic<bool> answersWithoutEnd = false;

}  // namespace

extern "C" ssize_t recvfrom(int fd, void *data, size_t size, int flags, sockaddr *from, socklen_t *length) {
    if (answersWithoutEnd && (flags & MSG_DONTWAIT) != 0) return 1;
    return ::syscall(SYS_recvfrom, fd, data, size, flags, from, length);
}

namespace {

using namespace std::chrono_literals;
using vxtest::Configd;
using vxtest::LogLine;
using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;
using Log = std::vector<LogLine>;

constexpr const char *directory = "/var/run/configd";
constexpr const char *daemonSocket = "/var/run/configd/daemon.sock";

static_assert(CONFIGD_KEY_LEN == 256 && CONFIGD_VALUE_LEN == 1024 && CONFIGD_MAX_QUERIES == 512 &&
              CONFIGD_MSG_LEN == 16384);

using Handle = std::unique_ptr<configd_handle, decltype(&configd_close)>;
Handle openHandle() { return Handle(configd_open(), &configd_close); }

// A caller's array: the pairs and the record that ends it.
std::vector<configd_entry> entries(const std::vector<std::pair<std::string, std::string>> &pairs) {
    std::vector<configd_entry> array(pairs.size() + 1);
    std::memset(array.data(), 0, array.size() * sizeof(configd_entry));
    for (size_t i = 0; i < pairs.size(); ++i) {
        std::memcpy(array[i].key, pairs[i].first.data(), pairs[i].first.size());
        std::memcpy(array[i].value, pairs[i].second.data(), pairs[i].second.size());
    }
    return array;
}

std::string value(configd_handle *handle, const std::string &key) {
    auto array = entries({{key, "untouched"}});
    return configd_get(handle, array.data()) == 0 ? array[0].value : "failed: " + std::string(array[0].value);
}

ino_t inode(const std::string &path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_ino;
}

std::string clientPath(const configd_handle *handle) {
    char path[256];
    std::snprintf(path, sizeof path, "%s/client.%d.%p", directory, ::getpid(), static_cast<const void *>(handle));
    return path;
}

void expectConnected(const configd_handle *handle) {
    EXPECT_GE(handle->fd, 0);
    EXPECT_EQ(handle->server_path, std::string(daemonSocket));
    EXPECT_EQ(handle->client_path, clientPath(handle));
    EXPECT_TRUE(std::filesystem::is_socket(handle->client_path));
}

void expectClosed(const configd_handle *handle) {
    EXPECT_EQ(handle->fd, -1);
    EXPECT_STREQ(handle->server_path, "");
    EXPECT_STREQ(handle->client_path, "");
    EXPECT_FALSE(vxtest::exists(clientPath(handle)));
}

// Fills the queue of the daemon's socket. Call it while the daemon does not read.
void fillQueue() {
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, daemonSocket);
    while (::sendto(fd, "?x\n", 4, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&address), sizeof address) == 4) continue;
    EXPECT_EQ(errno, EAGAIN);
    ::close(fd);
}

class ConfigdTest : public testing::Test {
protected:
    void SetUp() override { std::filesystem::remove_all("/var/lib/configd"); }
    Configd daemon;
    vxtest::SyslogCapture log;
};

using ConfigdOpen = ConfigdTest;
using ConfigdGet = ConfigdTest;
using ConfigdSet = ConfigdTest;
using ConfigdDone = ConfigdTest;
using ConfigdFetch = ConfigdTest;
using ConfigdTransport = ConfigdTest;
using ConfigdExample = ConfigdTest;

TEST_F(ConfigdOpen, BindsADatagramSocketNamedByProcessAndHandleThatEveryoneMayUse) {
    const vxtest::NoLeaks leaks;
    const Handle handle = openHandle();
    ASSERT_NE(handle, nullptr);
    expectConnected(handle.get());
    EXPECT_EQ(handle->count, 0);
    EXPECT_EQ(handle->fetched, 0);
    EXPECT_EQ(handle->queries.next, &handle->queries);
    EXPECT_EQ(handle->queries.prev, &handle->queries);
    struct stat status {};
    ASSERT_EQ(::stat(handle->client_path, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0777u);
    int type = 0;
    socklen_t size = sizeof type;
    ASSERT_EQ(::getsockopt(handle->fd, SOL_SOCKET, SO_TYPE, &type, &size), 0);
    EXPECT_EQ(type, SOCK_DGRAM);
    EXPECT_EQ(::fcntl(handle->fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdOpen, TheSocketIsGoneAfterClose) {
    const vxtest::NoLeaks leaks;
    Handle handle = openHandle();
    const std::string path = handle->client_path;
    handle.reset();
    EXPECT_FALSE(vxtest::exists(path));
}

TEST_F(ConfigdOpen, HandlesOfOneProcessDoNotMeet) {
    daemon.tell("set a 1");
    const Handle one = openHandle();
    const Handle two = openHandle();
    EXPECT_STRNE(one->client_path, two->client_path);
    EXPECT_EQ(value(one.get(), "a"), "1");
    EXPECT_EQ(value(two.get(), "a"), "1");
}

TEST_F(ConfigdOpen, WorksWithoutARunningDaemon) {
    daemon.die();
    EXPECT_NE(openHandle(), nullptr);
}

TEST_F(ConfigdOpen, FailsWhereTheDirectoryIsMissing) {
    const vxtest::NoLeaks leaks;
    std::filesystem::remove_all(directory);
    EXPECT_EQ(configd_open(), nullptr);
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "cannot bind to configd"}}));
}

TEST_F(ConfigdOpen, FailsWithoutADescriptor) {
    EXPECT_EQ(vxtest::inChild([] {
                  ::syslog(LOG_INFO, "connect to the log first");
                  const rlimit none{3, 3};
                  while (::dup(0) >= 0) continue;
                  ::setrlimit(RLIMIT_NOFILE, &none);
                  return configd_open() == nullptr ? 0 : 1;
              }),
              0);
    EXPECT_EQ(log.take(), (Log{{LOG_INFO, "connect to the log first"}, {LOG_ERR, "cannot open socket to configd"}}));
}

TEST_F(ConfigdOpen, FailsWithoutMemory) {
    EXPECT_EQ(vxtest::inChild([] {
                  memoryIsShort = true;
                  return configd_open() == nullptr ? 0 : 1;
              }),
              0);
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "no mem for configd connection"}}));
}

TEST_F(ConfigdOpen, ReplacesTheFileThatAnEarlierProcessLeft) {
    configd_handle handle{};
    handle.fd = -1;
    vxtest::writeFile(clientPath(&handle), "left over");
    ASSERT_EQ(__configd_open(&handle), 0);
    expectConnected(&handle);
    __configd_close(&handle);
    expectClosed(&handle);
}

TEST_F(ConfigdOpen, OfAConnectedHandleConnectsAnew) {
    const vxtest::NoLeaks leaks;
    const Handle handle = openHandle();
    const ino_t before = inode(handle->client_path);
    ASSERT_EQ(__configd_open(handle.get()), 0);
    expectConnected(handle.get());
    EXPECT_NE(inode(handle->client_path), before);
}

TEST_F(ConfigdOpen, ADescriptorNumberedOneIsLeftOpen) {
    EXPECT_EQ(vxtest::inChild([] {
                  ::close(1);
                  configd_handle *handle = configd_open();
                  if (handle == nullptr || handle->fd != 1) return 1;
                  const std::string path = handle->client_path;
                  __configd_close(handle);
                  if (handle->fd != -1 || vxtest::exists(path)) return 2;
                  if (::fcntl(1, F_GETFD) == -1) return 3;
                  configd_close(handle);
                  return ::fcntl(1, F_GETFD) == -1 ? 4 : 0;
              }),
              0);
}

TEST_F(ConfigdOpen, DescriptorsAboveThoseOfSelectWork) {
    daemon.tell("set a 1");
    EXPECT_EQ(vxtest::inChild([] {
                  rlimit limit{};
                  ::getrlimit(RLIMIT_NOFILE, &limit);
                  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 2048);
                  ::setrlimit(RLIMIT_NOFILE, &limit);
                  while (::dup(0) < 1500) continue;
                  const Handle handle = openHandle();
                  if (handle == nullptr || handle->fd < 1024) return 1;
                  return value(handle.get(), "a") == "1" ? 0 : 2;
              }),
              0);
}

TEST_F(ConfigdOpen, NullIsRefusedOrIgnoredEverywhere) {
    auto array = entries({{"a", "1"}});
    char buffer[8] = "";
    EXPECT_EQ(configd_add_query(nullptr, "a"), -1);
    EXPECT_STREQ(configd_fetch(nullptr, "a"), "");
    EXPECT_EQ(configd_get(nullptr, array.data()), -1);
    EXPECT_EQ(configd_set(nullptr, array.data()), -1);
    EXPECT_EQ(configd_done(nullptr), -1);
    EXPECT_EQ(configd_send(nullptr, "x", 1), -1);
    EXPECT_EQ(configd_recv(nullptr, buffer, sizeof buffer), -1);
    EXPECT_EQ(configd_prepare_get(nullptr, array.data()), -1);
    EXPECT_EQ(__configd_open(nullptr), -1);
    configd_clear(nullptr);
    configd_close(nullptr);
    __configd_close(nullptr);
    const Handle handle = openHandle();
    const char *volatile noFormat = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    EXPECT_EQ(configd_add_query(handle.get(), noFormat), -1);
    EXPECT_STREQ(configd_fetch(handle.get(), noFormat), "");
#pragma GCC diagnostic pop
    EXPECT_EQ(configd_set(handle.get(), nullptr), -1);
    EXPECT_EQ(configd_send(handle.get(), nullptr, 1), -1);
    EXPECT_EQ(configd_recv(handle.get(), nullptr, 1), -1);
    EXPECT_EQ(configd_prepare_get(handle.get(), nullptr), -1);
    EXPECT_EQ(daemon.requests(), 0);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdOpen, AClosedHandleOfACallerWorksWithArraysAndTheQueryList) {
    daemon.tell("set a 1");
    configd_handle handle{};
    handle.fd = -1;
    configd_clear(&handle);
    EXPECT_EQ(configd_get(&handle, nullptr), 0);  // nothing to read
    ASSERT_EQ(__configd_open(&handle), 0);
    EXPECT_EQ(value(&handle, "a"), "1");
    EXPECT_EQ(configd_add_query(&handle, "a"), 0);
    EXPECT_STREQ(configd_fetch(&handle, "a"), "1");
    configd_clear(&handle);
    EXPECT_EQ(handle.count, 0);
    __configd_close(&handle);
    __configd_close(&handle);
    expectClosed(&handle);
}

TEST_F(ConfigdGet, SendsOneRequestPerKeyAndTakesTheAnswerWithoutItsTrailer) {
    daemon.tell("set host gw 7");
    daemon.tell("set empty");
    const Handle handle = openHandle();
    auto array = entries({{"host", "?"}, {"empty", "?"}, {"unknown", "?"}});
    daemon.tell("trace on");
    ASSERT_EQ(configd_get(handle.get(), array.data()), 0);
    EXPECT_STREQ(array[0].value, "gw 7");
    EXPECT_STREQ(array[1].value, "");
    EXPECT_STREQ(array[2].value, "");
    EXPECT_EQ(array[0].list.next, nullptr);
    EXPECT_EQ(daemon.tell("trace off"),
              (Lines{R"(request "?host\n\0")", R"(answer "gw 7\n\0")", R"(request "?empty\n\0")", R"(answer "\n\0")",
                     R"(request "?unknown\n\0")", R"(answer "\n\0")"}));
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdGet, NothingToReadSucceedsWithoutContact) {
    const Handle handle = openHandle();
    auto none = entries({});
    EXPECT_EQ(configd_get(handle.get(), none.data()), 0);
    EXPECT_EQ(configd_get(handle.get(), nullptr), 0);
    EXPECT_EQ(configd_prepare_get(handle.get(), none.data()), -1);  // an empty key
    EXPECT_EQ(daemon.requests(), 0);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdGet, AKeyThatFillsItsFieldToTheLastByteIsReadNoFurther) {
    const Handle handle = openHandle();
    auto array = entries({{std::string(256, 'k'), ""}});
    std::memset(array[0].value, 'v', sizeof array[0].value);
    daemon.tell("trace on");
    EXPECT_EQ(configd_prepare_get(handle.get(), array.data()), 0);
    EXPECT_EQ(daemon.tell("trace off")[0], "request \"?" + std::string(256, 'k') + "\\n\\0\"");
}

TEST_F(ConfigdGet, AnAnswerOfTwoBytesIsAnEmptyValue) {
    const Handle handle = openHandle();
    for (const char *two : {R"(\n\0)", "xy"}) {
        daemon.tell(std::string("raw ") + two);
        EXPECT_EQ(value(handle.get(), "a"), "");
    }
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdGet, OnlyTheLastTwoBytesAreCutOffWhateverTheyAre) {
    const Handle handle = openHandle();
    daemon.tell("raw abcd");
    EXPECT_EQ(value(handle.get(), "a"), "ab");
    daemon.tell(R"(raw ab\0cd\n\0)");
    EXPECT_EQ(value(handle.get(), "a"), "ab");
}

TEST_F(ConfigdGet, AnAnswerOfOneByteOrNoneFailsAndReconnects) {
    const vxtest::NoLeaks leaks;
    const Handle handle = openHandle();
    const ino_t before = inode(handle->client_path);
    daemon.tell("raw x");
    EXPECT_EQ(value(handle.get(), "a"), "failed: untouched");
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "no response from configd (len 1)"}}));
    expectConnected(handle.get());
    EXPECT_NE(inode(handle->client_path), before);
    daemon.tell("empty");
    EXPECT_EQ(value(handle.get(), "a"), "failed: untouched");
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "no response from configd (len 0)"}}));
}

TEST_F(ConfigdGet, PrepareGetDoesNotReconnect) {
    const Handle handle = openHandle();
    const ino_t before = inode(handle->client_path);
    auto array = entries({{"a", "kept"}});
    daemon.tell("empty");
    EXPECT_EQ(configd_prepare_get(handle.get(), array.data()), -1);
    EXPECT_STREQ(array[0].value, "kept");
    EXPECT_EQ(inode(handle->client_path), before);
}

TEST_F(ConfigdGet, AValueIsCutTo1023Characters) {
    const Handle handle = openHandle();
    for (const size_t length : {1022u, 1023u, 1024u, 1025u, 4000u, 16381u, 16382u, 20000u}) {
        daemon.tell("raw " + std::string(length, 'v') + R"(\n\0)");
        EXPECT_EQ(value(handle.get(), "a"), std::string(std::min<size_t>(length, 1023), 'v')) << length;
    }
}

TEST_F(ConfigdGet, StopsAtTheFirstFailureAndKeepsWhatWasRead) {
    for (const char *order : {"set a 1", "set c 3", "mute b"}) daemon.tell(order);
    const Handle reader = openHandle();
    const Handle lister = openHandle();
    auto array = entries({{"a", "?"}, {"b", "?"}, {"c", "?"}});
    for (const char *key : {"a", "b", "c"}) EXPECT_EQ(configd_add_query(lister.get(), "%s", key), 0);
    std::thread listing([&] { EXPECT_EQ(configd_get(lister.get(), nullptr), -1); });
    EXPECT_EQ(configd_get(reader.get(), array.data()), -1);
    listing.join();

    EXPECT_STREQ(array[0].value, "1");
    EXPECT_STREQ(array[1].value, "?");
    EXPECT_STREQ(array[2].value, "?");
    Lines listed;
    for (const list_link *link = lister->queries.next; link != &lister->queries; link = link->next) {
        listed.emplace_back(reinterpret_cast<const configd_entry *>(link)->value);
    }
    EXPECT_EQ(listed, (Lines{"1", "", ""}));
    EXPECT_EQ(lister->fetched, 0);
    EXPECT_EQ(daemon.requests(), 4) << "of each the third key is not asked for";
    EXPECT_EQ(log.take(), Log(2, {LOG_ERR, "no response from configd (len -1)"}));
    expectConnected(reader.get());
    expectConnected(lister.get());
}

TEST_F(ConfigdGet, ADaemonThatDiedIsASendErrorAndARestartedOneIsFoundAgain) {
    const Handle handle = openHandle();
    daemon.tell("set a 1");
    daemon.die();
    EXPECT_EQ(value(handle.get(), "a"), "failed: untouched");
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "unable to send query to configd"}}));
    expectConnected(handle.get());
    Configd again;
    EXPECT_EQ(value(handle.get(), "a"), "1");
    again.tell("restart");
    EXPECT_EQ(value(handle.get(), "a"), "1");
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdGet, AFailedReconnectLeavesTheHandleClosedAndEachCallTriesAgain) {
    const vxtest::NoLeaks leaks;
    const Handle handle = openHandle();
    daemon.tell("set a 1");
    std::filesystem::remove_all(directory);
    const Log failures{{LOG_ERR, "unable to send query to configd"}, {LOG_ERR, "cannot bind to configd"}};
    EXPECT_EQ(value(handle.get(), "a"), "failed: untouched");
    expectClosed(handle.get());
    EXPECT_EQ(log.take(), failures);
    EXPECT_EQ(configd_send(handle.get(), "x", 1), -1);
    char buffer[2];
    EXPECT_EQ(configd_recv(handle.get(), buffer, sizeof buffer), -1);
    auto array = entries({{"a", "2"}});
    EXPECT_EQ(configd_set(handle.get(), array.data()), -2);
    EXPECT_EQ(log.take(), failures);
    EXPECT_EQ(configd_done(handle.get()), -2);
    EXPECT_EQ(log.take(), failures);
    daemon.tell("restart");
    EXPECT_EQ(value(handle.get(), "a"), "failed: untouched");  // still closed, but connects again
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "unable to send query to configd"}}));
    EXPECT_EQ(value(handle.get(), "a"), "1");
}

TEST_F(ConfigdSet, SendsAllRecordsInOneRequestThatIsEchoed) {
    const Handle handle = openHandle();
    const auto array = entries({{"a", "1"}, {"b", "two words"}, {"c", ""}});
    daemon.tell("trace on");
    EXPECT_EQ(configd_set(handle.get(), array.data()), 0);
    EXPECT_EQ(daemon.tell("trace off"),
              (Lines{R"(request "a=1\nb=two words\nc=\n\0")", R"(answer "a=1\nb=two words\nc=\n\0")"}));
    EXPECT_EQ(daemon.get("b"), "two words");
    EXPECT_EQ(value(handle.get(), "a"), "1");
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdSet, NothingToWriteIsRefusedWithoutContact) {
    const Handle handle = openHandle();
    const auto none = entries({});
    EXPECT_EQ(configd_set(handle.get(), none.data()), -1);
    EXPECT_EQ(daemon.requests(), 0);
    EXPECT_EQ(log.take(), Log{});
}

// Records whose request text has exactly this length.
std::vector<configd_entry> changeOf(size_t length) {
    std::vector<std::pair<std::string, std::string>> pairs;
    constexpr size_t whole = 1000;
    for (size_t left = length; left > 0;) {
        const size_t piece = left >= 2 * whole ? whole : std::min(left, whole + 20);
        pairs.emplace_back("k" + std::to_string(100 + pairs.size()), std::string(piece - 6, 'v'));
        left -= piece;
    }
    return entries(pairs);
}

TEST_F(ConfigdSet, ATextOf16381CharactersIsSentAndALongerOneIsNot) {
    const Handle handle = openHandle();
    for (const size_t length : {16380u, 16381u}) EXPECT_EQ(configd_set(handle.get(), changeOf(length).data()), 0);
    EXPECT_EQ(daemon.requests(), 2);
    for (const size_t length : {16382u, 16383u, 16384u, 16385u, 17500u, 100000u}) {
        EXPECT_EQ(configd_set(handle.get(), changeOf(length).data()), -1) << length;
    }
    EXPECT_EQ(daemon.requests(), 2);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdSet, FieldsFullToTheLastByteAreReadNoFurther) {
    const Handle handle = openHandle();
    const auto array = entries({{std::string(256, 'k'), std::string(1024, 'v')}});
    EXPECT_EQ(configd_set(handle.get(), array.data()), 0);
    EXPECT_EQ(daemon.get(std::string(256, 'k')), std::string(1024, 'v'));
}

TEST_F(ConfigdSet, AnAnswerOfAnotherLengthIsMinusThree) {
    const Handle handle = openHandle();
    const auto array = entries({{"a", "1"}});
    for (const auto &[mode, length] : {std::pair{"short", "4"}, {"long", "6"}, {"empty", "0"}}) {
        const ino_t before = inode(handle->client_path);
        daemon.tell(mode);
        EXPECT_EQ(configd_set(handle.get(), array.data()), -3) << mode;
        EXPECT_EQ(log.take(), (Log{{LOG_ERR, std::string("no response from configd (") + length + " != 5)"}}));
        expectConnected(handle.get());
        EXPECT_NE(inode(handle->client_path), before);
    }
}

TEST_F(ConfigdSet, AnAnswerWithOneOtherByteIsMinusFour) {
    const Handle handle = openHandle();
    const auto array = entries({{"a", "1"}});
    const ino_t before = inode(handle->client_path);
    for (const char *answer : {"wrong", R"(raw a=2\n\0)", R"(raw a=1\nx)", R"(raw a=\0\n\0)", R"(raw \0\0\0\0\0)"}) {
        daemon.tell(answer);
        EXPECT_EQ(configd_set(handle.get(), array.data()), -4) << answer;
        EXPECT_EQ(log.take(), (Log{{LOG_ERR, "invalid response from configd"}}));
    }
    expectConnected(handle.get());
    EXPECT_NE(inode(handle->client_path), before);
}

TEST_F(ConfigdSet, ADeadDaemonIsMinusTwo) {
    const Handle handle = openHandle();
    const auto array = entries({{"a", "1"}});
    const ino_t before = inode(handle->client_path);
    daemon.die();
    EXPECT_EQ(configd_set(handle.get(), array.data()), -2);
    EXPECT_EQ(configd_done(handle.get()), -2);
    EXPECT_EQ(log.take(),
              (Log{{LOG_ERR, "unable to send query to configd"}, {LOG_ERR, "unable to send query to configd"}}));
    expectConnected(handle.get());
    EXPECT_NE(inode(handle->client_path), before);
}

TEST_F(ConfigdSet, ASilentDaemonIsMinusThreeAfterTenSeconds) {
    const Handle handle = openHandle();
    const auto array = entries({{"a", "1"}});
    daemon.tell("silent");
    const auto start = Clock::now();
    EXPECT_EQ(configd_set(handle.get(), array.data()), -3);
    EXPECT_GE(Clock::now() - start, 10s);
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "no response from configd (-1 != 5)"}}));
    expectConnected(handle.get());
}

TEST_F(ConfigdSet, WhatWasCommittedSurvivesARestartAndWhatWasNotDoesNot) {
    const Handle handle = openHandle();
    EXPECT_EQ(configd_set(handle.get(), entries({{"kept", "1"}, {"lost", "1"}}).data()), 0);
    EXPECT_EQ(configd_done(handle.get()), 0);
    EXPECT_EQ(configd_set(handle.get(), entries({{"lost", "2"}}).data()), 0);
    EXPECT_EQ(value(handle.get(), "lost"), "2");
    daemon.tell("restart");
    EXPECT_EQ(value(handle.get(), "kept"), "1");
    EXPECT_EQ(value(handle.get(), "lost"), "1");
}

TEST_F(ConfigdDone, SendsFiveBytesAndTellsReadyFromBusy) {
    const Handle handle = openHandle();
    daemon.tell("busy 2");
    daemon.tell("trace on");
    EXPECT_EQ(configd_done(handle.get()), 1);
    EXPECT_EQ(configd_done(handle.get()), 1);
    EXPECT_EQ(configd_done(handle.get()), 0);
    EXPECT_EQ(daemon.tell("trace off"), (Lines{R"(request "Done\n")", R"(answer "Busy")", R"(request "Done\n")",
                                               R"(answer "Busy")", R"(request "Done\n")", R"(answer "Ready")"}));
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdDone, ANulMayFollowTheAnswer) {
    const Handle handle = openHandle();
    daemon.tell(R"(raw Ready\0)");
    EXPECT_EQ(configd_done(handle.get()), 0);
    daemon.tell(R"(raw Busy\0)");
    EXPECT_EQ(configd_done(handle.get()), 1);
}

TEST_F(ConfigdDone, AnEmptyAnswerIsMinusThree) {
    const Handle handle = openHandle();
    const ino_t before = inode(handle->client_path);
    daemon.tell("empty");
    EXPECT_EQ(configd_done(handle.get()), -3);
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "no response from configd"}}));
    expectConnected(handle.get());
    EXPECT_NE(inode(handle->client_path), before);
}

TEST_F(ConfigdDone, AnyOtherAnswerIsMinusFourAndIsLogged) {
    const Handle handle = openHandle();
    const ino_t before = inode(handle->client_path);
    for (const auto &[order, text] : {std::pair{"short", "Read"},
                                      {"long", "Readyx"},
                                      {"wrong", "Seady"},
                                      {"raw ready", "ready"},
                                      {"raw Busy!", "Busy!"},
                                      {R"(raw \0Ready)", ""}}) {
        daemon.tell(order);
        EXPECT_EQ(configd_done(handle.get()), -4) << order;
        EXPECT_EQ(log.take(), (Log{{LOG_ERR, std::string("invalid response <") + text + "> from configd"}}));
    }
    expectConnected(handle.get());
    EXPECT_NE(inode(handle->client_path), before);
}

TEST_F(ConfigdDone, ALongAnswerIsLoggedWhole) {
    const Handle handle = openHandle();
    const std::string answer = "Ready" + std::string(3000, '!');
    daemon.tell("raw " + answer);
    EXPECT_EQ(configd_done(handle.get()), -4);
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "invalid response <" + answer + "> from configd"}}));
}

TEST_F(ConfigdDone, ASilentDaemonIsMinusFourAfterTenSeconds) {
    const Handle handle = openHandle();
    daemon.tell("silent");
    const auto start = Clock::now();
    EXPECT_EQ(configd_done(handle.get()), -4);
    EXPECT_GE(Clock::now() - start, 10s);
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "invalid response <> from configd"}}));
    expectConnected(handle.get());
}

TEST_F(ConfigdFetch, FetchesTheWholeListOnceInTheOrderOfItsKeys) {
    for (const char *set : {"set z 26", "set a 1", "set m.3 13"}) daemon.tell(set);
    const Handle handle = openHandle();
    EXPECT_EQ(configd_add_query(handle.get(), "z"), 0);
    EXPECT_EQ(configd_add_query(handle.get(), "%s", "a"), 0);
    EXPECT_EQ(configd_add_query(handle.get(), "%c.%d", 'm', 3), 0);
    EXPECT_EQ(handle->count, 3);
    EXPECT_EQ(daemon.requests(), 0);
    daemon.tell("trace on");
    EXPECT_STREQ(configd_fetch(handle.get(), "m.%d", 3), "13");
    EXPECT_EQ(handle->fetched, 1);
    EXPECT_EQ(daemon.tell("trace off"), (Lines{R"(request "?z\n\0")", R"(answer "26\n\0")", R"(request "?a\n\0")",
                                               R"(answer "1\n\0")", R"(request "?m.3\n\0")", R"(answer "13\n\0")"}));
    daemon.tell("set a 2");
    EXPECT_STREQ(configd_fetch(handle.get(), "a"), "1");
    EXPECT_STREQ(configd_fetch(handle.get(), "z"), "26");
    EXPECT_EQ(daemon.requests(), 3);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdFetch, ClearEmptiesTheListSoThatItCanBeReadAnew) {
    daemon.tell("set a 1");
    const Handle handle = openHandle();
    EXPECT_EQ(configd_add_query(handle.get(), "a"), 0);
    EXPECT_STREQ(configd_fetch(handle.get(), "a"), "1");
    daemon.tell("set a 2");
    configd_clear(handle.get());
    EXPECT_EQ(handle->count, 0);
    EXPECT_EQ(handle->fetched, 0);
    EXPECT_EQ(list_empty(&handle->queries), 1);
    EXPECT_EQ(configd_add_query(handle.get(), "a"), 0);
    EXPECT_STREQ(configd_fetch(handle.get(), "a"), "2");
}

TEST_F(ConfigdFetch, AKeyAddedAfterTheFetchStaysEmpty) {
    daemon.tell("set a 1");
    daemon.tell("set b 2");
    const Handle handle = openHandle();
    configd_add_query(handle.get(), "a");
    EXPECT_STREQ(configd_fetch(handle.get(), "a"), "1");
    EXPECT_EQ(configd_add_query(handle.get(), "b"), 0);
    EXPECT_STREQ(configd_fetch(handle.get(), "b"), "");
    EXPECT_EQ(daemon.requests(), 1);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdFetch, AKeyThatWasNeverAddedIsLoggedForDebuggingAndEmpty) {
    const Handle handle = openHandle();
    const char *text = configd_fetch(handle.get(), "net.%s", "mtu");
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(log.take(), (Log{{LOG_DEBUG, "key 'net.mtu' not found"}}));
    EXPECT_EQ(handle->fetched, 1);  // there was nothing to fetch
    EXPECT_EQ(daemon.requests(), 0);
}

TEST_F(ConfigdFetch, AKeyAddedTwiceIsOneEntry) {
    const Handle handle = openHandle();
    EXPECT_EQ(configd_add_query(handle.get(), "a"), 0);
    EXPECT_EQ(configd_add_query(handle.get(), "%s", "a"), 0);
    EXPECT_EQ(configd_add_query(handle.get(), "A"), 0);
    EXPECT_EQ(handle->count, 2);
}

TEST_F(ConfigdFetch, The513thKeyIsRefused) {
    const Handle handle = openHandle();
    for (int i = 0; i < 512; ++i) ASSERT_EQ(configd_add_query(handle.get(), "key.%d", i), 0);
    EXPECT_EQ(configd_add_query(handle.get(), "one more"), -1);
    EXPECT_EQ(configd_add_query(handle.get(), "key.77"), 0);  // is there already
    EXPECT_EQ(handle->count, 512);
    int i = 0;
    for (const list_link *link = handle->queries.next; link != &handle->queries; link = link->next, ++i) {
        EXPECT_EQ(reinterpret_cast<const configd_entry *>(link)->key, "key." + std::to_string(i));
    }
    EXPECT_EQ(i, 512);
    std::vector<std::pair<std::string, std::string>> pairs;
    for (i = 0; i < 512; ++i) daemon.tell("set key." + std::to_string(i) + " value of " + std::to_string(i));
    for (i = 0; i < 512; ++i) {
        ASSERT_EQ(configd_fetch(handle.get(), "key.%d", i), "value of " + std::to_string(i));
    }
    EXPECT_EQ(daemon.requests(), 512);
    EXPECT_STREQ(configd_fetch(handle.get(), "key.512"), "");
}

TEST_F(ConfigdFetch, KeysAreCutTo254CharactersWhenAddedAndWhenFetched) {
    const Handle handle = openHandle();
    for (const size_t length : {253u, 254u, 255u, 256u, 1000u}) {
        configd_clear(handle.get());
        const std::string key(length, 'k');
        const std::string cut = key.substr(0, 254);
        daemon.tell("set " + cut + " " + std::to_string(length));
        EXPECT_EQ(configd_add_query(handle.get(), "%s", key.c_str()), 0);
        EXPECT_EQ(reinterpret_cast<configd_entry *>(handle->queries.next)->key, cut);
        EXPECT_EQ(configd_fetch(handle.get(), "%s", key.c_str()), std::to_string(length));
    }
    configd_clear(handle.get());
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    const std::string plain(300, 'p');  // a format without a conversion
    EXPECT_EQ(configd_add_query(handle.get(), plain.c_str()), 0);
#pragma GCC diagnostic pop
    EXPECT_EQ(reinterpret_cast<configd_entry *>(handle->queries.next)->key, plain.substr(0, 254));
}

TEST_F(ConfigdFetch, AnEmptyKeyIsNotAdded) {
    const Handle handle = openHandle();
    EXPECT_EQ(configd_add_query(handle.get(), "%s", ""), -1);
    EXPECT_EQ(handle->count, 0);
    EXPECT_STREQ(configd_fetch(handle.get(), "%s", ""), "");
    EXPECT_EQ(log.take(), (Log{{LOG_DEBUG, "key '' not found"}}));
}

TEST_F(ConfigdFetch, AKeyWithoutMemoryIsNotAdded) {
    const Handle handle = openHandle();
    EXPECT_EQ(configd_add_query(handle.get(), "a"), 0);
    EXPECT_EQ(vxtest::inChild([&] {
                  memoryIsShort = true;
                  if (configd_add_query(handle.get(), "a") != 0) return 1;  // is there already
                  if (configd_add_query(handle.get(), "b") != -1 || handle->count != 1) return 2;
                  memoryIsShort = false;
                  return configd_add_query(handle.get(), "b") == 0 && handle->count == 2 ? 0 : 3;
              }),
              0);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdFetch, AFailedFetchIsTriedAgainAsAWholeTheNextTime) {
    daemon.tell("set a 1");
    const Handle handle = openHandle();
    configd_add_query(handle.get(), "a");
    configd_add_query(handle.get(), "b");
    daemon.tell("empty");
    EXPECT_STREQ(configd_fetch(handle.get(), "a"), "");
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "no response from configd (len 0)"}, {LOG_ERR, "configd_get failed"}}));
    EXPECT_EQ(handle->fetched, 0);
    EXPECT_EQ(daemon.requests(), 1);
    daemon.tell("normal");
    EXPECT_STREQ(configd_fetch(handle.get(), "a"), "1");
    EXPECT_EQ(daemon.requests(), 3);
}

TEST_F(ConfigdTransport, TheAnswerOfARequestThatWasGivenUpIsNotTakenForTheNext) {
    daemon.tell("set slow old");
    daemon.tell("set quick new");
    const Handle handle = openHandle();
    daemon.tell("late 10400");
    const auto start = Clock::now();
    EXPECT_EQ(value(handle.get(), "slow"), "failed: untouched");
    EXPECT_GE(Clock::now() - start, 10s);
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "no response from configd (len -1)"}}));
    daemon.tell("trace on");
    EXPECT_EQ(daemon.process().readLine(), R"(answer "old\n\0")");  // now waits in the fresh socket
    daemon.tell("normal");
    daemon.tell("trace off");
    EXPECT_EQ(value(handle.get(), "quick"), "new");
}

TEST_F(ConfigdTransport, SeveralLateAnswersAreThrownAwayBeforeEachRequest) {
    daemon.tell("set a 1");
    const Handle handle = openHandle();
    for (int i = 0; i < 3; ++i) ASSERT_EQ(configd_send(handle.get(), "?other\n", 8), 8);
    ASSERT_EQ(daemon.requests(), 3);
    EXPECT_EQ(value(handle.get(), "a"), "1");
    ASSERT_EQ(configd_send(handle.get(), "?other\n", 8), 8);
    ASSERT_EQ(daemon.requests(), 5);
    EXPECT_EQ(configd_set(handle.get(), entries({{"a", "2"}}).data()), 0);
    ASSERT_EQ(configd_send(handle.get(), "?other\n", 8), 8);
    ASSERT_EQ(daemon.requests(), 7);
    EXPECT_EQ(configd_done(handle.get()), 0);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdTransport, TheClientsNameIsBoundByItsLengthAndTheDaemonsIsGivenWhole) {
    const Handle handle = openHandle();
    EXPECT_EQ(boundLength, 2 + std::strlen(handle->client_path));
    ASSERT_EQ(configd_send(handle.get(), "?a\n", 4), 4);
    EXPECT_EQ(sending.addressLength, 110U);
    EXPECT_EQ(sending.flags, 0);
}

TEST_F(ConfigdTransport, ARequestThatIsNotSentWholeHasFailed) {
    const Handle handle = openHandle();
    auto array = entries({{"a", "untouched"}});
    const Log failure{{LOG_ERR, "unable to send query to configd"}};
    sending.cut = true;
    EXPECT_EQ(configd_prepare_get(handle.get(), array.data()), -1);
    EXPECT_EQ(log.take(), failure);
    EXPECT_EQ(configd_set(handle.get(), array.data()), -2);
    EXPECT_EQ(log.take(), failure);
    EXPECT_EQ(configd_done(handle.get()), -2);
    EXPECT_EQ(log.take(), failure);
    sending.cut = false;
    EXPECT_STREQ(array[0].value, "untouched");
    expectConnected(handle.get());
    EXPECT_EQ(configd_done(handle.get()), 0);
}

TEST_F(ConfigdTransport, SendAndReceiveRefuseEmptyBuffers) {
    const Handle handle = openHandle();
    char buffer[4] = "";
    for (const int size : {0, -1, INT_MIN}) {
        EXPECT_EQ(configd_send(handle.get(), "x", size), -1);
        EXPECT_EQ(configd_recv(handle.get(), buffer, size), -1);
    }
    EXPECT_EQ(daemon.requests(), 0);
}

TEST_F(ConfigdTransport, ReceivingZeroesTheBufferAndTakesOneByteLessThanItHolds) {
    const Handle handle = openHandle();
    daemon.tell("raw abcdef");
    for (const int size : {1, 2, 6, 7, 8, 64}) {
        vxtest::GuardedBuffer buffer(static_cast<size_t>(size));
        std::memset(buffer.data(), '#', buffer.size());
        ASSERT_EQ(configd_send(handle.get(), "?a\n", 4), 4);
        const int expected = std::min(size - 1, 6);
        EXPECT_EQ(configd_recv(handle.get(), buffer.data(), size), expected);
        std::string whole = std::string("abcdef").substr(0, static_cast<size_t>(expected));
        whole.resize(buffer.size());
        EXPECT_EQ(std::string(buffer.data(), buffer.size()), whole);
    }
}

TEST_F(ConfigdTransport, SigpipeIsIgnoredWhileWaitingAndDefaultAfterwards) {
    const Handle handle = openHandle();
    std::signal(SIGPIPE, [](int) {});
    const auto disposition = [] {
        struct sigaction action {};
        ::sigaction(SIGPIPE, nullptr, &action);
        return action.sa_handler;
    };
    daemon.tell("late 1000");
    std::thread caller([&] { EXPECT_EQ(value(handle.get(), "a"), ""); });
    EXPECT_TRUE(vxtest::eventually([&] { return disposition() == SIG_IGN; }));
    caller.join();
    EXPECT_EQ(disposition(), SIG_DFL);
}

TEST_F(ConfigdTransport, AnInterruptedWaitGoesOnUntilTheAnswerComes) {
    daemon.tell("set a 1");
    const Handle handle = openHandle();
    daemon.tell("late 1000");
    const vxtest::Interruptions interruptions;
    EXPECT_EQ(value(handle.get(), "a"), "1");
    EXPECT_GT(vxtest::Interruptions::count, 5);
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdTransport, AnInterruptedWaitEndsAfterItsTenSecondsAndLeavesTheBufferAlone) {
    const Handle handle = openHandle();
    const auto start = Clock::now();
    char buffer[4] = "abc";
    {
        const vxtest::Interruptions interruptions;
        EXPECT_EQ(configd_recv(handle.get(), buffer, sizeof buffer), -1);
    }
    EXPECT_GE(Clock::now() - start, 10s);
    EXPECT_STREQ(buffer, "abc");
}

TEST_F(ConfigdTransport, ADaemonThatStopsReadingIsAShortSendAfterTenSeconds) {
    const Handle handle = openHandle();
    daemon.tell("deaf");
    fillQueue();
    const auto start = Clock::now();
    EXPECT_EQ(configd_done(handle.get()), -2);
    EXPECT_GE(Clock::now() - start, 10s);
    EXPECT_EQ(log.take(), (Log{{LOG_ERR, "unable to send query to configd"}}));
    expectConnected(handle.get());
}

TEST_F(ConfigdTransport, AnInterruptedSendEndsAfterItsTenSeconds) {
    const Handle handle = openHandle();
    daemon.tell("deaf");
    fillQueue();
    const auto start = Clock::now();
    {
        const vxtest::Interruptions interruptions;
        EXPECT_EQ(configd_send(handle.get(), "Done\n", 5), -1);
        EXPECT_EQ(errno, EAGAIN);
    }
    EXPECT_GE(Clock::now() - start, 10s);
    timeval limit{};
    socklen_t size = sizeof limit;
    ASSERT_EQ(::getsockopt(handle->fd, SOL_SOCKET, SO_SNDTIMEO, &limit, &size), 0);
    EXPECT_EQ(limit.tv_sec, 10);
    EXPECT_EQ(limit.tv_usec, 0);
}

TEST_F(ConfigdTransport, AnInterruptedSendGoesOnUntilTheDaemonReads) {
    daemon.tell("set a 1");
    const Handle handle = openHandle();
    daemon.tell("deaf");
    fillQueue();
    std::thread later([&] {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
        std::this_thread::sleep_for(1s);
        daemon.tell("normal");
    });
    {
        const vxtest::Interruptions interruptions;
        EXPECT_EQ(value(handle.get(), "a"), "1");
    }
    later.join();
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdTransport, ManyProcessesTalkAtOnceEachWithItsOwnSocket) {
    constexpr int processes = 8;
    std::vector<pid_t> children;
    for (int i = 0; i < processes; ++i) {
        children.push_back(vxtest::startChild([i] {
            const Handle handle = openHandle();
            if (handle == nullptr) return 1;
            const std::string key = "process." + std::to_string(i);
            for (int round = 0; round < 100; ++round) {
                const std::string text = std::to_string(round * processes + i);
                if (configd_set(handle.get(), entries({{key, text}}).data()) != 0) return 2;
                if (value(handle.get(), key) != text) return 3;
            }
            return 0;
        }));
    }
    for (const pid_t child : children) EXPECT_EQ(vxtest::waitChild(child), 0);
    EXPECT_EQ(log.take(), Log{});
}

sockaddr_un addressOf(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

// A datagram socket that belongs to no handle.
class Peer {
public:
    explicit Peer(const char *path = nullptr) : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        if (path == nullptr) return;
        ::unlink(path);
        const sockaddr_un address = addressOf(path);
        EXPECT_EQ(::bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    }
    ~Peer() { ::close(fd_); }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    // The name that the next request came from.
    std::string receive() const {
        sockaddr_un from{};
        socklen_t length = sizeof from;
        char request[64];
        EXPECT_GT(::recvfrom(fd_, request, sizeof request, 0, reinterpret_cast<sockaddr *>(&from), &length), 0);
        return from.sun_path;
    }

    // 0 or the error.
    int send(const std::string &name, const std::string &text) const {
        const sockaddr_un to = addressOf(name);
        const ssize_t sent =
            ::sendto(fd_, text.data(), text.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&to), sizeof to);
        return sent == static_cast<ssize_t>(text.size()) ? 0 : errno;
    }

private:
    int fd_;
};

std::string answerOf(const std::string &value) { return value + std::string("\n\0", 2); }

size_t socketFiles() {
    size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        count += entry.path().filename().string().rfind("client.", 0) == 0;
    }
    return count;
}

// The test is the daemon itself, and a thread asks it.
class ConfigdAnswers : public testing::Test {
protected:
    // Asks for a value in a thread of its own; gives what the daemon sees as the client's name.
    std::string ask(configd_handle *handle) {
        asking_ = std::thread([this, handle] { answer_ = value(handle, "key"); });
        return daemon.receive();
    }
    std::string answered() {
        asking_.join();
        return answer_;
    }
    // A request that is answered with too few bytes, and so given up at once. Gives the client's name.
    std::string giveUp(configd_handle *handle) {
        const std::string name = ask(handle);
        EXPECT_EQ(daemon.send(name, "x"), 0);
        EXPECT_EQ(answered(), "failed: untouched");
        return name;
    }
    // The next request, whose answer must reach the client while none at the older name does.
    void expectOldAnswerLost(configd_handle *handle, const std::string &oldName) {
        const std::string name = ask(handle);
        EXPECT_NE(name, oldName);
        for (int copy = 0; copy < 3; ++copy) {
            EXPECT_THAT(daemon.send(oldName, answerOf("old")), testing::AnyOf(ECONNREFUSED, ENOENT));
        }
        EXPECT_EQ(daemon.send(name, answerOf("new")), 0);
        EXPECT_EQ(answered(), "new");
    }

    const Peer daemon{(std::filesystem::create_directories(directory), daemonSocket)};
    vxtest::SyslogCapture log;

private:
    std::thread asking_;
    std::string answer_;
};

TEST_F(ConfigdAnswers, ALateOneIsRefusedAtTheNameOfItsRequest) {
    const vxtest::NoLeaks leaks;
    const Handle handle = openHandle();
    const std::string path = handle->client_path;
    EXPECT_EQ(giveUp(handle.get()), path);
    std::string name = path;
    for (int i = 0; i < 3; ++i) {
        expectConnected(handle.get());
        expectOldAnswerLost(handle.get(), path);
        const std::string next = giveUp(handle.get());
        EXPECT_NE(next, name);
        name = next;
        expectOldAnswerLost(handle.get(), name);
    }
    expectConnected(handle.get());
}

TEST_F(ConfigdAnswers, ALateOneIsRefusedAtAHandleThatIsOpenedLaterAtTheSameAddress) {
    configd_handle handle{};
    handle.fd = -1;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(__configd_open(&handle), 0);
        const std::string name = giveUp(&handle);
        __configd_close(&handle);
        ASSERT_EQ(__configd_open(&handle), 0);
        expectOldAnswerLost(&handle, name);
        expectConnected(&handle);
        __configd_close(&handle);
        expectClosed(&handle);
    }
    EXPECT_EQ(socketFiles(), 0u);
}

TEST_F(ConfigdAnswers, ALateOneIsRefusedAfterAFailedPrepareGet) {
    const Handle handle = openHandle();
    auto array = entries({{"key", "untouched"}});
    std::thread asking([&] { EXPECT_EQ(configd_prepare_get(handle.get(), array.data()), -1); });
    const std::string name = daemon.receive();
    EXPECT_EQ(daemon.send(name, "x"), 0);
    asking.join();
    EXPECT_EQ(daemon.send(name, answerOf("old")), EPIPE);
    expectOldAnswerLost(handle.get(), name);
}

TEST_F(ConfigdAnswers, AfterASurplusOneTheNextRequestHasAnotherName) {
    const Handle handle = openHandle();
    const std::string name = ask(handle.get());
    EXPECT_EQ(daemon.send(name, answerOf("once")), 0);
    EXPECT_EQ(daemon.send(name, answerOf("twice")), 0);
    EXPECT_EQ(answered(), "once");
    expectOldAnswerLost(handle.get(), name);
}

TEST_F(ConfigdAnswers, AfterOneThatTookASecondTheNextRequestHasAnotherName) {
    const Handle handle = openHandle();
    const std::string name = ask(handle.get());
    std::this_thread::sleep_for(1100ms);
    EXPECT_EQ(daemon.send(name, answerOf("slow")), 0);
    EXPECT_EQ(answered(), "slow");
    expectOldAnswerLost(handle.get(), name);
}

TEST_F(ConfigdAnswers, ToAProcessThatWasKilledIsNotTakenByALaterOneWithItsNumber) {
    configd_handle handle{};
    handle.fd = -1;
    const std::string path = clientPath(&handle);
    { const Peer killed(path.c_str()); }
    ASSERT_EQ(__configd_open(&handle), 0);
    expectOldAnswerLost(&handle, path);
    __configd_close(&handle);
    EXPECT_EQ(socketFiles(), 0u);
}

TEST_F(ConfigdAnswers, EachConnectionHasItsFilesOnlyWhileItLasts) {
    std::vector<Handle> handles;
    for (int i = 0; i < 3; ++i) handles.push_back(openHandle());
    EXPECT_EQ(socketFiles(), 3u);
    giveUp(handles[0].get());
    EXPECT_EQ(socketFiles(), 4u);
    for (const Handle &handle : handles) ASSERT_EQ(__configd_open(handle.get()), 0);
    EXPECT_EQ(socketFiles(), 4u);
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        struct stat status {};
        ASSERT_EQ(::stat(entry.path().c_str(), &status), 0);
        if (entry.path() != daemonSocket) EXPECT_EQ(status.st_mode, S_IFSOCK | 0777u);
    }
    handles.clear();
    EXPECT_EQ(socketFiles(), 0u);
}

TEST_F(ConfigdAnswers, ANewHandleHasItsOwnNameWhateverHappenedToEarlierOnes) {
    for (int i = 0; i < 20; ++i) {
        const Handle handle = openHandle();
        EXPECT_EQ(giveUp(handle.get()), clientPath(handle.get())) << i;
    }
}

TEST_F(ConfigdAnswers, ASecondDescriptorThatCannotBeHadLeavesTheHandleClosed) {
    EXPECT_EQ(vxtest::inChild([] {
                  ::syslog(LOG_INFO, "connect to the log first");
                  configd_handle handle{};
                  handle.fd = -1;
                  vxtest::writeFile(clientPath(&handle), "left over");
                  const auto open = [&handle] {
                      const vxtest::DescriptorLimit one(1);
                      return __configd_open(&handle);
                  };
                  if (open() != -1) return 1;
                  return handle.fd == -1 && socketFiles() == 0 ? 0 : 2;
              }),
              0);
}

TEST_F(ConfigdAnswers, FromOthersThanTheDaemonAreRefusedWhileTheClientWaits) {
    const Peer stranger;
    const Peer named("/var/run/configd/stranger");
    const Handle handle = openHandle();
    for (int i = 0; i < 2; ++i) {
        const std::string name = ask(handle.get());
        EXPECT_EQ(stranger.send(name, answerOf("forged")), EPERM);
        EXPECT_EQ(named.send(name, answerOf("forged")), EPERM);
        EXPECT_EQ(daemon.send(name, answerOf("true")), 0);
        EXPECT_EQ(answered(), "true");
    }
}

TEST_F(ConfigdAnswers, FromOthersThatWaitInTheSocketAreThrownAwayBeforeTheRequest) {
    const Peer stranger("/var/run/configd/stranger");
    const Handle handle = openHandle();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(stranger.send(handle->client_path, answerOf("forged")), 0);
    const std::string name = ask(handle.get());
    EXPECT_EQ(name, handle->client_path) << "no answer of the daemon has been seen";
    EXPECT_EQ(stranger.send(name, answerOf("forged")), EPERM);
    EXPECT_EQ(daemon.send(name, answerOf("true")), 0);
    EXPECT_EQ(answered(), "true");
}

TEST_F(ConfigdAnswers, AfterTheDaemonsRestartComeFromTheNewOneAlone) {
    const Handle handle = openHandle();
    std::string name = ask(handle.get());
    EXPECT_EQ(daemon.send(name, answerOf("first")), 0);
    EXPECT_EQ(answered(), "first");
    const Peer again(daemonSocket);
    std::thread asking([&] { EXPECT_EQ(value(handle.get(), "key"), "second"); });
    name = again.receive();
    EXPECT_EQ(daemon.send(name, answerOf("of the old one")), EPERM);
    EXPECT_EQ(again.send(name, answerOf("second")), 0);
    asking.join();
}

TEST_F(ConfigdAnswers, OfAnotherUserWhoSendsWithoutPauseAreNeverTaken) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "this box has no other users";
    Configd standIn({"key=true"});  // takes the daemon's place
    const pid_t sender = vxtest::startChild([] {
        const Peer stranger;
        if (::setuid(65534) != 0) return 1;
        for (;;) {
            for (const auto &entry : std::filesystem::directory_iterator(directory)) {
                (void)stranger.send(entry.path(), answerOf("forged"));
            }
        }
    });
    for (int round = 0; round < 50; ++round) {
        const Handle handle = openHandle();
        std::this_thread::sleep_for(2ms);
        for (int i = 0; i < 20 && !HasFailure(); ++i) EXPECT_EQ(value(handle.get(), "key"), "true") << round;
    }
    ::kill(sender, SIGKILL);
    vxtest::waitChild(sender);
}

TEST_F(ConfigdAnswers, WithoutEndDoNotKeepTheCallerFromGoingOn) {
    const Handle handle = openHandle();
    (void)daemon.send(ask(handle.get()), answerOf("value"));
    answered();
    (void)daemon.send(handle->client_path, answerOf("one too many"));
    answersWithoutEnd = true;
    std::atomic<bool> over = false;
    std::future<bool> watch = std::async(std::launch::async, [&] {
        const bool inTime = vxtest::eventually([&] { return over.load(); }, 20000);
        answersWithoutEnd = false;  // a caller that is still emptying its socket goes on
        return inTime;
    });
    (void)daemon.send(ask(handle.get()), answerOf("value"));
    answered();
    over = true;
    EXPECT_TRUE(watch.get());
}

TEST_F(ConfigdAnswers, TheModeOfWhatALinkInTheSocketsPlaceLeadsToIsKept) {
    static const std::string victim = "/tmp/victim";
    vxtest::writeFile(victim, "secret");
    ASSERT_EQ(::chmod(victim.c_str(), 0600), 0);
    afterBind = [](const char *path) {
        ::unlink(path);
        std::filesystem::create_symlink(victim, path);
    };
    { const Handle handle = openHandle(); }
    afterBind = nullptr;
    struct stat status {};
    ASSERT_EQ(::stat(victim.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

// Answers of all ages and orders reach processes that ask for many values, each in another manner. None may take one
// for the answer to another question.
class ConfigdLate : public ConfigdTest, public testing::WithParamInterface<const char *> {
protected:
    static constexpr int processes = 32;
    static constexpr int rounds = 5;
    static constexpr int wrong = 99;

    // Number of values that were read, unless one of them is wrong.
    static int askForMany(int process) {
        Handle handle = openHandle();
        int read = 0;
        for (int round = 0; round < rounds; ++round) {
            const std::string number = std::to_string(process * rounds + round);
            const std::string key = "key." + number;
            std::string text;
            auto array = entries({{key, ""}});
            switch (process % 4) {
                case 0:  // through one handle
                    if (configd_get(handle.get(), array.data()) == 0) text = array[0].value;
                    break;
                case 1:  // through a new handle each time, most often at the same address
                    handle.reset();
                    handle = openHandle();
                    if (configd_get(handle.get(), array.data()) == 0) text = array[0].value;
                    break;
                case 2:  // by the building block that does not reconnect
                    if (configd_prepare_get(handle.get(), array.data()) == 0) text = array[0].value;
                    break;
                default:  // as a list
                    configd_clear(handle.get());
                    configd_add_query(handle.get(), "%s", key.c_str());
                    text = configd_fetch(handle.get(), "%s", key.c_str());
            }
            if (!text.empty() && text != number) return wrong;
            read += text.empty() ? 0 : 1;
        }
        return read;
    }
};

TEST_P(ConfigdLate, AnswersAreNeverTakenForThoseToLaterRequests) {
    std::string store;
    for (int i = 0; i < processes * rounds; ++i) store += "key." + std::to_string(i) + "=" + std::to_string(i) + "\n";
    vxtest::writeFile("/var/lib/configd/store", store);
    daemon.tell("restart");
    daemon.tell(std::string("times ") + GetParam());
    std::vector<pid_t> children;
    for (int i = 0; i < processes; ++i) children.push_back(vxtest::startChild([i] { return askForMany(i); }));
    int read = 0;
    for (const pid_t child : children) {
        const int result = vxtest::waitChild(child);
        ASSERT_LE(result, rounds);
        read += result;
    }
    EXPECT_GT(read, processes);
    EXPECT_LT(read, processes * rounds);
    for (const LogLine &line : log.take()) {
        EXPECT_THAT(line.text, testing::AnyOf("no response from configd (len -1)", "configd_get failed"));
    }
    EXPECT_EQ(socketFiles(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Delays, ConfigdLate,
                         testing::Values("9000 11000 0 16000 9500 25000 12000 40000",          // once each
                                         "11000,11000 9000,9000 14000,40000 9900,25000 9300",  // twice each
                                         "10500 9000 10200 9500 19500 9400 29000 9300"));      // in another order

TEST_F(ConfigdTransport, LateEchoesAndReadinessAreNotTakenForLaterOnes) {
    const Handle setting = openHandle();
    const Handle committing = openHandle();
    daemon.tell("late 11000");
    std::thread commit([&] { EXPECT_EQ(configd_done(committing.get()), -4); });
    EXPECT_EQ(configd_set(setting.get(), entries({{"a", "1"}}).data()), -3);
    commit.join();
    daemon.tell("busy");
    daemon.tell("late 3000");
    std::thread busy([&] { EXPECT_EQ(configd_done(committing.get()), 1) << "not the earlier Ready"; });
    EXPECT_EQ(configd_set(setting.get(), entries({{"b", "22"}}).data()), 0) << "not the earlier echo";
    busy.join();
}

TEST_F(ConfigdTransport, AfterTheNamesOf128HandlesAllSocketsHaveNewOnes) {
    daemon.tell("raw x");
    EXPECT_EQ(vxtest::inChild([] {
                  std::vector<configd_handle> handles(129);
                  for (configd_handle &handle : handles) {
                      handle.fd = -1;
                      if (__configd_open(&handle) != 0 || value(&handle, "a") != "failed: untouched") return 1;
                  }
                  configd_handle *fresh = configd_open();
                  sockaddr_un name{};
                  socklen_t length = sizeof name;
                  if (::getsockname(fresh->fd, reinterpret_cast<sockaddr *>(&name), &length) == -1) return 2;
                  if (fresh->client_path == std::string(name.sun_path)) return 3;
                  expectConnected(fresh);
                  for (configd_handle &handle : handles) __configd_close(&handle);
                  configd_close(fresh);
                  return HasFailure() ? 4 : 0;
              }),
              0);
    EXPECT_EQ(socketFiles(), 0u);
}

TEST_F(ConfigdTransport, EachOfManyRestartsOfTheDaemonIsFound) {
    daemon.tell("set a 1");
    const Handle handle = openHandle();
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(value(handle.get(), "a"), "1");
        daemon.tell("restart");
        EXPECT_EQ(value(handle.get(), "a"), "1");
        EXPECT_EQ(handle->client_path, clientPath(handle.get()));
    }
    EXPECT_EQ(log.take(), Log{});
}

TEST_F(ConfigdExample, ReaderReadsSinglyAndAsAListAndWrites) {
    const std::string reader = vxtest::built("examples/configd_reader");
    daemon.tell("set a 1");
    daemon.tell("set b 2");
    EXPECT_EQ(vxtest::run({reader, "b", "a"}).text, "b = 2\na = 1\n");
    EXPECT_EQ(vxtest::run({reader, "--list", "a", "b"}).text, "a = 1\nb = 2\n");
    daemon.tell("busy 1");
    EXPECT_EQ(vxtest::run({reader, "--set", "a=3", "c=4"}).text,
              "write: echoed\ncommit: busy, asking again\ncommit: ready\n");
    EXPECT_EQ(daemon.get("a") + daemon.get("c"), "34");
    daemon.die();
    const vxtest::Output failed = vxtest::run({reader, "a"});
    EXPECT_EQ(failed.text, "a: no answer\n");
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(vxtest::run({reader}).status, 2);
}

TEST_F(ConfigdExample, DaemonGoesOnWithWhatItHasWhateverTheConfigurationDaemonDoes) {
    for (const char *set : {"set led.count 2", "set led.0.color red", "set led.1.color green"}) daemon.tell(set);
    vxtest::Process leds({vxtest::built("examples/led_daemon")});
    const auto round = [&](size_t lines) {
        leds.send("\n");
        Lines read;
        while (read.size() < lines) read.push_back(leds.readLine());
        return read;
    };
    EXPECT_EQ(leds.readLine(), "led_daemon: ready");
    EXPECT_EQ(round(4), (Lines{"led 0:  -> red", "led 1:  -> green", "round 1: written", "round 1: committed"}));
    daemon.tell("set led.1.color off");
    daemon.tell("busy 1");
    EXPECT_EQ(round(3), (Lines{"led 1: green -> off", "round 2: written", "round 2: busy, next time"}));
    daemon.tell("raw ?");
    EXPECT_EQ(round(1), (Lines{"round 3: no configuration, keeping what is there"}));
    daemon.tell("normal");
    daemon.tell("restart");
    EXPECT_EQ(round(2), (Lines{"round 4: written", "round 4: committed"}));
    EXPECT_EQ(daemon.get("led.rounds"), "4");
    leds.closeInput();
    EXPECT_EQ(leds.wait(), 0);
}

TEST(ConfigdPeer, TellsHowItIsUsed) {
    const vxtest::Output help = vxtest::run({vxtest::built("gateway/configd"), "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.text, testing::HasSubstr("usage: configd"));
    EXPECT_EQ(vxtest::run({vxtest::built("gateway/configd"), "--nonsense"}).status, 2);
}

TEST(ConfigdPeer, RemovesItsSocketOnTermination) {
    Configd daemon;
    EXPECT_TRUE(vxtest::exists(daemonSocket));
    daemon.process().signal(SIGTERM);
    EXPECT_EQ(daemon.process().wait(), 0);
    EXPECT_FALSE(vxtest::exists(daemonSocket));
}

TEST(ConfigdPeer, StartsWithValuesOfItsCommandLineAndOfItsStore) {
    {
        Configd daemon({"--store", "/tmp/store", "a=1", "b=2"});
        daemon.tell("set b 3");
    }
    Configd daemon({"--store", "/tmp/store", "c=4"});
    EXPECT_EQ(daemon.get("a") + daemon.get("b") + daemon.get("c"), "134");
    EXPECT_EQ(vxtest::readFile("/tmp/store"), "a=1\nb=3\nc=4\n");
}

}  // namespace
