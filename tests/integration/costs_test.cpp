// SPDX-License-Identifier: MIT
// What calls cost, counted: system calls by tracing, allocations and copies of a value by functions of this program that take
// the place of the C library's. The table in docs/guides/costs.md has to say the same.
#include <fcntl.h>
#include <netdb.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <vxutils/adc.h>
#include <vxutils/cfread.h>
#include <vxutils/command.h>
#include <vxutils/configd.h>
#include <vxutils/configreader.h>
#include <vxutils/csemaphore.h>
#include <vxutils/digest.h>
#include <vxutils/dio.h>
#include <vxutils/eventsource.h>
#include <vxutils/file.h>
#include <vxutils/hashtable.h>
#include <vxutils/ipaddress.h>
#include <vxutils/lock.h>
#include <vxutils/messagequeue.h>
#include <vxutils/process.h>
#include <vxutils/qxlog.h>
#include <vxutils/route.h>
#include <vxutils/sem.h>
#include <vxutils/statusinterface.h>
#include <vxutils/strutil.h>
#include <vxutils/vxevent.h>
#include <vxutils/vxstring.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/board.h"
#include "tests/support/configd.h"
#include "tests/support/files.h"

namespace {

constexpr size_t valueLength = 200;
constexpr size_t shortestPart = 64;

struct Counts {
    bool counting;
    int allocations;
    size_t copied;  // bytes, without what is too short to be a part of the value
};
Counts counts{};

void copyBytes(void *to, const void *from, size_t size) {
    if (counts.counting && size >= shortestPart) counts.copied += size;
    // volatile: the compiler would make a call of memcpy() of it
    auto *target = static_cast<volatile char *>(to);
    const auto *source = static_cast<const volatile char *>(from);
    if (reinterpret_cast<uintptr_t>(to) <= reinterpret_cast<uintptr_t>(from)) {
        for (size_t i = 0; i < size; ++i) target[i] = source[i];
    } else {
        for (size_t i = size; i > 0; --i) target[i - 1] = source[i - 1];
    }
}

}  // namespace

// The library calls these of the program instead of the C library's. A block is counted where it is asked for.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): names of the C library
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);

