// SPDX-License-Identifier: MIT
// What the headers allow threads to share: eight threads use it at once, while signals interrupt their system calls and
// the process forks. The preset tsan runs these tests under the thread sanitizer. The table of what may be shared is in
// docs/testing.md.
#include <arpa/inet.h>
#include <event.h>
#include <fcntl.h>
#include <net/if.h>
#include <netdb.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/adc.h>
#include <vxutils/address.h>
#include <vxutils/cellular.h>
#include <vxutils/cfread.h>
#include <vxutils/command.h>
#include <vxutils/configd.h>
#include <vxutils/configdaemonclient.h>
#include <vxutils/configreader.h>
#include <vxutils/csemaphore.h>
#include <vxutils/digest.h>
#include <vxutils/dio.h>
#include <vxutils/dio_status.h>
#include <vxutils/eventsource.h>
#include <vxutils/file.h>
#include <vxutils/hardware.h>
#include <vxutils/hashtable.h>
#include <vxutils/interface.h>
#include <vxutils/ipaddress.h>
#include <vxutils/ipinterfacestatus.h>
#include <vxutils/list.h>
#include <vxutils/lock.h>
#include <vxutils/memstream.h>
#include <vxutils/messagequeue.h>
#include <vxutils/numconv.h>
#include <vxutils/ping.h>
#include <vxutils/pingclient.h>
#include <vxutils/process.h>
#include <vxutils/processcontrol.h>
#include <vxutils/qxlog.h>
#include <vxutils/route.h>
#include <vxutils/sem.h>
#include <vxutils/statusinterface.h>
#include <vxutils/storage.h>
#include <vxutils/strutil.h>
#include <vxutils/systeminfo.h>
#include <vxutils/timefmt.h>
#include <vxutils/version.h>
#include <vxutils/vxevent.h>
#include <vxutils/vxstring.h>
#include <vxutils/wwanmd.h>
#include <vxutils/xprintf.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/board.h"
#include "support/configd.h"
#include "support/device_log.h"
#include "support/emulation.h"
#include "support/files.h"
#include "support/netns.h"
#include "support/process.h"
#include "support/resources.h"
#include "support/syslog_capture.h"
#include "support/wwanmd.h"

namespace {

using namespace std::chrono_literals;
using vxtest::writeFile;

constexpr int threadCount = 8;

// ---- The storm ----

std::atomic<unsigned long> signalsHandled{0};
std::atomic<bool (*)()> handlerWork{nullptr};
std::atomic<bool> handlerFailed{false};

void onSignal(int) {
    const int error = errno;
    ++signalsHandled;
    bool (*const work)() = handlerWork;
    if (work != nullptr && !work()) handlerFailed = true;
    errno = error;
}

// Interrupts system calls of these threads again and again, without restarting them.
class SignalStorm {
public:
    explicit SignalStorm(const std::vector<pthread_t> &threads) {
        struct sigaction action {};
        action.sa_handler = onSignal;
        ::sigaction(SIGUSR1, &action, &before_);
        sender_ = std::thread([this, &threads] {
            for (size_t next = 0; !stop_; ++next) {
                ::pthread_kill(threads[next % threads.size()], SIGUSR1);
                std::this_thread::sleep_for(100us);
            }
        });
    }
    ~SignalStorm() {
        stop_ = true;
        sender_.join();
    }
    SignalStorm(const SignalStorm &) = delete;
    SignalStorm &operator=(const SignalStorm &) = delete;

private:
    std::atomic<bool> stop_{false};
    std::thread sender_;
    struct sigaction before_ {};
};

// Whether a process with threads can fork children that go on with the library. The emulator's own locks do not survive
// that, nor do those of the sanitizers' memory: a child that is forked while a thread allocates waits for them for ever.
bool canFork() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return false;
#else
    return !vxtest::emulated();
#endif
}

