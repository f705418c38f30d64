// SPDX-License-Identifier: MIT
// A daemon that uses the whole library for as long as it is told, while the clock jumps by years, its network interface
// comes and goes, and its disk is full and empty again. Memory, descriptors and the time of a round must stay what they
// were: their slopes are printed.
#include <arpa/inet.h>
#include <dirent.h>
#include <event.h>
#include <fcntl.h>
#include <malloc.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>
#include <vxutils/adc.h>
#include <vxutils/cfread.h>
#include <vxutils/command.h>
#include <vxutils/configd.h>
#include <vxutils/configreader.h>
#include <vxutils/csemaphore.h>
#include <vxutils/digest.h>
#include <vxutils/dio.h>
#include <vxutils/dio_status.h>
#include <vxutils/eventsource.h>
#include <vxutils/file.h>
#include <vxutils/hashtable.h>
#include <vxutils/ipaddress.h>
#include <vxutils/lock.h>
#include <vxutils/messagequeue.h>
#include <vxutils/ping.h>
#include <vxutils/process.h>
#include <vxutils/qxlog.h>
#include <vxutils/route.h>
#include <vxutils/sem.h>
#include <vxutils/simplesms.h>
#include <vxutils/statusinterface.h>
#include <vxutils/systeminfo.h>
#include <vxutils/timefmt.h>
#include <vxutils/vxevent.h>
#include <vxutils/vxstring.h>
#include <vxutils/wwanmd.h>
#include <zmq.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/board.h"
#include "support/configd.h"
#include "support/files.h"
#include "support/syslog_capture.h"
#include "support/wwanmd.h"

namespace {

using Clock = std::chrono::steady_clock;

// The wall clock of this process is this far from that of the machine.
std::atomic<time_t> jump{0};

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec *now) noexcept {
#ifdef SYS_clock_gettime64
    const long result = ::syscall(SYS_clock_gettime64, clock, now);
#else
    const long result = ::syscall(SYS_clock_gettime, clock, now);
#endif
    if (result == 0 && clock == CLOCK_REALTIME) now->tv_sec += jump;
    return static_cast<int>(result);
}

extern "C" time_t time(time_t *out) noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    if (out != nullptr) *out = now.tv_sec;
    return now.tv_sec;
}

extern "C" int gettimeofday(timeval *out, void *) noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    out->tv_sec = now.tv_sec;
    out->tv_usec = now.tv_nsec / 1000;
    return 0;
}