void *malloc(size_t size) {
    if (counts.counting) ++counts.allocations;
    return __libc_malloc(size);
}
void *calloc(size_t count, size_t size) {
    if (counts.counting) ++counts.allocations;
    return __libc_calloc(count, size);
}
void *realloc(void *block, size_t size) {
    if (counts.counting) ++counts.allocations;
    return __libc_realloc(block, size);
}
void *memcpy(void *to, const void *from, size_t size) {
    copyBytes(to, from, size);
    return to;
}
void *memmove(void *to, const void *from, size_t size) {
    copyBytes(to, from, size);
    return to;
}
void *__memcpy_chk(void *to, const void *from, size_t size, size_t room) {
    if (size > room) std::abort();
    copyBytes(to, from, size);
    return to;
}
void *__memmove_chk(void *to, const void *from, size_t size, size_t room) {
    if (size > room) std::abort();
    copyBytes(to, from, size);
    return to;
}
void *mempcpy(void *to, const void *from, size_t size) {
    copyBytes(to, from, size);
    return static_cast<char *>(to) + size;
}
void *__mempcpy_chk(void *to, const void *from, size_t size, size_t room) {
    if (size > room) std::abort();
    return mempcpy(to, from, size);
}
char *stpcpy(char *to, const char *from) {
    const size_t length = std::strlen(from);
    copyBytes(to, from, length + 1);
    return to + length;
}
char *strcpy(char *to, const char *from) {
    (void)stpcpy(to, from);
    return to;
}
char *strndup(const char *from, size_t size) {
    const size_t length = ::strnlen(from, size);
    auto *copy = static_cast<char *>(malloc(length + 1));
    if (copy == nullptr) return nullptr;
    copyBytes(copy, from, length);
    copy[length] = '\0';
    return copy;
}
char *strdup(const char *from) { return strndup(from, std::strlen(from)); }
// Other libraries of the process have one too, which the library may find before its own.
size_t strlcpy(char *to, const char *from, size_t room) VXUTILS_STRLCPY_NOTHROW {
    const size_t length = std::strlen(from);
    if (room == 0) return length;
    const size_t copied = std::min(length, room - 1);
    copyBytes(to, from, copied);
    to[copied] = '\0';
    return length;
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace {

// A call of the table. It is made three times, so that what the first call of a process prepares is not counted, and what
// comes before and after it each time is not either.
struct Call {
    const char *name;
    std::function<bool()> call;  // whether it did what it is for
    std::function<void()> before = [] {};
    std::function<void()> after = [] {};
};

struct Cost {
    std::string systemCalls;
    std::string allocations;
    std::string copies;
    bool operator==(const Cost &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Cost &cost) {
    return out << cost.systemCalls << " | " << cost.allocations << " | " << cost.copies;
}

#define NAMED(call) \
    { SYS_##call, #call }
const std::map<long, const char *> systemCallNames{NAMED(access),
                                                   NAMED(bind),
                                                   NAMED(clock_nanosleep),
                                                   NAMED(clone),
                                                   NAMED(clone3),
                                                   NAMED(close),
                                                   NAMED(connect),
                                                   NAMED(dup),
                                                   NAMED(epoll_create1),
                                                   NAMED(epoll_ctl),
                                                   NAMED(epoll_wait),
                                                   NAMED(faccessat),
                                                   NAMED(fchmod),
                                                   NAMED(fchmodat),
                                                   NAMED(fcntl),
                                                   NAMED(flock),
                                                   NAMED(fsync),
                                                   NAMED(ftruncate),
                                                   NAMED(futex),
                                                   NAMED(getdents64),
                                                   NAMED(getpeername),
                                                   NAMED(getpid),
                                                   NAMED(getrandom),
                                                   NAMED(getsockname),
                                                   NAMED(geteuid),
                                                   NAMED(getuid),
                                                   NAMED(ioctl),
                                                   NAMED(link),
                                                   NAMED(lseek),
                                                   NAMED(lstat),
                                                   NAMED(mkdir),
                                                   NAMED(mkdirat),
                                                   NAMED(mmap),
                                                   NAMED(munmap),
                                                   NAMED(newfstatat),
                                                   NAMED(open),
                                                   NAMED(openat),
                                                   NAMED(pipe2),
                                                   NAMED(poll),
                                                   NAMED(pread64),
                                                   NAMED(pselect6),
                                                   NAMED(pwrite64),
                                                   NAMED(read),
                                                   NAMED(readlink),
                                                   NAMED(recvfrom),
                                                   NAMED(recvmsg),
                                                   NAMED(rename),
                                                   NAMED(rmdir),
                                                   NAMED(rt_sigaction),
                                                   NAMED(rt_sigprocmask),
                                                   NAMED(select),
                                                   NAMED(semctl),
                                                   NAMED(semget),
                                                   NAMED(semop),
                                                   NAMED(semtimedop),
                                                   NAMED(sendfile),
                                                   NAMED(sendmsg),
                                                   NAMED(sendto),
                                                   NAMED(setsockopt),
                                                   NAMED(fstat),
                                                   NAMED(socket),
                                                   NAMED(stat),
                                                   NAMED(timerfd_create),
                                                   NAMED(timerfd_settime),
                                                   NAMED(unlink),
                                                   NAMED(unlinkat),
                                                   NAMED(utimensat),
                                                   NAMED(vfork),
                                                   NAMED(wait4),
                                                   NAMED(write),
                                                   NAMED(writev),
                                                   NAMED(shmget),
                                                   NAMED(getsockopt),
                                                   NAMED(chmod),
                                                   NAMED(getegid),
                                                   NAMED(prlimit64),
                                                   NAMED(sigaltstack),
                                                   NAMED(set_robust_list),
                                                   NAMED(umask),
                                                   NAMED(statfs),
                                                   NAMED(gettid)};
#undef NAMED

// A system call that the library does not make: the one that begins and ends what is counted.
constexpr pid_t markProcess = -12345;
void mark() { (void)::getpgid(markProcess); }

bool isMark(const __ptrace_syscall_info &info) {
    return info.entry.nr == SYS_getpgid && static_cast<pid_t>(info.entry.args[0]) == markProcess;
}

// Lets the stopped process run to its next entry into a system call; false when it has ended, with its status.
bool toNextEntry(pid_t process, __ptrace_syscall_info &info, int &status) {
    int signal = 0;
    for (;;) {
        if (::ptrace(PTRACE_SYSCALL, process, nullptr, signal) == -1) return false;
        if (::waitpid(process, &status, 0) != process || !WIFSTOPPED(status)) return false;
        signal = WSTOPSIG(status) == (SIGTRAP | 0x80) ? 0 : WSTOPSIG(status);
        if (signal != 0) continue;
        if (::ptrace(PTRACE_GET_SYSCALL_INFO, process, sizeof info, &info) == -1) return false;
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY) return true;
    }
}

std::string systemCallName(uint64_t number) {
    const auto found = systemCallNames.find(static_cast<long>(number));
    return found != systemCallNames.end() ? found->second : "system call " + std::to_string(number);
}

// Their number and the names in the order of their first appearance, each with how often it is there.
std::string summary(const std::vector<std::string> &names) {
    std::string text = std::to_string(names.size());
    for (auto name = names.begin(); name != names.end(); ++name) {
        if (std::find(names.begin(), name, *name) != name) continue;
        const auto times = std::count(name, names.end(), *name);
        text += (name == names.begin() ? ": " : ", ") + *name + (times > 1 ? " ×" + std::to_string(times) : "");
    }
    return text;
}

Cost measured(const Call &call) {
    void *shared = ::mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(shared, MAP_FAILED);
    const pid_t process = ::fork();
    if (process == 0) {
        if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == -1) ::_exit(1);
        ::raise(SIGSTOP);
        for (int round = 0; round < 2; ++round) {
            call.before();
            if (!call.call()) ::_exit(2);
            call.after();
        }
        call.before();
        counts = {true, 0, 0};
        mark();
        const bool worked = call.call();
        mark();
        counts.counting = false;
        call.after();
        *static_cast<Counts *>(shared) = counts;
        ::_exit(worked ? 0 : 2);
    }
    std::vector<std::string> names;
    bool counting = false;
    int status = 0;
    __ptrace_syscall_info info{};
    ::waitpid(process, &status, 0);
    EXPECT_EQ(::ptrace(PTRACE_SETOPTIONS, process, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL), 0);
    while (toNextEntry(process, info, status)) {
        if (isMark(info)) {
            counting = !counting;
        } else if (counting && info.entry.nr != SYS_getrandom) {  // of mkostemp(), in one of 22 calls
            names.push_back(systemCallName(info.entry.nr));
        }
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << call.name << " did not work: " << status;
    const Counts counted = *static_cast<Counts *>(shared);
    ::munmap(shared, sizeof(Counts));
    return {summary(names), std::to_string(counted.allocations),
            std::to_string((counted.copied + valueLength / 2) / valueLength)};
}

// The rows of the page's tables whose first cell is one of the calls.
std::map<std::string, Cost> documented() {
    std::map<std::string, Cost> rows;
    std::ifstream page(VXTEST_SOURCE_DIR "/docs/guides/costs.md");
    for (std::string line; std::getline(page, line);) {
        if (!line.starts_with("| `")) continue;
        std::vector<std::string> cells;
        for (size_t at = 2; at < line.size();) {
            const size_t end = line.find(" |", at);
            if (end == std::string::npos) break;
            cells.push_back(line.substr(at, end - at));
            at = end + 3;
        }
        if (cells.size() < 4) continue;
        rows[cells[0].substr(1, cells[0].size() - 2)] = {cells[1], cells[2], cells[3]};
    }
    return rows;
}

class Nothing : public ITimeoutEventsink, public IFDEventsink, public IMQEventsink {
public:
    void onTimeout(unsigned int) override {}
    int getTimeoutMs() override { return 60000; }
    bool isOneShot() override { return true; }
    void onReadable() override {}
    void onWritable() override {}
    int getFd() const override { return fd; }
    void onMessage(CMessageQueue *, const CQMsg &) override { loop->terminate(); }
    void onQueueError(CMessageQueue *) override {}

    CEPollEventsource *loop = nullptr;
    int fd = -1;
};

// Where a machine has none, the C library looks for it at each local time, with one call and one allocation more.
void makeTimeZone() {
    const std::string none(4, '\0');
    const std::string header = "TZif" + std::string(16, '\0') + none + none + none + none;
    const std::string oneTypeOfFourCharacters("\0\0\0\1\0\0\0\4", 8);
    ::unlink("/etc/localtime");
    vxtest::writeFile("/etc/localtime",
                      header + oneTypeOfFourCharacters + std::string(6, '\0') + std::string("UTC", 4));
}

// Everything that the calls work on.
struct World {
    World() {
        ::mkdir("/tmp/costs", 0755);
        vxtest::writeFile("/tmp/costs/file", value);
        vxtest::writeFile("/tmp/costs/copied", value);
        vxtest::writeFile("/usr/lib/libvxutils.so.1.0.0", "");  // names the guard of the locks
        ::setlogmask(LOG_UPTO(LOG_INFO));
        vxtest::writeFile("/tmp/costs/conf", "wan.target=" + value + "\nwan.card=0\n");
        vxtest::writeFile("/tmp/costs/reader", "wan.target=" + value + "\n");
        ::mkdir("/tmp/status", 0755);
        ::mkdir("/tmp/status/event-manager", 0755);
        ::mkfifo("/tmp/status/event-manager/throw", 0600);
        eventManager = ::open("/tmp/status/event-manager/throw", O_RDWR | O_CLOEXEC | O_NONBLOCK);
        config.tell("set key " + value);
        table.reset(cfread_open("/tmp/costs/conf"));
        reader.initialize("/tmp/costs/reader", 16);
        status.setup(BASEPATH_STATUS, "/costs");
        status.setStatus("/value", value.c_str());
        (void)plain.init();
        recursive = std::make_unique<CRecursiveSemaphore>("/costs");
        for (const char *word : {"alpha", "beta", "gamma"}) hash.addEntry(word, &hash);
        sink.fd = ::open("/tmp/status/event-manager/throw", O_RDWR | O_CLOEXEC | O_NONBLOCK);
        addrinfo hints{};
        hints.ai_family = AF_INET;
        hints.ai_flags = AI_NUMERICHOST;
        ::getaddrinfo("127.0.0.1", nullptr, &hints, &target);
    }

    void drainEvents() const {
        std::array<char, 4096> buffer;
        while (::read(eventManager, buffer.data(), buffer.size()) > 0) continue;
    }

    const std::string value = std::string(valueLength, 'v');
    const String text{value.c_str()};
    const String key{"wan.target"};
    const String name{"/value"};
    const String network{"192.168.1.1/24"};
    vxtest::Configd config;
    vxtest::Board board{4, 2};
    int eventManager = -1;
    std::unique_ptr<cfread_table, decltype(&cfread_close)> table{nullptr, &cfread_close};
    ConfigReader reader;
    StatusInterface status;
    CSemaphore plain{"/tmp/costs/file", 7};
    std::unique_ptr<CRecursiveSemaphore> recursive;
    INStringHashTable hash{16};
    Nothing sink;
    addrinfo *target = nullptr;
};

// A handle of the configuration daemon for each round.
struct Handle {
    void open() {
        handle = configd_open();
        configd_add_query(handle, "key");
    }
    void openAndFetch() {
        open();
        (void)configd_fetch(handle, "key");
    }
    void close() { configd_close(handle); }
    configd_handle *handle = nullptr;
};

TEST(Costs, AreThoseOfTheGuide) {
    makeTimeZone();
    World world;
    Handle config;
    configd_entry change[2]{};
    std::strcpy(change[0].key, "key");
    std::strcpy(change[0].value, world.value.c_str());
    const std::string &value = world.value;
    std::array<char, 4096> buffer{};
    std::unique_ptr<CEPollEventsource> loop;
    std::unique_ptr<CMessageQueue> queue;
    const auto newLoop = [&] {
        queue.reset();
        loop = std::make_unique<CEPollEventsource>();
        (void)loop->init();
        world.sink.loop = loop.get();
    };
    const auto newQueue = [&] {
        newLoop();
        queue = std::make_unique<CMessageQueue>(&world.sink, loop.get());
        (void)queue->init();
    };
    sem_handle *sem = nullptr;
    firewall_lock_handle *firewall = nullptr;
    cfread_table *table = nullptr;
    String copy;
    unsigned char on = 0;
    unsigned int lines = 0;
    void *found = nullptr;
    const auto fetched = [&] { config.openAndFetch(); };
    const auto opened = [&] { config.open(); };
    const auto closed = [&] { config.close(); };

    const std::vector<Call> calls{
        {"configd_open()", [&] { return (config.handle = configd_open()) != nullptr; }, [] {}, closed},
        {"configd_add_query()", [&] { return configd_add_query(config.handle, "%s.%d", "key", 2) == 0; }, opened,
         closed},
        {"configd_fetch(), the first", [&] { return configd_fetch(config.handle, "key") == value; }, opened, closed},
        {"configd_fetch(), each later one", [&] { return configd_fetch(config.handle, "key") == value; }, fetched,
         closed},
        {"configd_set()", [&] { return configd_set(config.handle, change) == 0; }, fetched, closed},
        {"configd_done()", [&] { return configd_done(config.handle) == 0; }, fetched, closed},
        {"configd_close()", [&] { return configd_close(config.handle), true; }, fetched},
        {"cfread_open()", [&] { return (table = cfread_open("/tmp/costs/conf")) != nullptr; }, [] {},
         [&] { cfread_close(table); }},
        {"cfread_find_entry()", [&] { return cfread_find_entry(world.table.get(), "wan.target") != nullptr; }},
        {"ConfigReader::getValue()", [&] { return world.reader.getValue(world.key, world.name) == world.text; }},

        {"write_file_atomic()",
         [&] { return write_file_atomic("/tmp/costs/file", value.c_str(), value.size(), 0, 0) == 0; }},
        {"writefile()", [&] { return writefile("/tmp/costs/file", value.c_str()) == 0; }},
        {"readfile_r()", [&] { return readfile_r("/tmp/costs/file", buffer.data(), buffer.size())[0] == value[0]; }},
        {"copy_file()", [&] { return copy_file("/tmp/costs/file", "/tmp/costs/copied") == 0; }},
        {"run_command(), in the foreground", [&] { return run_command("/bin/true", 0) == 0; }},
        {"eval_command()", [&] { return eval_command("/bin/true", buffer.data(), buffer.size()) == 0; }},
        {"pid_alive()", [] { return pid_alive(1) == 1; }},

        {"StatusInterface::setStatus()", [&] { return world.status.setStatus(world.name, world.text); }},
        {"StatusInterface::getStatus()",
         [&] { return world.status.getStatus(world.name, copy) && copy == world.text; }},
        {"vxevent()", [] { return vxevent(1, 2, "text") == 0; }, [&] { world.drainEvents(); }},
        {"qxlog()", [&] { return qxlog(1, value.c_str()) == 0; }},

        {"CEPollEventsource::init()", [&] { return loop->init() == 0; },
         [&] { loop = std::make_unique<CEPollEventsource>(); }},
        {"CEPollEventsource::addSink()", [&] { return loop->addSink(&world.sink, IFDEventsource::ET_READ), true; },
         newLoop},
        {"CEPollEventsource::addTimer()", [&] { return loop->addTimer(&world.sink), loop->activeTimer(&world.sink); },
         newLoop},
        {"CMessageQueue::send()", [&] { return queue->send(CQMsg(1)) == 0; }, newQueue},
        {"CEPollEventsource::evtLoop(), one message", [&] { return loop->evtLoop() == 0; },
         [&] {
             newQueue();
             (void)queue->send(CQMsg(1));
         }},

        {"CRecursiveSemaphore::lock(), free", [&] { return world.recursive->lock() == 0; }, [] {},
         [&] { world.recursive->unlock(); }},
        {"CRecursiveSemaphore::unlock(), no other process waits", [&] { return world.recursive->unlock() == 0; },
         [&] { world.recursive->lock(); }},
        {"sem_create(), made before", [&] { return (sem = sem_create("/costs")) != nullptr; }, [] {},
         [&] { sem_release(sem); }},
        {"CSemaphore::lock(), free", [&] { return world.plain.lock() == 0; }, [] {},
         [&] { (void)world.plain.unlock(); }},
        {"firewall_lock(), free", [&] { return (firewall = firewall_lock()) != nullptr; }, [] {},
         [&] { firewall_unlock(firewall); }},
        {"acquire_lock(), free", [] { return acquire_lock("/tmp/costs/lock", 1) == 0; }, [] {},
         [] { release_lock("/tmp/costs/lock"); }},

        {"route_get_interface()", [&] { return route_get_interface(world.target, buffer.data()) == 0; }},
        {"IpAddress(text)", [&] { return !IpAddress(world.network).isEmpty(); }},

        {"dio_roValue()", [&] { return dio_roValue(1, &on) == DIO_OK; }},
        {"dio_setValue()", [] { return dio_setValue(1, 1) == DIO_OK; }},
        {"dio_count(), of six lines", [&] { return dio_count(&lines) == DIO_OK && lines == 6; }},

        {"String(text)", [&] { return String(value.c_str()).length() == static_cast<long>(valueLength); }},
        {"String(other)", [&] { return String(world.text).length() == static_cast<long>(valueLength); }},
        {"strformat()", [] { return strformat("%s=%d", "key", 7)[0] == 'k'; }},
        {"INStringHashTable::getValueFromKey()", [&] { return world.hash.getValueFromKey("beta", &found); }},
        {"Sha1HashContext::hash()",
         [&] {
             Sha1HashContext sha1;
             (void)sha1.initialize(0);
             sha1.hash(reinterpret_cast<const unsigned char *>(value.data()), value.size());
             return true;
         }},
    };

    std::map<std::string, Cost> rows = documented();
    for (const Call &call : calls) {
        const Cost cost = measured(call);
        EXPECT_EQ(rows[call.name], cost) << "docs/guides/costs.md:\n| `" << call.name << "` | " << cost << " |";
        rows.erase(call.name);
    }
    for (const auto &[name, cost] : rows) ADD_FAILURE() << "docs/guides/costs.md: " << name << " is not measured";
    ::freeaddrinfo(world.target);
}

}  // namespace