// Eight threads do `work` until each has done it `rounds` times. Meanwhile signals interrupt them, and children are forked
// that do `inChild` once. That must not log anything: the C library's lock of the system log does not survive fork() in a
// process with threads.
void together(int rounds, const std::function<void(int thread)> &work, const std::function<bool()> &inChild = nullptr) {
    const unsigned long before = signalsHandled;
    std::atomic<int> running{threadCount};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    std::vector<pthread_t> handles;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([&, thread] {
            while (!go) std::this_thread::yield();
            // A thread whose work is done keeps the others company until a signal has been handled.
            for (int round = 0; round < rounds || signalsHandled == before; ++round) work(thread);
            --running;
        });
        handles.push_back(threads.back().native_handle());
    }
    {
        const SignalStorm storm(handles);
        go = true;
        while (running > 0) {
            std::this_thread::sleep_for(5ms);
            if (!inChild || !canFork()) continue;
            EXPECT_EQ(vxtest::inChild([&] { return inChild() ? 0 : 1; }), 0) << "in a child";
        }
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_GT(signalsHandled, before);
}

class Races : public testing::Test {
protected:
    Races() {
        vxtest::makeDirs("/tmp/races");
        writeFile("/usr/lib/libvxutils.so.1.0.0", "");  // the log and the semaphores are named after it
    }
    ~Races() override {
        handlerWork = nullptr;
        EXPECT_FALSE(handlerFailed.exchange(false));
    }

    const vxtest::NoLeaks noLeaks_;
};

std::string own(const char *name, int thread) { return "/tmp/races/" + std::string(name) + std::to_string(thread); }

// ---- Functions without state ----

bool digestIsRight() {
    Md5HashContext md5;
    unsigned char out[16] = {};
    md5.initialize(sizeof out);
    md5.hash(reinterpret_cast<const unsigned char *>("abc"), 3);
    md5.getHash(out);
    Sha1HashContext sha1;
    unsigned char longer[20] = {};
    sha1.initialize(sizeof longer);
    sha1.hash(reinterpret_cast<const unsigned char *>("abc"), 3);
    sha1.getHash(longer);
    return out[0] == 0x90 && out[15] == 0x72 && longer[0] == 0xa9 && longer[19] == 0x9d;
}

bool listIsRight() {
    list_link head{&head, &head}, first{}, second{};
    list_add_tail(&second, &head);
    list_add(&first, &head);
    if (head.next != &first || first.next != &second) return false;
    list_del(&first);
    list_del_init(&second);
    return list_empty(&head) != 0;
}

bool textsAreRight() {
    char text[40];
    mem_stream stream{text, sizeof text};
    if (mem_stream_puts(&stream, "stream") != 0 || std::strcmp(text, "stream") != 0) return false;
    if (snxprintf(text, 1, sizeof text, "%05d %s", -42, "text") != 9 || std::strcmp(text, "0042 text") != 0)
        return false;
    if (strlenf("%s", "five5") != 5 || strlcpy(text, "copy", sizeof text) != 4) return false;
    if (std::strcmp(strtoupper(text), "COPY") != 0) return false;
    return stricmp("A", "a") == 0 && std::strcmp(skipchars("  x", " "), "x") == 0;
}

bool numbersAreRight() {
    char text[40];
    int error = 0;
    return std::strcmp(i32toa(-123456, text, 10), "-123456") == 0 && valueOf32("10x") == 16 &&
           validValueOf32(&error, "77") == 77 && error == 0 && nextHigherPowerOf2(5) == 8 &&
           uselapsed({1, 0}, {2, 1000}) == 1000001 && vxutils_version() != nullptr;
}

// All of these may be called in a signal handler too.
bool signalSafe() { return digestIsRight() && listIsRight() && textsAreRight() && numbersAreRight(); }

bool addressesAreRight() {
    sockaddr_in6 room{};
    auto *const address = reinterpret_cast<sockaddr *>(&room);
    char text[64];
    if (str2addr("192.0.2.7", address) != 0 || std::strcmp(addr2str(text, address), "192.0.2.7") != 0) return false;
    unsigned long size = 0;
    return IpAddress::s_isV4MaskValid(0xffffff00, size) && size == 24 && get_generation("LTE") == 4 &&
           validateTime("23:59:59") == 0;
}