namespace {

unsigned long failures = 0;

void require(bool holds, const char *what) {
    if (holds) return;
    if (++failures <= 20) std::fprintf(stderr, "soak: failed: %s (%s)\n", what, std::strerror(errno));
}

double descriptors() {
    double count = 0;
    DIR *const directory = ::opendir("/proc/self/fd");
    while (::readdir(directory) != nullptr) ++count;
    ::closedir(directory);
    return count;
}

// ---- What the daemon does in a round ----

void configuration(configd_handle *config) {
    static unsigned int count = 0;
    configd_clear(config);
    for (int i = 0; i < 4; ++i) configd_add_query(config, "port.%d.speed", i);
    require(configd_get(config, nullptr) == 0, "configd_get");
    std::array<configd_entry, 2> change{};
    std::strcpy(change[0].key, "port.0.speed");
    std::snprintf(change[0].value, sizeof change[0].value, "%u", ++count);
    require(configd_set(config, change.data()) == 0 && configd_done(config) == 0, "configd_set");
    configd_clear(config);
    configd_add_query(config, "port.0.speed");
    require(configd_fetch(config, "port.0.speed") == std::string(change[0].value), "configd_fetch");
    configd_handle *const other = configd_open();
    require(other != nullptr, "configd_open");
    configd_close(other);
}

void files() {
    const std::string text(3000, 'x');
    require(write_file_atomic("/tmp/soak/value", text.data(), text.size(), 0, 0) == 0, "write_file_atomic");
    require(text.starts_with(readfile("/tmp/soak/value")), "readfile");
    require(copy_file("/tmp/soak/value", "/tmp/soak/copy") == 0, "copy_file");
    char directory[] = "/tmp/soak/a/b/c";
    require(create_directory(directory) == 0, "create_directory");
    require(copy_file("/tmp/soak/copy", "/tmp/soak/a/b/c/copy") == 0, "copy_file below");
    require(delete_directory("/tmp/soak/a") == 0, "delete_directory");
}

void texts() {
    String all;
    INStringHashTable table(64);
    for (int i = 0; i < 50; ++i) {
        const std::string word = "word" + std::to_string(i);
        all += word.c_str();
        table.addEntry(word.c_str(), nullptr);
    }
    require(all.length() > 250 && table.removeEntry("word7"), "texts");
    IpAddress address;
    require(address.setIpAddrAsString(String("192.0.2.1/24")) == 0, "IpAddress");
    const time_t now = ::time(nullptr);
    require(timeformat(&now) != nullptr, "timeformat");
}

void locks() {
    static CRecursiveSemaphore mutex("/soak");
    require(mutex.lock() == 0 && mutex.unlock() == 0, "CRecursiveSemaphore");
    require(acquire_lock("/tmp/soak/lock", 1) == 0 && release_lock("/tmp/soak/lock") == 0, "acquire_lock");
    firewall_lock_handle *const firewall = firewall_lock();
    require(firewall != nullptr && firewall_unlock(firewall) == 0, "firewall_lock");
}

void status() {
    StatusInterface status;
    require(status.setup(BASEPATH_STATUS, String("/soak")), "StatusInterface");
    String read;
    require(status.setStatus(String("/state"), String("up")) && status.getStatus(String("/state"), read), "status");
    require(read == "up", "the status that was set");
    require(qxlog(1, "soak") == 0, "qxlog");
    status.cleanup();
}

class Results : public IMQEventsink, public ITimeoutEventsink {
public:
    explicit Results(CEPollEventsource &loop) : loop_(loop) {}
    void onMessage(CMessageQueue *, const CQMsg &) override {
        if (++messages == 20) loop_.terminate();
    }
    void onQueueError(CMessageQueue *) override { require(false, "queue"); }
    void onTimeout(unsigned int) override {}
    int getTimeoutMs() override { return 1; }
    bool isOneShot() override { return true; }
    int messages = 0;

private:
    CEPollEventsource &loop_;
};

void loop() {
    CEPollEventsource loop;
    Results results(loop);
    CMessageQueue queue(&results, &loop);
    require(loop.init() == 0 && queue.init() == 0, "loop");
    loop.addTimer(&results);
    std::thread sender([&] {
        for (int i = 0; i < 20; ++i) require(queue.send(CQMsg(i)) == 0, "send");
    });
    require(loop.evtLoop() == 0 && results.messages == 20, "messages");
    sender.join();
    loop.removeTimer(&results);
}

void system_() {
    require(run_command("true", 0) == 0, "run_command");
    char out[64];
    require(eval_command("echo soak", out, sizeof out) >= 0, "eval_command");
    require(pid_alive(::getpid()) == 1, "pid_alive");
    systeminfo_table *const table = systeminfo_init();
    const char *const name = table != nullptr ? systeminfo_getvar(table, "NAME") : nullptr;
    require(name != nullptr && std::strncmp(name, "soak", 4) == 0, "systeminfo_getvar");
    systeminfo_free(table);
    ConfigReader reader;
    require(reader.initialize(String("/etc/default/system-info"), 16), "ConfigReader");
}

// Reachable only while the interface is up.
void network(bool up) {
    const int reached = icmpping("lo", "127.0.0.1", 200);
    require(!up || reached >= 0, "icmpping while the interface is up");
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo *target = nullptr;
    if (::getaddrinfo("127.0.0.1", nullptr, &hints, &target) != 0) return;
    char name[IFNAMSIZ];
    const int found = route_get_interface(target, name);
    require(!up || found == 0, "route_get_interface while the interface is up");
    ::freeaddrinfo(target);
}

// One handle stays, and one is opened anew.
void modem(wwanmd_handle *handle) {
    static vxtest::wwanmd::Message message;
    message = vxtest::wwanmd::Message("signal", 5);
    handle->last_io = {};  // without the pause between commands
    require(wwanmd_command(handle, &message) == 0 && message.text().starts_with(" signal"), "wwanmd_command");
    wwanmd_handle *const other = wwanmd_init(0, "soak");
    require(other != nullptr && wwanmd_in_reset(0) == 0, "wwanmd_init");
    wwanmd_free(other);
}

const std::string boardTree = "/sys/devices/vantorix/";

void setUpBoard() {
    vxtest::plainBoardTree();
    for (int line = 1; line <= 4; ++line) {
        vxtest::writeFile(boardTree + "din" + std::to_string(line) + "/value", "1\n");
        vxtest::writeFile(boardTree + "dout" + std::to_string(line) + "/value", "0\n");
    }
    vxtest::writeFile(boardTree + "raw", "1200\n");
    vxtest::writeFile(boardTree + "scale", "0.5\n");
}

void board() {
    unsigned int lines = 0;
    unsigned char on = 0;
    require(dio_count(&lines) == DIO_OK && lines == 8, "dio_count");
    require(dio_roValue(2, &on) == DIO_OK && on == 1, "dio_roValue");
    require(dio_setValue(3, 1) == DIO_OK && dio_rwValue(3, &on) == DIO_OK && on == 1, "dio_setValue");
    dio_status status{};
    require(dio_getStatus(&status) == DIO_OK, "dio_getStatus");
    float volts = 0;
    require(adc_read((boardTree + "raw").c_str(), (boardTree + "scale").c_str(), &volts) == 0 && volts > 0, "adc_read");
}

void messages() {
    vxtest::writeFile("/var/spool/sms/incoming/soak", "From: +4930123\nReceived: 22-11-22 10:00:00\n\nhello\n");
    std::vector<std::pair<long long, std::string>> ids;
    CSimpleSMS::RetrieveIncomingIds(ids);
    require(ids.size() == 1 && ids[0].second == "soak", "RetrieveIncomingIds");
    const std::unique_ptr<CSimpleSMS> sms(CSimpleSMS::getIncomingSMSById("soak"));
    require(sms != nullptr && sms->getNumber() == "+4930123", "getIncomingSMSById");
    require(CSimpleSMS::DeleteIncomingSMSById("soak") == 0, "DeleteIncomingSMSById");
    require(CSimpleSMS("+4930123", "answer").send() == 0, "send");
}

void digests() {
    Sha1HashContext sha1;
    Md5HashContext md5;
    for (HashContext *hash : {static_cast<HashContext *>(&sha1), static_cast<HashContext *>(&md5)}) {
        HmacContext hmac(hash);
        const std::array<unsigned char, 64> key{1, 2, 3};
        std::array<unsigned char, 20> mac{};
        hmac.initialize(key.data(), key.size(), 12);
        hmac.hash(key.data(), key.size());
        hmac.getHash(mac.data());
        require(mac[0] != 0 || mac[1] != 0 || mac[2] != 0, "HMAC");
    }
}

void semaphores() {
    static CSemaphore semaphore("/usr/lib/libvxutils.so.1.0.0", 7);
    require(semaphore.init() == 0 && semaphore.lock() == 0 && semaphore.unlock() == 0, "CSemaphore");
    sem_handle *const handle = sem_create("/soak-handle");
    require(sem_lock(handle) == 0 && sem_unlock(handle) == 0, "sem_lock");
    sem_release(handle);
}

// A subscriber hears what is dispatched after its subscription has arrived.
void events(void *context) {
    const double before = descriptors();
    void *const source = create_legacy_source_with_addr(context, "inproc://soak");
    void *const sink = register_legacy_sink_with_addr(context, "inproc://soak");
    require(source != nullptr && sink != nullptr, "ZeroMQ sockets");
    vxevent_record record{7, 1, "soak"};
    std::array<char, 256> got{};
    int size = -1;
    for (int attempt = 0; attempt < 2000 && size == -1; ++attempt) {
        require(dispatch_legacy_event(source, &record) == 0, "dispatch_legacy_event");
        size = zmq_recv(sink, got.data(), got.size(), ZMQ_DONTWAIT);
        if (size == -1) ::usleep(1000);
    }
    require(size == static_cast<int>(sizeof record), "a ZeroMQ event");
    zmq_close(sink);
    zmq_close(source);
    // A thread of ZeroMQ closes their descriptors some time later.
    for (int attempt = 0; attempt < 2000 && descriptors() > before; ++attempt) ::usleep(1000);
    require(descriptors() <= before, "closed ZeroMQ sockets have no descriptors");

    const int fifo = ::open("/tmp/status/event-manager/throw", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    require(vxevent(7, 1, "soak") == 0, "vxevent");
    require(::read(fifo, got.data(), got.size()) == static_cast<ssize_t>(sizeof record), "an event of the FIFO");
    ::close(fifo);
}

class Commands : public StatusFifoObserver {
public:
    void fifoDataReceived(bufferevent *, char *data, unsigned long length) override { text.append(data, length); }
    std::string text;
};

void fifos(event_base *base) {
    Commands commands;
    StatusInterface status;
    require(status.setup(BASEPATH_STATUS, String("/soak")), "StatusInterface of a FIFO");
    require(status.setupIpcRxFifo("/command", &commands) != 0, "setupIpcRxFifo");
    const int fd = ::open("/tmp/status/soak/command", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    require(::write(fd, "restart", 7) == 7, "writing to a FIFO");
    ::close(fd);
    for (int attempt = 0; attempt < 2000 && commands.text.empty(); ++attempt) {
        if (attempt > 0) ::usleep(1000);
        event_base_loop(base, EVLOOP_NONBLOCK);
    }
    require(commands.text == "restart", "what a FIFO brings");
    status.cleanup();
    event_base_loop(base, EVLOOP_NONBLOCK);
}

// ---- What happens to it ----

void setInterface(bool up) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    ::ioctl(fd, SIOCGIFFLAGS, &request);
    request.ifr_flags = static_cast<short>(up ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
    require(::ioctl(fd, SIOCSIFFLAGS, &request) == 0, "SIOCSIFFLAGS");
    ::close(fd);
}

// A full disk makes a write fail and leaves the old content; then there is room again.
void fillDisk() {
    const int fd = ::open("/tmp/soak/ballast", O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::array<char, 4096> block{};
    while (::write(fd, block.data(), block.size()) > 0) continue;
    ::close(fd);
    const std::string text(9000, 'y');
    require(write_file_atomic("/tmp/soak/value", text.data(), text.size(), 0, 0) == -1, "a full disk is noticed");
    require(*readfile("/tmp/soak/value") == 'x', "the old content is kept");
    require(std::system("rm -f /tmp/soak/ballast /tmp/soak/value_??????") == 0, "rm");
}

// ---- Figures ----

struct Sample {
    double at_s, memory_kib, heap_bytes, descriptors, round_us, processor_us;
};

constexpr size_t samplesAtMost = 500;
constexpr size_t samplesAtLeast = 20;

// Blocks of all arenas that are in use. Unlike the resident memory it does not depend on which pages were touched.
double heapBytes() {
    const struct mallinfo2 heap = ::mallinfo2();
    return static_cast<double>(heap.uordblks + heap.hblkhd);
}

double memoryKib() {
    unsigned long total = 0, resident = 0;
    std::sscanf(vxtest::readFile("/proc/self/statm").c_str(), "%lu %lu", &total, &resident);
    return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1024;
}

// Of all threads of this process. It does not depend on what else the machine does.
double processorUs() {
    timespec used{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) * 1e6 + static_cast<double>(used.tv_nsec) / 1e3;
}

// Least squares, per minute.
double slope(const std::vector<Sample> &samples, double Sample::*what) {
    double n = 0, x = 0, y = 0, xx = 0, xy = 0;
    for (const Sample &sample : samples) {
        const double t = sample.at_s / 60, v = sample.*what;
        n += 1, x += t, y += v, xx += t * t, xy += t * v;
    }
    const double spread = n * xx - x * x;
    return spread > 0 ? (n * xy - x * y) / spread : 0;
}

}  // namespace

int main(int argc, char **argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) * 60 : 60;
    vxtest::makeDirs("/tmp/soak");
    vxtest::makeDirs("/tmp/status");
    vxtest::makeDirs("/var/lock");
    vxtest::makeDirs("/var/run/configd");
    vxtest::writeFile("/usr/lib/libvxutils.so.1.0.0", "");
    vxtest::writeFile("/etc/default/system-info", "NAME=soak\n");
    if (::mount("none", "/tmp/soak", "tmpfs", 0, "size=256k") == -1) return 2;
    vxtest::makeDirs("/tmp/status/event-manager");
    vxtest::makeDirs("/var/spool/sms/incoming");
    vxtest::writeFile("/usr/local/sbin/send-sms", "#!/bin/sh\nrm \"$1\"\n");
    if (::chmod("/usr/local/sbin/send-sms", 0755) == -1 || ::mkfifo("/tmp/status/event-manager/throw", 0600) == -1)
        return 2;
    setUpBoard();
    vxtest::SyslogCapture log;
    ::openlog("soak", LOG_NDELAY, LOG_USER);
    vxtest::Configd daemon;
    configd_handle *const config = configd_open();
    vxtest::wwanmd::Modem card;
    card.tell("echo");
    const vxtest::wwanmd::Handle handle(wwanmd_init(0, "soak"));
    event_base *const base = event_init();
    void *const context = zmq_ctx_new();
    if (config == nullptr || !handle || base == nullptr || context == nullptr) return 2;
    zmq_close(zmq_socket(context, ZMQ_PUB));  // the context makes its threads and descriptors with the first socket

    const auto start = Clock::now();
    const auto since = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
    constexpr time_t year_s = 31556952;
    bool up = true;
    setInterface(up);
    // All at once, and touched: samples that grew would be seen as memory of the daemon.
    std::vector<Sample> samples(samplesAtMost);
    samples.clear();
    unsigned long rounds = 0, jumps = 0, flaps = 0, full = 0;
    for (double next_s = 0; since() < seconds; ++rounds) {
        if (rounds % 50 == 49) jump = jump != 0 ? 0 : ++jumps % 2 != 0 ? 9 * year_s : -9 * year_s;
        if (rounds % 40 == 39) setInterface(up = !up), ++flaps;
        if (rounds % 60 == 59) fillDisk(), ++full;
        const auto began = Clock::now();
        const double usedBefore = processorUs();
        configuration(config);
        files();
        texts();
        locks();
        status();
        loop();
        system_();
        network(up);
        modem(handle.get());
        board();
        messages();
        digests();
        semaphores();
        events(context);
        fifos(base);
        const std::chrono::duration<double, std::micro> took = Clock::now() - began;
        const double used_us = processorUs() - usedBefore;
        log.take();
        card.events();
        // The first tenth is not counted: caches fill.
        if (since() < std::max(next_s, seconds / 10)) continue;
        next_s = since() + seconds / samplesAtMost;
        samples.push_back({since(), memoryKib(), heapBytes(), descriptors(), took.count(), used_us});
    }
    configd_close(config);
    zmq_ctx_term(context);
    event_base_free(base);

    require(jumps > 0 && flaps > 0 && full > 0, "long enough for clock jumps, interface changes and a full disk");
    require(samples.size() >= samplesAtLeast, "enough rounds for slopes");
    if (samples.empty()) {
        std::printf("soak: %lu failures\n", failures);
        return 1;
    }
    const double memory = slope(samples, &Sample::memory_kib), held = slope(samples, &Sample::descriptors);
    const double grown = memory * seconds / 60, allocated = slope(samples, &Sample::heap_bytes) * seconds / 60;
    std::printf("soak: %.0f s, %lu rounds, %lu clock jumps of 9 years, %lu interface changes, %lu times a full disk\n",
                since(), rounds, jumps * 2, flaps, full);
    std::printf("soak: memory %.0f KiB, slope %+.2f KiB/min; heap in use %.0f bytes, slope %+.1f bytes/min\n",
                samples.back().memory_kib, memory, samples.back().heap_bytes, allocated * 60 / seconds);
    std::printf("soak: descriptors %.0f, slope %+.3f/min\n", samples.back().descriptors, held);
    std::printf("soak: round %.0f us, slope %+.1f us/min; processor time of a round %.0f us, slope %+.1f us/min\n",
                samples.back().round_us, slope(samples, &Sample::round_us), samples.back().processor_us,
                slope(samples, &Sample::processor_us));
    const auto [least, most] = std::minmax_element(
        samples.begin(), samples.end(), [](const Sample &a, const Sample &b) { return a.descriptors < b.descriptors; });
    require(grown < 512, "memory grows by less than 512 KiB over the run");
    require(allocated < 1024, "the heap in use grows by less than 1 KiB over the run");
    require(least->descriptors == most->descriptors, "the number of descriptors never changes");
    std::printf("soak: %lu failures\n", failures);
    return failures == 0 ? 0 : 1;
}
