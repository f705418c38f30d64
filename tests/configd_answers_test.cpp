// SPDX-License-Identifier: MIT
// Answers that come late, come twice, or come from others than the configuration daemon: none is taken for the answer to
// another question.
#include <vxutils/configd.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <future>
#include <optional>
#include <thread>

#include "support/call_hooks.h"
#include "support/configd.h"
#include "support/configd_client.h"
#include "support/descriptor_limit.h"
#include "support/files.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"

VXTEST_HOOK(int, bind, (int fd, const sockaddr *address, socklen_t length), (fd, address, length))
VXTEST_HOOK(ssize_t, recvfrom, (int fd, void *data, size_t size, int flags, sockaddr *from, socklen_t *length),
            (fd, data, size, flags, from, length))

namespace {

using namespace vxtest::configd;

using ConfigdLateAnswers = ConfigdTest;

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

TEST_F(ConfigdAnswers, ReachAHandleWhoseDescriptorIsZero) {
    EXPECT_EQ(vxtest::inChild([this] {
                  ::close(0);
                  configd_handle *handle = configd_open();
                  if (handle == nullptr || handle->fd != 0) return 100;
                  if (configd_send(handle, "ask", 3) != 3) return 1;
                  char text[16];
                  if (daemon.send(daemon.receive(), "answer") != 0) return 101;
                  if (configd_recv(handle, text, sizeof text) != 6) return 2;
                  configd_close(handle);
                  return ::fcntl(0, F_GETFD) == -1 ? 0 : 3;
              }),
              0);
}

// Addresses of handles, which first names are made from, are even.
TEST_F(ConfigdAnswers, NewNamesHaveOddNumbersThatRise) {
    const Handle handle = openHandle();
    giveUp(handle.get());
    unsigned long long last = 0;
    for (int i = 0; i < 16; ++i) {
        const std::string name = giveUp(handle.get());
        const unsigned long long number = std::stoull(name.substr(name.rfind('.') + 1), nullptr, 16);
        EXPECT_EQ(number % 2, 1U) << name;
        EXPECT_GT(number, last) << name;
        last = number;
    }
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

TEST_F(ConfigdAnswers, NoProcessorTimeGoesIntoWaitingForOneThatCannotCome) {
    const Handle handle = openHandle();
    auto array = entries({{"key", "untouched"}});
    std::thread asking([&] { EXPECT_EQ(configd_prepare_get(handle.get(), array.data()), -1); });
    EXPECT_EQ(daemon.send(daemon.receive(), "x"), 0);
    asking.join();
    const auto spent_s = [] {
        timespec time{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    };
    const double before_s = spent_s();
    char text[16];
    EXPECT_EQ(configd_recv(handle.get(), text, sizeof text), -1);
    EXPECT_LT(spent_s() - before_s, 1.0);
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
    std::atomic<bool> answersWithoutEnd = true;
    const vxtest::Hooked full(vxtest::hooks::recvfrom,
                              [&](int, void *, size_t, int flags, sockaddr *, socklen_t *) -> std::optional<ssize_t> {
                                  if (!answersWithoutEnd || (flags & MSG_DONTWAIT) == 0) return std::nullopt;
                                  return 1;
                              });
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
    {
        const auto replace = [](int fd, const sockaddr *address, socklen_t length) -> std::optional<int> {
            const int result = vxtest::real::bind(fd, address, length);
            const char *const path = reinterpret_cast<const sockaddr_un *>(address)->sun_path;
            ::unlink(path);
            std::filesystem::create_symlink(victim, path);
            return result;
        };
        const vxtest::Hooked stranger(vxtest::hooks::bind, replace);
        const Handle handle = openHandle();
    }
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

TEST_F(ConfigdLateAnswers, TheAnswerOfARequestThatWasGivenUpIsNotTakenForTheNext) {
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

TEST_F(ConfigdLateAnswers, SeveralLateAnswersAreThrownAwayBeforeEachRequest) {
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

TEST_F(ConfigdLateAnswers, LateEchoesAndReadinessAreNotTakenForLaterOnes) {
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

TEST_F(ConfigdLateAnswers, AfterTheNamesOf128HandlesAllSocketsHaveNewOnes) {
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

}  // namespace