TEST_F(Races, FunctionsWithoutStateInThreadsHandlersAndChildren) {
    EXPECT_TRUE(digestIsRight());
    EXPECT_TRUE(listIsRight());
    EXPECT_TRUE(textsAreRight());
    EXPECT_TRUE(numbersAreRight());
    EXPECT_TRUE(addressesAreRight());
    handlerWork = signalSafe;
    together(
        300, [](int) { EXPECT_TRUE(signalSafe() && addressesAreRight()); },
        [] { return signalSafe() && addressesAreRight(); });
}

// ---- Static buffers ----

// Each function may be called by one thread at a time; other threads may be in the other functions meanwhile.
TEST_F(Races, FunctionsWithStaticBuffersDoNotShareThem) {
    vxtest::makeDirs("/proc/self");
    writeFile("/tmp/races/text", "content\n");
    const time_t noon = 1700000000;
    const std::string when = timeformat(&noon);
    const std::string self = procname(::getpid());
    const time_t parsed = timeparse("2024-02-29 12:00:00");
    together(100, [&](int thread) {
        EXPECT_EQ(timeparse("2024-02-29 12:00:00"), parsed) << "has no static buffer";
        switch (thread) {
            case 0:
                EXPECT_STREQ(readfile("/tmp/races/text"), "content");
                break;
            case 1:
                EXPECT_EQ(timeformat(&noon), when);
                break;
            case 2:
                EXPECT_STREQ(format_size(1234), "1234 B");
                break;
            case 3:
                EXPECT_STREQ(format_rate(1000), "7.8 Kbit/s");
                break;
            case 4:
                EXPECT_STREQ(xml_readattr("<tag>value</tag>", "tag"), "value");
                break;
            case 5:
                EXPECT_EQ(procname(::getpid()), self);
                break;
            case 6:
                EXPECT_STREQ(interfaceize("eth0"), "ETH1");
                EXPECT_STREQ(oem("none"), "");
                break;
            default:
                EXPECT_STREQ(strformat("%d %s", 12, "texts"), "12 texts");
                break;
        }
    });
}

// ---- Files ----

TEST_F(Races, AtomicWritersOfOneFileAndItsReaders) {
    constexpr size_t size = 3000;
    ASSERT_EQ(write_file_atomic("/tmp/races/shared", std::string(size, '0').data(), size, 0, 0), 0);
    const auto whole = [] {
        char text[size + 2];
        if (readfile_r("/tmp/races/shared", text, sizeof text) == nullptr) return false;
        return std::string(text) == std::string(size, text[0]);
    };
    together(
        40,
        [&](int thread) {
            const std::string text(size, static_cast<char>('0' + thread));
            EXPECT_EQ(write_file_atomic("/tmp/races/shared", text.data(), size, 0, 0), 0);
            EXPECT_TRUE(whole());
        },
        whole);
    EXPECT_EQ(vxtest::run({"sh", "-c", "ls /tmp/races | grep -c '^shared_'"}).text, "0\n");
}

// A signal can end a copy before its transfer has begun, as the header says.
int uninterrupted(const std::function<int()> &copy) {
    for (;;) {
        const int result = copy();
        if (result == 0 || errno != EINTR) return result;
    }
}

TEST_F(Races, FilesAndDirectoriesOfOneTree) {
    writeFile("/tmp/races/source/deep/file", "content\n");
    together(
        15,
        [](int thread) {
            const std::string tree = own("tree", thread), copy = tree + "/deep/copy";
            EXPECT_EQ(uninterrupted([&] { return copy_directory("/tmp/races/source", tree.c_str()); }), 0);
            EXPECT_EQ(uninterrupted([&] { return copy_file("/tmp/races/source/deep/file", copy.c_str()); }), 0);
            list_link lines{&lines, &lines};
            EXPECT_EQ(read_file_lines(copy.c_str(), &lines), 1);
            while (list_empty(&lines) == 0) {
                auto *const line = reinterpret_cast<file_line *>(lines.next);
                list_del(&line->list);
                std::free(line->data);
                std::free(line);
            }
            char common[] = "/tmp/races/common/a/b";
            EXPECT_EQ(create_directory(common), 0);
            EXPECT_EQ(try_mkdir("/tmp/races/common"), 0);
            EXPECT_EQ(delete_directory(tree.c_str()), 0);
        },
        [] { return vxtest::readFile("/tmp/races/source/deep/file") == "content\n" && try_mkdir("/tmp/races") == 0; });
}

// ---- Processes ----

TEST_F(Races, ProcessesAndCommands) {
    const int parent = ::getppid();
    together(
        3,
        [&](int thread) {
            EXPECT_EQ(pid_alive(::getpid()), 1);
            EXPECT_EQ(get_parent_pid(::getpid()), parent);
            char caller[64];
            EXPECT_GE(get_caller(caller, sizeof caller), 0);
            EXPECT_EQ(run_command(("exit " + std::to_string(thread + 1)).c_str(), 0), thread + 1);
            char out[64];
            EXPECT_EQ(eval_command(("echo thread" + std::to_string(thread)).c_str(), out, sizeof out), 8);
            EXPECT_EQ(std::string(out), "thread" + std::to_string(thread) + "\n");
            char **arguments = nullptr;
            int count = 0;
            EXPECT_EQ(makeargv("one 'two words' three", &arguments, &count), 0);
            EXPECT_EQ(count, 3);
            freeargv(arguments);
            ProcessControl processes;
            processes.refresh(false);
            EXPECT_GT(processes.getNumberOfProcessesByName(nullptr), 0);
        },
        [] { return run_command("exit 3", 0) == 3 && pid_alive(::getpid()) == 1; });
}

// ---- Locks ----

// The thread sanitizer keeps signals back from semop() and does not see that it orders memory: the count is atomic.
TEST_F(Races, OnePlainSemaphore) {
    writeFile("/tmp/races/key", "");
    CSemaphore semaphore("/tmp/races/key", 1);
    ASSERT_EQ(semaphore.init(), 0);
    std::atomic<int> inside{0}, count{0};
    together(
        50,
        [&](int) {
            ASSERT_EQ(semaphore.lock(), 0);
            EXPECT_EQ(++inside, 1);
            ++count;
            --inside;
            ASSERT_EQ(semaphore.unlock(), 0);
        },
        [&] { return semaphore.lock() == 0 && semaphore.unlock() == 0; });
    EXPECT_GE(count, 50 * threadCount);
}

TEST_F(Races, OneRecursiveSemaphoreAndOthersOfItsName) {
    CRecursiveSemaphore shared("/races");
    int count = 0;
    std::atomic<int> rounds{0};
    together(
        30,
        [&](int) {
            CRecursiveSemaphore another("/races");
            ASSERT_EQ(shared.lock(), 0);
            ASSERT_EQ(another.trylock(), 0);
            ++count;
            ++rounds;
            ASSERT_EQ(another.unlock(), 0);
            ASSERT_EQ(shared.unlock(), 0);
        },
        [&] { return shared.lock() == 0 && shared.unlock() == 0; });
    EXPECT_EQ(count, rounds);
}

TEST_F(Races, OneHandleOfALock) {
    sem_handle *const handle = sem_create("/races-plain");
    ASSERT_NE(handle, nullptr);
    int count = 0;
    std::atomic<int> rounds{0};
    together(
        200,
        [&](int) {
            while (sem_trylock(handle) == EBUSY) std::this_thread::yield();
            ASSERT_EQ(sem_lock(handle), 0);
            ++count;
            ++rounds;
            ASSERT_EQ(sem_unlock(handle), 0);
            ASSERT_EQ(sem_unlock(handle), 0);
        },
        [&] { return sem_lock(handle) == 0 && sem_unlock(handle) == 0; });
    EXPECT_EQ(count, rounds);
    sem_release(handle);
}

// The packet-filter lock is one for a process: its threads take turns by a mutex of the program's own.
TEST_F(Races, DirectoryLocksAndThePacketFilterLock) {
    vxtest::makeDirs("/var/lock");
    std::mutex turn;
    std::atomic<int> inside{0};
    together(
        40,
        [&](int thread) {
            EXPECT_EQ(acquire_lock(own("lock", thread).c_str(), 1), 0);
            EXPECT_EQ(release_lock(own("lock", thread).c_str()), 0);
            const std::lock_guard guard(turn);
            firewall_lock_handle *const lock = firewall_lock();
            ASSERT_NE(lock, nullptr);
            EXPECT_EQ(++inside, 1);
            --inside;
            EXPECT_EQ(firewall_unlock(lock), 0);
        },
        [] { return acquire_lock("/tmp/races/child", 1) == 0 && release_lock("/tmp/races/child") == 0; });
}

// ---- Loop, queue, events ----

class Counting : public IMQEventsink {
public:
    explicit Counting(CEPollEventsource &loop) : loop_(loop) {}
    void onMessage(CMessageQueue *, const CQMsg &message) override {
        if (message.code == last) return loop_.terminate();
        ++received;
    }
    void onQueueError(CMessageQueue *) override { ADD_FAILURE() << "the queue is broken"; }

    static constexpr int last = -1;
    int received = 0;

private:
    CEPollEventsource &loop_;
};

TEST_F(Races, SendersToOneQueue) {
    CEPollEventsource loop;
    Counting sink(loop);
    CMessageQueue queue(&sink, &loop);
    ASSERT_EQ(loop.init(), 0);
    ASSERT_EQ(queue.init(), 0);
    std::thread consumer([&] { EXPECT_EQ(loop.evtLoop(), 0); });
    std::atomic<int> sent{0};
    together(100, [&](int) {
        queue.lock();
        queue.unlock();
        EXPECT_EQ(queue.send(CQMsg(1)), 0);
        ++sent;
    });
    EXPECT_EQ(queue.send(CQMsg(Counting::last)), 0);
    consumer.join();
    EXPECT_EQ(sink.received, sent);
}

CEPollEventsource *handlersLoop = nullptr;

TEST_F(Races, ALoopEndedByThreadsAndHandlers) {
    CEPollEventsource loop;
    ASSERT_EQ(loop.init(), 0);
    handlersLoop = &loop;
    std::thread runner([&] { EXPECT_EQ(loop.evtLoop(), 0); });
    handlerWork = [] {
        handlersLoop->terminate();
        return true;
    };
    together(20, [&](int) { loop.terminate(); });
    handlerWork = nullptr;
    runner.join();
}

// Records arrive whole, from threads, handlers and children.
TEST_F(Races, WritersOfEvents) {
    vxtest::makeDirs("/tmp/status/event-manager");
    ASSERT_EQ(::mkfifo("/tmp/status/event-manager/throw", 0600), 0);
    const int reader = ::open("/tmp/status/event-manager/throw", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_NE(reader, -1);
    std::atomic<bool> stop{false};
    std::atomic<int> sent{0};
    int received = 0;
    const auto drain = [&] {
        vxevent_record record{};
        ssize_t got = 0;
        while ((got = ::read(reader, &record, sizeof record)) > 0) {
            EXPECT_EQ(got, static_cast<ssize_t>(sizeof record));
            EXPECT_EQ(record.id, 7U);
            EXPECT_STREQ(record.text, "races");
            ++received;
        }
    };
    std::thread manager([&] {
        while (!stop) {
            drain();
            std::this_thread::sleep_for(1ms);
        }
        drain();
    });
    static std::atomic<int> byHandlers{0};
    byHandlers = 0;
    handlerWork = [] {
        ++byHandlers;
        return vxevent(7, 2, "races") == 0;
    };
    together(
        50,
        [&](int thread) {
            EXPECT_EQ(vxevent(7, static_cast<unsigned int>(thread), "races"), 0);
            ++sent;
        },
        [] { return vxevent(7, 1, "races") == 0; });
    handlerWork = nullptr;
    stop = true;
    manager.join();
    EXPECT_GE(received, sent + byHandlers) << "children's come on top";
    ::close(reader);
    ::unlink("/tmp/status/event-manager/throw");
}

// ---- Tables and objects that are only read ----

TEST_F(Races, TablesThatNoThreadChanges) {
    writeFile("/etc/default/system-info", "NAME=\"races\"\nNUMBER=\"17\"\n");
    writeFile("/tmp/races/reader.conf", "key=value\nlist.0=first\n");
    INStringHashTable texts(16);
    INUInt32HashTable numbers(16, HASH_LOW_BITS);
    int value = 5;
    texts.addEntry("key", &value);
    numbers.addEntry(77, &value);
    systeminfo_table *const system = systeminfo_init();
    ASSERT_NE(system, nullptr);
    ConfigReader reader;
    ASSERT_TRUE(reader.initialize(String("/tmp/races/reader.conf"), 16));
    const IpAddress address(0xc0000201, 0xffffff00);
    const auto asked = [&] {
        void *found = nullptr;
        if (!texts.getValueFromKey("key", &found) || found != &value) return false;
        if (!numbers.getValueFromKey(77, &found) || found != &value) return false;
        if (std::strcmp(systeminfo_getvar(system, "NAME"), "races") != 0) return false;
        if (systeminfo_getint(system, "NUMBER") != 17) return false;
        const String key("key"), none("none");
        if (!(reader.getValue(key, none) == "value")) return false;
        return address.getV4NetAddrAsBinaryUInt32() == 0xc0000200 && address.isV4ClassC();
    };
    EXPECT_TRUE(asked());
    together(
        100,
        [&](int) {
            EXPECT_TRUE(asked());
            systeminfo_table *const again = systeminfo_init();
            EXPECT_NE(again, nullptr);
            systeminfo_free(again);
        },
        asked);
    systeminfo_free(system);
}

// ---- Network ----

TEST_F(Races, RoutesPingsAndInterfaces) {
    vxtest::ip("link set lo up");
    const IpInterfaceStatus shared;
    addrinfo hints{}, *target = nullptr;
    hints.ai_family = AF_INET;
    hints.ai_flags = AI_NUMERICHOST;
    ASSERT_EQ(::getaddrinfo("127.0.0.1", nullptr, &hints, &target), 0);
    const auto asked = [&] { return shared.isInterfaceUp("lo") == 1 && shared.getIpV4Address("lo") == 0x7f000001; };
    together(
        10,
        [&](int) {
            EXPECT_TRUE(asked());
            char name[IFNAMSIZ] = "";
            EXPECT_EQ(route_get_interface(target, name), 0);
            EXPECT_STREQ(name, "lo");
            EXPECT_EQ(icmpping("lo", "127.0.0.1", 5000), 0);
            EXPECT_EQ(wanlink_count(), 0);
            EXPECT_EQ(wanlink_is_up(), 0);
        },
        asked);
    ::freeaddrinfo(target);
}

// ---- Board ----

TEST_F(Races, LinesAndConvertersOfTheBoard) {
    vxtest::plainBoardTree();
    for (int line = 1; line <= threadCount; ++line) {
        writeFile("/sys/devices/vantorix/din" + std::to_string(line) + "/value", "1\n");
        writeFile("/sys/devices/vantorix/dout" + std::to_string(line) + "/value", "0\n");
        writeFile(own("raw", line - 1), std::to_string(line) + "\n");
    }
    const auto counted = [] {
        unsigned int lines = 0;
        return dio_count(&lines) == DIO_OK && lines == 2 * threadCount;
    };
    together(
        20,
        [&](int thread) {
            EXPECT_TRUE(counted());
            unsigned char on = 0;
            EXPECT_EQ(dio_roValue(static_cast<unsigned int>(thread) + 1, &on), DIO_OK);
            EXPECT_EQ(on, 1);
            EXPECT_EQ(dio_setValue(thread + 1, 1), DIO_OK);
            EXPECT_EQ(dio_rwValue(thread + 1, &on), DIO_OK);
            EXPECT_EQ(on, 1);
            dio_status status{};
            EXPECT_EQ(dio_getStatus(&status), DIO_OK);
            float value = 0;
            EXPECT_EQ(adc_read(own("raw", thread).c_str(), nullptr, &value), 0);
            EXPECT_EQ(value, static_cast<float>(thread + 1));
        },
        counted);
    vxtest::removePlainBoardTree();
}

// ---- Device log ----

TEST_F(Races, WritersAndReadersOfTheDeviceLog) {
    vxtest::makeDirs("/var/log");
    together(
        5,
        [](int thread) {
            EXPECT_TRUE(vxtest::appendsInTurn(1, "of thread " + std::to_string(thread)));
            std::array<char, 65536> text{};
            EXPECT_GE(qxlog_read(text.data(), text.size()), 0);
        },
        // Not qxlog(): the C library's lock of the time zone does not survive fork() in a process with threads.
        [] {
            std::array<char, 65536> text{};
            return qxlog_read(text.data(), text.size()) >= 0;
        });
    EXPECT_EQ(qxlog_clear(), 0);
}

// ---- Handles and objects of each thread's own ----

TEST_F(Races, HandlesOfTheConfigurationDaemon) {
    vxtest::makeDirs("/var/run/configd");
    vxtest::Configd daemon;
    for (int thread = 0; thread < threadCount; ++thread) {
        const std::string number = std::to_string(thread);
        daemon.tell("set port." + number + ".speed " + number);
    }
    together(
        10,
        [](int thread) {
            configd_handle *const handle = configd_open();
            ASSERT_NE(handle, nullptr);
            std::array<configd_entry, 2> change{};
            std::snprintf(change[0].key, sizeof change[0].key, "races.%d", thread);
            std::strcpy(change[0].value, "set");
            EXPECT_EQ(configd_set(handle, change.data()), 0);
            configd_add_query(handle, "port.%d.speed", thread);
            EXPECT_EQ(configd_fetch(handle, "port.%d.speed", thread), std::to_string(thread));
            configd_close(handle);
            String value("none");
            const ConfigDaemonClient client;
            EXPECT_TRUE(client.getIndexedValue(String("races.%lu"), static_cast<unsigned long>(thread), value) ==
                        "set");
        },
        [] {
            configd_handle *const handle = configd_open();
            const bool opened = handle != nullptr;
            configd_close(handle);
            return opened;
        });
}

// The program's name in the log is process-wide, and each of these threads sets another one.
TEST_F(Races, HandlesOfTheModemDaemon) {
    vxtest::SyslogCapture log;
    vxtest::wwanmd::Modem modem;
    modem.tell("echo");
    std::array<vxtest::wwanmd::Handle, threadCount> handles;
    together(5, [&](int thread) {
        auto &handle = handles.at(static_cast<size_t>(thread));
        const std::string name = "races" + std::to_string(thread);
        if (!handle) handle.reset(wwanmd_init(0, name.c_str()));
        ASSERT_NE(handle, nullptr);
        vxtest::wwanmd::Message message("command of " + name, 5);
        handle->last_io = {};
        EXPECT_EQ(wwanmd_command(handle.get(), &message), 0);
        EXPECT_EQ(message.text().substr(0, message.text().find('\n')), " command of " + name);
        EXPECT_EQ(wwanmd_is_suspended(0), 0);
    });
    handles = {};
    ::closelog();
}

TEST_F(Races, ObjectsOfEachThread) {
    writeFile("/tmp/races/table.conf", "port.mtu=1500\n");
    vxtest::makeDirs("/tmp/status");
    const auto used = [](int thread) {
        cfread_table *const table = cfread_open("/tmp/races/table.conf");
        const cfread_entry *const entry = table != nullptr ? cfread_find_entry(table, "port.mtu") : nullptr;
        EXPECT_TRUE(entry != nullptr && entry->ival == 1500);
        cfread_close(table);
        String text("text"), copy(text);
        copy += String("s");
        EXPECT_TRUE(text == "text" && copy == "texts");
        INStringHashTable words(8);
        EXPECT_TRUE(words.addEntry("word", &words) && words.removeEntry("word"));
        storage_list *const found = old_get_storage(0);
        EXPECT_NE(found, nullptr);
        old_free_storage(found);
        std::free(found);
        StatusInterface status;
        EXPECT_TRUE(status.setup(BASEPATH_STATUS, String(("/races" + std::to_string(thread)).c_str())));
        EXPECT_TRUE(status.setStatus(String("/state"), String("up")));
        String state;
        EXPECT_TRUE(status.getStatus(String("/state"), state) && state == "up");
        status.cleanup();
        return true;
    };
    together(
        10, [&](int thread) { used(thread); }, [&] { return used(threadCount); });
}

}  // namespace
