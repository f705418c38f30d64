// SPDX-License-Identifier: MIT
// libvxtap: loaded before a program (LD_PRELOAD), tells vxgateway what the program exchanges with the library's outside.
//
// It wraps calls of the C library at that edge. When recording it makes the call and tells what came of it; in a replay it
// asks first, and gives the program what was recorded. Everything else passes at the price of a comparison.
//
// Uses the C library alone: a program in C has no C++ run-time.
#undef _FILE_OFFSET_BITS  // wraps both sizes by their own names
#undef _TIME_BITS
#undef _FORTIFY_SOURCE
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "gateway/preload.h"
#include "gateway/tap.h"

#define WRAP extern "C" __attribute__((visibility("default")))

namespace {

using vxgateway::longestRecorded;
using vxgateway::longestTapLine;
using vxgateway::notRecorded;
using vxgateway::TapAnswer;

constexpr const char *configSocket = "/var/run/configd/daemon.sock";
constexpr const char *eventFifo = "/tmp/status/event-manager/throw";
constexpr size_t eventLength = 136;
constexpr const char *trees[] = {
    "/tmp/status",          "/nvstatus",     "/sys/devices/vantorix", "/proc/sysinfo", "/sys/bus/iio/devices",
    "/sys/bus/i2c/devices", "/proc/net/arp", "/var/spool/sms",        "/tmp/progress"};

constexpr int mostDescriptors = 4096;
constexpr int ownDescriptor = 900;  // out of the way of programs that close what they do not know
constexpr size_t nameLength = 80;
constexpr size_t pathLength = 512;

enum class Kind : unsigned char { none, config, modem, file, fifo, directory, icmp, link };

struct Echo {
    unsigned char packet[1500];
    size_t length;
    long long sent_us;
    timespec sent;       // by the wall clock, as the kernel stamps what arrives
    long long delay_us;  // of the reply; -1: none comes
    uint32_t looks;      // for a reply that found none; in a replay, those that are still to find none
};

struct Descriptor {
    Kind kind;
    bool noted;  // what was written through it has been told
    int card;
    int number;
    int stamps;  // option that has the kernel stamp what arrives, or 0
    char *text;  // path, or name of the interface
    Echo *echo;
};

enum class Mode { unknown, off, record, replay };

Descriptor descriptors[mostDescriptors];
Mode tapMode = Mode::unknown;
char socketPath[sizeof(sockaddr_un::sun_path)];
int channel = -1;
pid_t channelOwner = -1;
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
char line[longestTapLine];
char received[sizeof(TapAnswer) + longestRecorded];

thread_local bool busy = false;
thread_local char source[nameLength] = "1";
thread_local int children = 0;
thread_local int threads = 0;
thread_local int connections = 0;
thread_local char lastInterface[IFNAMSIZ] = "";

struct TemporaryName {
    char real[pathLength];
    char shown[pathLength];
};
TemporaryName temporaryNames[16];
unsigned int temporaryNext = 0;

// ---- the functions that are needed here in their own right

ssize_t realRead(int fd, void *buffer, size_t size) {
    REAL("read", ssize_t(*)(int, void *, size_t));
    return real(fd, buffer, size);
}
ssize_t realWrite(int fd, const void *data, size_t size) {
    REAL("write", ssize_t(*)(int, const void *, size_t));
    return real(fd, data, size);
}
int realClose(int fd) {
    REAL("close", int (*)(int));
    return real(fd);
}
int realOpen(const char *path, int flags, mode_t permissions = 0) {
    REAL("open64", int (*)(const char *, int, ...));
    return real(path, flags | O_LARGEFILE, permissions);
}
ssize_t realSendto(int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t length) {
    REAL("sendto", ssize_t(*)(int, const void *, size_t, int, const sockaddr *, socklen_t));
    return real(fd, data, size, flags, to, length);
}
ssize_t realRecvfrom(int fd, void *buffer, size_t size, int flags, sockaddr *from, socklen_t *length) {
    REAL("recvfrom", ssize_t(*)(int, void *, size_t, int, sockaddr *, socklen_t *));
    return real(fd, buffer, size, flags, from, length);
}
int realSocket(int family, int type, int protocol) {
    REAL("socket", int (*)(int, int, int));
    return real(family, type, protocol);
}
int realConnect(int fd, const sockaddr *address, socklen_t length) {
    REAL("connect", int (*)(int, const sockaddr *, socklen_t));
    return real(fd, address, length);
}

long long now_us() {
    timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<long long>(time.tv_sec) * 1000000 + time.tv_nsec / 1000;
}

// ---- the way to vxgateway

// The program's own programs are not followed: they find no tap in their environment.
void begin() {
    if (tapMode != Mode::unknown) return;
    const char *const told = std::getenv(vxgateway::tapVariable);
    tapMode = Mode::off;
    if (told == nullptr || std::strlen(told) < 8 || std::strlen(told) - 7 >= sizeof socketPath) return;
    std::strcpy(socketPath, told + 7);
    tapMode = std::strncmp(told, "replay ", 7) == 0 ? Mode::replay : Mode::record;
    ::unsetenv(vxgateway::tapVariable);
    ::unsetenv("LD_PRELOAD");
}

bool active() {
    begin();
    return tapMode != Mode::off && !busy;
}
bool replays() { return tapMode == Mode::replay; }

// Each process has a connection of its own. False when vxgateway is gone: the program goes on without it.
bool reach() {
    if (channel != -1 && channelOwner == ::getpid()) return true;
    if (channel != -1) realClose(channel);
    channelOwner = ::getpid();
    channel = -1;
    const int low = realSocket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (low == -1) return false;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, socketPath);
    if (realConnect(low, reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1) {
        realClose(low);
        tapMode = Mode::off;
        return false;
    }
    channel = ::fcntl(low, F_DUPFD_CLOEXEC, ownDescriptor);
    if (channel == -1) {
        channel = low;
    } else {
        realClose(low);
    }
    return true;
}

// vxgateway knows from the connection that the tap was loaded.
__attribute__((constructor)) void beginEarly() {
    begin();
    if (tapMode != Mode::off) reach();
}

// Holds the lock. While it does, calls in a signal handler of this thread are not recorded, because they would wait for the
// lock, and the thread is not cancelled, because the lock would stay taken.
class Lock {
public:
    Lock() {
        ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState_);
        busy = true;
        ::pthread_mutex_lock(&mutex);
    }
    ~Lock() {
        ::pthread_mutex_unlock(&mutex);
        busy = false;
        ::pthread_setcancelstate(cancelState_, nullptr);
    }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;

private:
    int cancelState_ = PTHREAD_CANCEL_ENABLE;
};

// One line on its way. Keeps errno for the program.
class Note {
public:
    explicit Note(const char *word) : error_(errno) {
        const long long time = now_us();
        end_ = static_cast<size_t>(
            std::snprintf(line, sizeof line, "%lld.%06lld %s %s", time / 1000000, time % 1000000, source, word));
    }
    ~Note() { errno = error_; }
    Note(const Note &) = delete;
    Note &operator=(const Note &) = delete;

    Note &bytes(const void *data, size_t size) {
        constexpr const char *digits = "0123456789abcdef";
        const auto *const all = static_cast<const unsigned char *>(data);
        // Words that do not fit into a line are left out, so that the line can still be read.
        const auto isFull = [this] { return end_ + roomForEnd >= sizeof line; };
        if (isFull()) return *this;
        add(' ');
        add('"');
        for (size_t i = 0; i < size && i < longestRecorded && !isFull(); ++i) {
            const unsigned char byte = all[i];
            if (byte == '"' || byte == '\\') {
                add('\\');
                add(static_cast<char>(byte));
            } else if (byte == '\n' || byte == '\t') {
                add('\\');
                add(byte == '\n' ? 'n' : 't');
            } else if (byte < 0x20 || byte > 0x7e) {
                add('\\');
                add('x');
                add(digits[byte / 16]);
                add(digits[byte % 16]);
            } else {
                add(static_cast<char>(byte));
            }
        }
        add('"');
        return *this;
    }
    Note &bytes(const char *text) { return bytes(text, std::strlen(text)); }
    Note &name(const char *text) {
        add(' ');
        for (; *text != '\0'; ++text) add(*text);
        return *this;
    }
    Note &number(unsigned long value) {
        char text[24];
        std::snprintf(text, sizeof text, "%lu", value);
        return name(text);
    }
    Note &channelOf(const Descriptor &one) {
        char text[32];
        if (one.kind == Kind::modem)
            std::snprintf(text, sizeof text, "modem%d.%d", one.card, one.number);
        else
            std::snprintf(text, sizeof text, "config.%d", one.number);
        return name(text);
    }
    Note &result(int error) {
        const char *const text = error == 0 ? "ok" : ::strerrorname_np(error);
        return name(text == nullptr ? "EIO" : text);
    }

    bool tell() const { return reach() && realSendto(channel, line, end_, MSG_NOSIGNAL, nullptr, 0) >= 0; }

    // The bytes of the answer are valid as long as the note.
    TapAnswer ask(const char **bytes = nullptr) {
        TapAnswer answer{notRecorded, -1, 0, 0};
        ssize_t got = -1;
        if (tell()) {
            do got = realRecvfrom(channel, received, sizeof received, 0, nullptr, nullptr);
            while (got == -1 && errno == EINTR);
        }
        if (got < static_cast<ssize_t>(sizeof answer)) {
            tapMode = Mode::off;
            return answer;
        }
        std::memcpy(&answer, received, sizeof answer);
        if (bytes != nullptr) *bytes = received + sizeof answer;
        return answer;
    }

private:
    static constexpr size_t roomForEnd = 64;  // for a byte, the quote, and the result

    void add(char c) {
        if (end_ < sizeof line) line[end_++] = c;
    }

    int error_;
    Lock lock_;
    size_t end_ = 0;
};

// Makes a call and tells what came of it; in a replay asks first and leaves the call out when it failed. `describe` adds
// the arguments to the note.
template <typename Call, typename Describe>
long around(const char *word, Describe describe, Call call) {
    if (!replays()) {
        const long result = call();
        Note note(word);
        describe(note);
        note.result(result == -1 ? errno : 0).tell();
        return result;
    }
    int error;
    {
        Note note(word);
        describe(note);
        error = note.result(0).ask().error;
    }
    if (error <= 0) return call();
    errno = error;
    return -1;
}

// ---- descriptors

Descriptor *at(int fd) { return fd < 0 || fd >= mostDescriptors ? nullptr : &descriptors[fd]; }

Descriptor *at(int fd, Kind kind) {
    Descriptor *const one = at(fd);
    return one == nullptr || one->kind != kind ? nullptr : one;
}

void forget(int fd) {
    Descriptor *const one = at(fd);
    if (one == nullptr || one->kind == Kind::none) return;
    std::free(one->text);
    std::free(one->echo);
    *one = Descriptor{};
}

Descriptor *remember(int fd, Kind kind, const char *text = nullptr) {
    forget(fd);
    Descriptor *const one = at(fd);
    if (one == nullptr) return nullptr;
    one->kind = kind;
    one->text = text == nullptr ? nullptr : ::strdup(text);
    return one;
}

// ---- paths

bool startsWith(const char *path, const char *tree) {
    const size_t length = std::strlen(tree);
    return std::strncmp(path, tree, length) == 0 && (path[length] == '/' || path[length] == '\0');
}

// A path as it is noted: absolute, with single slashes, and with XXXXXX in a temporary name.
using Path = char[pathLength];

void copyPath(Path &to, const char *from) { std::snprintf(to, sizeof to, "%s", from); }

void showTemporary(Path &path) {
    for (const TemporaryName &one : temporaryNames) {
        if (one.real[0] != '\0' && std::strcmp(one.real, path) == 0) copyPath(path, one.shown);
    }
}

// False for a path that is not in one of the trees, which costs little when it is absolute.
bool isKnown(int directory, const char *path, Path &known) {
    if (path == nullptr || path[0] == '\0') return false;
    Path whole;
    if (path[0] == '/') {
        copyPath(whole, path);
    } else {
        Path base = "";
        if (const Descriptor *const one = at(directory, Kind::directory); one != nullptr && one->text != nullptr) {
            copyPath(base, one->text);
        } else if (directory != AT_FDCWD || ::getcwd(base, sizeof base) == nullptr) {
            return false;  // directories of the trees are remembered when they are opened
        }
        if (static_cast<size_t>(std::snprintf(whole, sizeof whole, "%s/%s", base, path)) >= sizeof whole) return false;
    }
    size_t length = 0;
    for (const char *c = whole; *c != '\0'; ++c) {
        if (*c != '/' || c[1] != '/') known[length++] = *c;
    }
    while (length > 1 && known[length - 1] == '/') --length;
    known[length] = '\0';
    bool found = false;
    for (const char *tree : trees) found = found || startsWith(known, tree);
    if (found) showTemporary(known);
    return found;
}

// ---- sockets of the daemons

const char *unixPath(const sockaddr *address, socklen_t length) {
    if (address == nullptr || length <= sizeof(sa_family_t) || address->sa_family != AF_UNIX) return "";
    return reinterpret_cast<const sockaddr_un *>(address)->sun_path;
}

int modemCard(const sockaddr *address, socklen_t length) {
    constexpr const char *beginning = "/var/run/wwanmd";
    Path path = "";
    const char *const given = unixPath(address, length);
    if (given[0] == '\0') return -1;
    const size_t room = length - offsetof(sockaddr_un, sun_path);
    std::snprintf(path, sizeof path, "%.*s", static_cast<int>(room < sizeof path ? room : sizeof path), given);
    const size_t digits = std::strlen(beginning);
    if (std::strncmp(path, beginning, digits) != 0) return -1;
    char *end = nullptr;
    const long card = std::strtol(path + digits, &end, 10);
    return end != path + digits && std::strcmp(end, "/server") == 0 ? static_cast<int>(card) : -1;
}

bool isPath(const sockaddr *address, socklen_t length, const char *path) {
    const size_t room = length > sizeof(sa_family_t) ? length - sizeof(sa_family_t) : 0;
    return room >= std::strlen(path) && std::strncmp(unixPath(address, length), path, room) == 0;
}

// The descriptor of a connection to the configuration daemon, from the first datagram on.
Descriptor *configOf(int fd, const sockaddr *to, socklen_t length) {
    Descriptor *const known = at(fd, Kind::config);
    if (known != nullptr || !isPath(to, length, configSocket)) return known;
    Descriptor *const one = remember(fd, Kind::config);
    if (one != nullptr) one->number = ++connections;
    return one;
}

// ---- echoes

Descriptor *echoSocket(int fd) {
    Descriptor *const one = at(fd);
    return one == nullptr || (one->kind != Kind::icmp && one->kind != Kind::link) ? nullptr : one;
}

// Where the headers are in a packet; `icmp` is null when it holds no ICMP message.
struct Parts {
    unsigned char *ip = nullptr;
    unsigned char *icmp = nullptr;
};

constexpr size_t ethernetLength = 14;
constexpr size_t echoHeaderLength = 8;
constexpr unsigned char echoRequest = 8;
constexpr unsigned char echoReply = 0;

Parts partsOf(Kind kind, unsigned char *packet, size_t length) {
    Parts parts;
    size_t at = kind == Kind::link ? ethernetLength : 0;
    if (length > at && packet[at] / 16 == 4) {
        parts.ip = packet + at;
        at += static_cast<size_t>(packet[at] % 16) * 4;
    }
    if (length >= at + echoHeaderLength && (parts.ip == nullptr || parts.ip[9] == IPPROTO_ICMP))
        parts.icmp = packet + at;
    return parts;
}

const char *interfaceOf(const Descriptor &one) { return one.text != nullptr ? one.text : lastInterface; }

using AddressText = char[INET_ADDRSTRLEN];

void writeAddress(AddressText &text, const unsigned char *address) { ::inet_ntop(AF_INET, address, text, sizeof text); }

template <typename Call>
ssize_t sendEcho(Descriptor &one, const void *data, size_t size, const sockaddr *to, Call call) {
    if (one.echo == nullptr) one.echo = static_cast<Echo *>(std::calloc(1, sizeof(Echo)));
    if (one.echo == nullptr || size > sizeof one.echo->packet) return call();
    std::memcpy(one.echo->packet, data, size);
    one.echo->length = size;
    one.echo->delay_us = -1;
    one.echo->looks = 0;
    one.echo->sent_us = now_us();
    ::clock_gettime(CLOCK_REALTIME, &one.echo->sent);
    const Parts parts = partsOf(one.kind, one.echo->packet, size);
    if (parts.icmp == nullptr || parts.icmp[0] != echoRequest) return call();
    AddressText target = "";
    if (parts.ip != nullptr) {
        writeAddress(target, parts.ip + 16);
    } else if (to != nullptr && to->sa_family == AF_INET) {
        const auto *const bytes = reinterpret_cast<const unsigned char *>(to);
        writeAddress(target, bytes + offsetof(sockaddr_in, sin_addr));
    }
    if (!replays()) {
        const auto describe = [&](Note &note) { note.bytes(interfaceOf(one)).bytes(target); };
        return around("ping", describe, call);
    }
    const TapAnswer answer = Note("ping").bytes(interfaceOf(one)).bytes(target).result(0).ask();
    if (answer.error > 0) {
        errno = answer.error;
        return -1;
    }
    one.echo->delay_us = answer.delay_us;
    one.echo->looks = answer.looks;
    return static_cast<ssize_t>(size);
}

void countLook(int fd) {
    const Descriptor *const one = tapMode == Mode::record ? echoSocket(fd) : nullptr;
    if (one != nullptr && one->echo != nullptr) ++one->echo->looks;
}

// When the packet just received arrived, by the kernel's stamp; -1 when it has none.
long long arrival_us(msghdr &message, const timespec &sent) {
    for (cmsghdr *part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        const bool stamps = part->cmsg_type == SO_TIMESTAMPNS_OLD || part->cmsg_type == SO_TIMESTAMPNS_NEW;
        if (part->cmsg_level != SOL_SOCKET || !stamps) continue;
        // The older option has 32-bit times on 32-bit machines.
        int64_t wide[2] = {};
        int32_t narrow[2] = {};
        if (part->cmsg_len >= CMSG_LEN(sizeof wide)) {
            std::memcpy(wide, CMSG_DATA(part), sizeof wide);
        } else if (part->cmsg_len >= CMSG_LEN(sizeof narrow)) {
            std::memcpy(narrow, CMSG_DATA(part), sizeof narrow);
            wide[0] = narrow[0];
            wide[1] = narrow[1];
        } else {
            continue;
        }
        return (wide[0] - sent.tv_sec) * 1000000 + (wide[1] - sent.tv_nsec) / 1000;
    }
    return -1;
}

// A reply to the last echo of this socket.
void noteReply(const Descriptor &one, void *data, size_t size, msghdr *message) {
    if (one.echo == nullptr) return;
    const long long seen_us = now_us() - one.echo->sent_us;
    const Parts sent = partsOf(one.kind, one.echo->packet, one.echo->length);
    const Parts parts = partsOf(one.kind, static_cast<unsigned char *>(data), size);
    if (sent.icmp == nullptr || parts.icmp == nullptr || parts.ip == nullptr || parts.icmp[0] != echoReply ||
        std::memcmp(sent.icmp + 4, parts.icmp + 4, 4) != 0) {
        return;
    }
    const long long stamped_us = message == nullptr ? -1 : arrival_us(*message, one.echo->sent);
    const long long delay_us = stamped_us >= 0 && stamped_us < seen_us ? stamped_us : seen_us;
    AddressText from = "";
    writeAddress(from, parts.ip + 12);
    Note("pong")
        .bytes(interfaceOf(one))
        .bytes(from)
        .number(static_cast<unsigned long>(delay_us))
        .number(one.echo->looks)
        .tell();
}

// As the kernel would have stamped the reply, where it was asked to.
void stamp(const Descriptor &one, msghdr &message) {
    int64_t time[2] = {one.echo->sent.tv_sec, one.echo->sent.tv_nsec + one.echo->delay_us % 1000000 * 1000};
    time[0] += one.echo->delay_us / 1000000 + time[1] / 1000000000;
    time[1] %= 1000000000;
    cmsghdr *const part =
        one.stamps != 0 && message.msg_controllen >= CMSG_SPACE(sizeof time) ? CMSG_FIRSTHDR(&message) : nullptr;
    message.msg_controllen = part == nullptr ? 0 : CMSG_SPACE(sizeof time);
    message.msg_flags = 0;
    if (part == nullptr) return;
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = one.stamps;
    part->cmsg_len = CMSG_LEN(sizeof time);
    std::memcpy(CMSG_DATA(part), time, sizeof time);
}

// Turns the echo around, as its receiver would have done. The kernel puts an IP header before what a raw socket sent
// without one.
ssize_t replayReply(Descriptor &one, void *buffer, size_t size, int flags, msghdr *message) {
    if (one.echo == nullptr || one.echo->delay_us < 0 || one.echo->looks > 0) {
        if (one.echo != nullptr && one.echo->looks > 0) --one.echo->looks;
        if ((flags & MSG_DONTWAIT) == 0) ::usleep(1000);
        errno = EAGAIN;
        return -1;
    }
    while (now_us() < one.echo->sent_us + one.echo->delay_us) ::usleep(100);
    Echo reply{};
    Parts parts = partsOf(one.kind, one.echo->packet, one.echo->length);
    constexpr size_t headerLength = 20;
    if (parts.ip == nullptr) {
        std::memcpy(reply.packet + headerLength, one.echo->packet, one.echo->length);
        reply.length = one.echo->length + headerLength;
        reply.packet[0] = 0x45;
        reply.packet[8] = 64;
        reply.packet[9] = IPPROTO_ICMP;
    } else {
        std::memcpy(reply.packet, one.echo->packet, one.echo->length);
        reply.length = one.echo->length;
    }
    const auto swap = [](unsigned char *a, unsigned char *b, size_t length) {
        for (size_t i = 0; i < length; ++i) {
            const unsigned char kept = a[i];
            a[i] = b[i];
            b[i] = kept;
        }
    };
    if (one.kind == Kind::link) swap(reply.packet, reply.packet + 6, 6);
    parts = partsOf(one.kind, reply.packet, reply.length);
    swap(parts.ip + 12, parts.ip + 16, 4);
    parts.icmp[0] = echoReply;
    const size_t given = size < reply.length ? size : reply.length;
    std::memcpy(buffer, reply.packet, given);
    if (message != nullptr) stamp(one, *message);
    one.echo->delay_us = -1;
    return static_cast<ssize_t>(given);
}

// ---- files

int kindOfFile(int fd) {
    struct statx about {};
    return ::statx(fd, "", AT_EMPTY_PATH, STATX_TYPE, &about) == 0 ? about.stx_mode & S_IFMT : 0;
}

const char *kindName(unsigned int permissions) {
    switch (permissions & S_IFMT) {
        case S_IFDIR:
            return "directory";
        case S_IFREG:
            return "file";
        case S_IFIFO:
            return "fifo";
        case S_IFLNK:
            return "link";
        default:
            return "other";
    }
}

const char *modeName(int flags) {
    if ((flags & (O_DIRECTORY | O_PATH)) != 0) return "directory";
    const int access = flags & O_ACCMODE;
    return access == O_RDONLY ? "read" : access == O_WRONLY ? "write" : "both";
}

// What the program holds where the gateway has no such file.
int standIn(int flags) {
    if ((flags & (O_DIRECTORY | O_PATH)) != 0) return realOpen("/", O_DIRECTORY | O_PATH | O_CLOEXEC);
    return ::memfd_create("replayed", (flags & O_CLOEXEC) != 0 ? MFD_CLOEXEC : 0);
}

template <typename Call>
int openAt(int directory, const char *path, int flags, Call call) {
    Path known;
    if (!active() || !isKnown(directory, path, known)) {
        const int fd = call();
        if (fd != -1 && active()) forget(fd);
        return fd;
    }
    bool recorded = false;
    if (replays()) {
        const TapAnswer answer = Note("open").bytes(known).name(modeName(flags)).result(0).ask();
        if (answer.error > 0) {
            errno = answer.error;
            return -1;
        }
        recorded = answer.error == 0;
    }
    int fd = call();
    if (!replays()) Note("open").bytes(known).name(modeName(flags)).result(fd == -1 ? errno : 0).tell();
    if (fd == -1 && recorded) fd = standIn(flags);
    if (fd == -1) return fd;
    const bool isDirectory = (flags & (O_DIRECTORY | O_PATH)) != 0 || kindOfFile(fd) == S_IFDIR;
    remember(fd, isDirectory ? Kind::directory : kindOfFile(fd) == S_IFIFO ? Kind::fifo : Kind::file, known);
    return fd;
}

template <typename Call>
ssize_t readFile(int fd, void *buffer, size_t size, Call call) {
    const Descriptor *const one = active() ? at(fd) : nullptr;
    if (one == nullptr || one->text == nullptr || (one->kind != Kind::file && one->kind != Kind::fifo)) return call();
    Path path;  // another thread may close the file before the call is over
    copyPath(path, one->text);
    if (one->kind == Kind::fifo) {
        const ssize_t got = call();
        if (got > 0 && !replays()) Note("fifo").bytes(path).bytes(buffer, static_cast<size_t>(got)).tell();
        return got;
    }
    if (!replays()) {
        const ssize_t got = call();
        Note("read")
            .bytes(path)
            .bytes(buffer, got < 0 ? 0 : static_cast<size_t>(got))
            .result(got < 0 ? errno : 0)
            .tell();
        return got;
    }
    TapAnswer answer{};
    size_t given = 0;
    {
        Note note("read");
        const char *bytes = nullptr;
        answer = note.bytes(path).bytes("").result(0).ask(&bytes);
        given = answer.length < size ? answer.length : size;
        if (answer.error == 0) std::memcpy(buffer, bytes, given);
    }
    if (answer.error == 0) return static_cast<ssize_t>(given);
    if (answer.error == notRecorded) return call();
    errno = answer.error;
    return -1;
}

uint32_t number32(const char *data) {
    uint32_t number = 0;
    std::memcpy(&number, data, sizeof number);
    return number;
}

template <typename Call>
ssize_t writeFile(int fd, const void *data, size_t size, Call call) {
    Descriptor *const one = active() ? at(fd) : nullptr;
    if (one == nullptr || one->text == nullptr || (one->kind != Kind::file && one->kind != Kind::fifo)) return call();
    one->noted = true;
    Path path;  // another thread may close the file before the call is over
    copyPath(path, one->text);
    const auto *const bytes = static_cast<const char *>(data);
    // What could be written where it was recorded can be written.
    const auto doIt = [&]() -> long {
        const ssize_t done = call();
        return done == -1 && replays() ? static_cast<long>(size) : done;
    };
    long result;
    if (std::strcmp(path, eventFifo) == 0 && size == eventLength) {
        const char *const text = bytes + 8;
        result = around(
            "event",
            [&](Note &note) {
                note.number(number32(bytes)).number(number32(bytes + 4)).bytes(text, ::strnlen(text, eventLength - 8));
            },
            doIt);
    } else {
        result = around(
            "write", [&](Note &note) { note.bytes(path).bytes(data, size); }, doIt);
    }
    return result;
}

// A change of the trees. In a replay it is made where it can be, and has the recorded result.
template <typename Call, typename Describe>
int change(const char *word, Describe describe, Call call) {
    if (!replays()) return static_cast<int>(around(word, describe, call));
    int error;
    {
        Note note(word);
        describe(note);
        error = note.result(0).ask().error;
    }
    const long result = call();
    if (error == notRecorded) return static_cast<int>(result);
    if (error != 0) errno = error;
    return error == 0 ? 0 : -1;
}

template <typename Call>
int makeAt(const char *what, int directory, const char *path, Call call) {
    Path known;
    if (!active() || !isKnown(directory, path, known)) return call();
    return change(
        "make", [&](Note &note) { note.name(what).bytes(known); }, [&]() -> long { return call(); });
}

template <typename Call>
int removeAt(int directory, const char *path, Call call) {
    Path known;
    if (!active() || !isKnown(directory, path, known)) return call();
    return change(
        "remove", [&](Note &note) { note.bytes(known); }, [&]() -> long { return call(); });
}

template <typename Call>
int renameAt(int oldDirectory, const char *from, int newDirectory, const char *to, Call call) {
    Path knownFrom;
    Path knownTo;
    if (!active() || !isKnown(newDirectory, to, knownTo)) return call();
    if (!isKnown(oldDirectory, from, knownFrom)) copyPath(knownFrom, from);
    return change(
        "rename", [&](Note &note) { note.bytes(knownFrom).bytes(knownTo); }, [&]() -> long { return call(); });
}

template <typename Call>
int accessAt(int directory, const char *path, Call call) {
    Path known;
    if (!active() || !isKnown(directory, path, known)) return call();
    return static_cast<int>(around(
        "access", [&](Note &note) { note.bytes(known); },
        [&]() -> long {
            const int result = call();
            return replays() ? 0 : result;
        }));
}

// `call` is given the path to look at.
template <typename Call>
int statAt(int directory, const char *path, Call call) {
    Path known;
    if (!active() || !isKnown(directory, path, known)) return call(path);
    if (!replays()) {
        const int result = call(path);
        const int error = errno;
        struct statx about {};
        if (result == 0) ::statx(directory, path, AT_SYMLINK_NOFOLLOW, STATX_TYPE, &about);
        if (result == 0 && S_ISLNK(about.stx_mode)) ::statx(directory, path, 0, STATX_TYPE, &about);
        Note("stat")
            .bytes(known)
            .name(result == 0 ? kindName(about.stx_mode) : "none")
            .result(result == 0 ? 0 : error)
            .tell();
        errno = error;
        return result;
    }
    bool isDirectory = false;
    int error;
    {
        Note note("stat");
        const char *bytes = nullptr;
        const TapAnswer answer = note.bytes(known).name("none").result(0).ask(&bytes);
        error = answer.error;
        isDirectory = error == 0 && answer.length >= 3 && std::memcmp(bytes, "dir", 3) == 0;
    }
    if (error > 0) {
        errno = error;
        return -1;
    }
    const int result = call(path);
    return result == -1 && error == 0 ? call(isDirectory ? "/" : "/proc/self/exe") : result;
}

// Random names are noted as their patterns, wherever they occur later.
template <typename Make>
int makeTemporary(char *path, Make make) {
    Path shown = "";
    const bool tracked = active() && path != nullptr && isKnown(AT_FDCWD, path, shown);
    if (path != nullptr && !tracked) copyPath(shown, path);
    const int fd = make();
    if (fd == -1 || !active()) return fd;
    forget(fd);
    TemporaryName &name = temporaryNames[temporaryNext++ % (sizeof temporaryNames / sizeof temporaryNames[0])];
    copyPath(name.shown, shown);
    copyPath(name.real, path);
    if (tracked) {
        name.real[0] = '\0';  // while it is normalised
        Path real;
        isKnown(AT_FDCWD, path, real);
        copyPath(name.real, real);
        remember(fd, Kind::file, shown);
    }
    return fd;
}

void addWord(Note &note, const char *word) {
    char text[4096];
    size_t length = 0;
    while (*word != '\0' && length + pathLength < sizeof text) {
        const TemporaryName *found = nullptr;
        for (const TemporaryName &one : temporaryNames) {
            if (one.real[0] != '\0' && std::strncmp(word, one.real, std::strlen(one.real)) == 0) found = &one;
        }
        if (found == nullptr) {
            text[length++] = *word++;
            continue;
        }
        std::strcpy(text + length, found->shown);
        length += std::strlen(found->shown);
        word += std::strlen(found->real);
    }
    note.bytes(text, length);
}

// ---- streams

constexpr size_t longestSnapshot = longestRecorded;

int realFclose(FILE *stream) {
    REAL("fclose", int (*)(FILE *));
    return real(stream);
}

// A stream to read is one of what the file held: the C library's own reads cannot be seen.
FILE *readSnapshot(const char *known, const char *mode, FILE *real) {
    if (real != nullptr && kindOfFile(::fileno(real)) != S_IFREG) return real;
    const int fd = ::memfd_create("recorded", MFD_CLOEXEC);
    if (fd == -1) return real;
    auto *const bytes = static_cast<char *>(std::malloc(longestSnapshot + 1));
    size_t length = 0;
    int error = notRecorded;
    if (bytes != nullptr && !replays() && real != nullptr) {
        ssize_t got;
        while ((got = realRead(::fileno(real), bytes + length, longestSnapshot + 1 - length)) > 0)
            length += static_cast<size_t>(got);
        error = got == 0 && length <= longestSnapshot ? 0 : notRecorded;
        if (error == 0) {
            Note("read").bytes(known).bytes(bytes, length).result(0).tell();
        } else {
            ::rewind(real);
        }
    } else if (bytes != nullptr && replays()) {
        Note note("read");
        const char *given = nullptr;
        const TapAnswer answer = note.bytes(known).bytes("").result(0).ask(&given);
        error = answer.error;
        length = answer.length;
        if (error == 0) std::memcpy(bytes, given, length);
    }
    FILE *snapshot = nullptr;
    if (error == 0 && realWrite(fd, bytes, length) == static_cast<ssize_t>(length) && ::lseek(fd, 0, SEEK_SET) == 0)
        snapshot = ::fdopen(fd, mode);
    std::free(bytes);
    if (snapshot == nullptr) {
        realClose(fd);
        return real;
    }
    if (real != nullptr) realFclose(real);
    return snapshot;
}

template <typename Open>
FILE *openStream(const char *path, const char *mode, Open open) {
    Path known;
    if (!active() || mode == nullptr || !isKnown(AT_FDCWD, path, known)) return open(path, mode);
    const bool reads = mode[0] == 'r' && std::strchr(mode, '+') == nullptr;
    const char *const name = reads ? "read" : std::strchr(mode, '+') == nullptr ? "write" : "both";
    bool recorded = false;
    if (replays()) {
        const TapAnswer answer = Note("open").bytes(known).name(name).result(0).ask();
        if (answer.error > 0) {
            errno = answer.error;
            return nullptr;
        }
        recorded = answer.error == 0;
    }
    FILE *stream = open(path, mode);
    if (!replays()) Note("open").bytes(known).name(name).result(stream == nullptr ? errno : 0).tell();
    if (reads && (stream != nullptr || recorded)) return readSnapshot(known, mode, stream);
    if (stream == nullptr && recorded) stream = ::fdopen(standIn(O_CLOEXEC), mode);
    if (stream != nullptr) remember(::fileno(stream), Kind::file, known);
    return stream;
}

// What a stream has written is known when it is closed.
void noteStream(FILE *stream) {
    const int fd = ::fileno(stream);
    Descriptor *const one = at(fd, Kind::file);
    if (one == nullptr || one->text == nullptr || one->noted || std::fflush(stream) != 0) return;
    char self[64];
    std::snprintf(self, sizeof self, "/proc/self/fd/%d", fd);
    const int again = realOpen(self, O_RDONLY | O_CLOEXEC);
    auto *const bytes = static_cast<char *>(std::malloc(longestSnapshot));
    const ssize_t got = again == -1 || bytes == nullptr ? -1 : realRead(again, bytes, longestSnapshot);
    if (again != -1) realClose(again);
    if (got >= 0) {
        Note note("write");
        note.bytes(one->text).bytes(bytes, static_cast<size_t>(got)).result(0);
        if (replays()) {
            note.ask();
        } else {
            note.tell();
        }
    }
    std::free(bytes);
}

// ---- directories

constexpr size_t longestList = 8192;
struct Listing {
    char names[longestList];
    size_t length;
    int (*filter)(const void *);
};
thread_local Listing *listing = nullptr;

template <typename Entry>
int noteEntry(const Entry *entry) {
    const size_t length = std::strlen(entry->d_name) + 1;
    if (listing->length + length <= longestList) {
        std::memcpy(listing->names + listing->length, entry->d_name, length);
        listing->length += length;
    }
    return listing->filter == nullptr ? 1 : listing->filter(entry);
}

template <typename Entry>
int replayList(const char *names, size_t length, Entry ***found, int (*filter)(const Entry *),
               int (*compare)(const Entry **, const Entry **)) {
    auto **const entries = static_cast<Entry **>(std::calloc(length + 1, sizeof(Entry *)));
    if (entries == nullptr) return -1;
    int count = 0;
    for (size_t at = 0; at < length; at += std::strlen(names + at) + 1) {
        auto *const entry = static_cast<Entry *>(std::calloc(1, sizeof(Entry)));
        if (entry == nullptr) continue;
        std::snprintf(entry->d_name, sizeof entry->d_name, "%s", names + at);
        if (filter == nullptr || filter(entry) != 0) {
            entries[count++] = entry;
        } else {
            std::free(entry);
        }
    }
    if (compare != nullptr)
        std::qsort(entries, static_cast<size_t>(count), sizeof(Entry *),
                   reinterpret_cast<int (*)(const void *, const void *)>(compare));
    *found = entries;
    return count;
}

template <typename Entry, typename Real>
int list(const char *path, Entry ***found, int (*filter)(const Entry *), int (*compare)(const Entry **, const Entry **),
         Real real) {
    Path known;
    if (!active() || listing != nullptr || !isKnown(AT_FDCWD, path, known)) return real(path, found, filter, compare);
    auto *const names = static_cast<Listing *>(std::calloc(1, sizeof(Listing)));
    if (names == nullptr) return real(path, found, filter, compare);
    int result = -1;
    int error = 0;
    if (replays()) {
        {
            Note note("list");
            const char *bytes = nullptr;
            const TapAnswer answer = note.bytes(known).result(0).ask(&bytes);
            error = answer.error;
            names->length = answer.length < longestList ? answer.length : longestList;
            std::memcpy(names->names, bytes, error == 0 ? names->length : 0);
        }
        result = error == 0             ? replayList(names->names, names->length, found, filter, compare)
                 : error == notRecorded ? real(path, found, filter, compare)
                                        : -1;
        if (error > 0) errno = error;
        std::free(names);
        return result;
    }
    names->filter = reinterpret_cast<int (*)(const void *)>(filter);
    listing = names;
    result = real(path, found, noteEntry<Entry>, compare);
    listing = nullptr;
    error = result == -1 ? errno : 0;
    {
        Note note("list");
        note.bytes(known).result(error);
        for (size_t at = 0; at < names->length; at += std::strlen(names->names + at) + 1) note.bytes(names->names + at);
        note.tell();
    }
    std::free(names);
    return result;
}

// ---- the system log, programs, threads

// The text as the C library would format it, %m included.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void noteLog(int priority, const char *format, va_list arguments) {
    if (!active()) return;
    char text[2048];
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(text, sizeof text, format, again);
    va_end(again);
    if (length < 0) return;
    Note note("log");
    note.number(static_cast<unsigned long>(priority & LOG_PRIMASK)).bytes(text);
    if (replays()) {
        note.ask();
    } else {
        note.tell();
    }
}
#pragma GCC diagnostic pop

void noteRun(const char *const *words) {
    if (!active() || words == nullptr || words[0] == nullptr) return;
    Note note("run");
    for (size_t i = 0; words[i] != nullptr && i < 100; ++i) addWord(note, words[i]);
    if (replays()) {
        note.ask();
    } else {
        note.tell();
    }
}

struct Start {
    void *(*run)(void *);
    void *argument;
    char source[nameLength];
};

void *runThread(void *given) {
    const Start start = *static_cast<Start *>(given);
    std::free(given);
    std::memcpy(source, start.source, sizeof source);
    return start.run(start.argument);
}

}  // namespace

WRAP int close(int fd) {
    if (fd != -1 && fd == channel && channelOwner == ::getpid() && !busy) {
        errno = EBADF;  // as if it were not there
        return -1;
    }
    if (active()) forget(fd);
    return realClose(fd);
}

WRAP int close_range(unsigned int first, unsigned int last, int flags) noexcept {
    REAL("close_range", int (*)(unsigned int, unsigned int, int));
    for (unsigned int fd = first; active() && fd <= last && fd < mostDescriptors; ++fd) forget(static_cast<int>(fd));
    const auto own = static_cast<unsigned int>(channel);
    if (channel == -1 || own < first || own > last) return real(first, last, flags);
    int result = own > first ? real(first, own - 1, flags) : 0;
    if (result == 0 && own < last) result = real(own + 1, last, flags);
    return result;
}

WRAP void closefrom(int low) noexcept { close_range(static_cast<unsigned int>(low < 0 ? 0 : low), ~0U, 0); }

WRAP int dup2(int from, int to) noexcept {
    REAL("dup2", int (*)(int, int));
    if (active() && from != to) forget(to);
    if (to != -1 && to == channel) channel = -1;  // the next line connects again
    return real(from, to);
}

WRAP int connect(int fd, const sockaddr *address, socklen_t length) {
    const auto call = [&]() -> long { return realConnect(fd, address, length); };
    if (!active()) return static_cast<int>(call());
    const int card = modemCard(address, length);
    if (card < 0) {
        configOf(fd, address, length);
        return static_cast<int>(call());
    }
    Descriptor *const one = remember(fd, Kind::modem);
    if (one == nullptr) return static_cast<int>(call());
    one->card = card;
    one->number = ++connections;
    return static_cast<int>(around(
        "connect", [&](Note &note) { note.channelOf(*one); }, call));
}

WRAP ssize_t sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t length) {
    const auto call = [&]() -> long { return realSendto(fd, data, size, flags, to, length); };
    if (!active()) return call();
    if (Descriptor *const echoes = echoSocket(fd)) return sendEcho(*echoes, data, size, to, call);
    Descriptor *one = configOf(fd, to, length);
    if (one == nullptr) one = at(fd, Kind::modem);
    if (one == nullptr) return call();
    return around(
        "send", [&](Note &note) { note.channelOf(*one).bytes(data, size); }, call);
}

WRAP ssize_t send(int fd, const void *data, size_t size, int flags) {
    return sendto(fd, data, size, flags, nullptr, 0);
}

WRAP ssize_t recvfrom(int fd, void *buffer, size_t size, int flags, sockaddr *from, socklen_t *length) {
    if (Descriptor *const echoes = active() && replays() ? echoSocket(fd) : nullptr)
        return replayReply(*echoes, buffer, size, flags, nullptr);
    const ssize_t got = realRecvfrom(fd, buffer, size, flags, from, length);
    if (got < 0) countLook(fd);
    if (got < 0 || (flags & MSG_PEEK) != 0 || !active() || replays()) return got;
    Descriptor *const one = at(fd);
    const size_t seen = static_cast<size_t>(got) < size ? static_cast<size_t>(got) : size;  // MSG_TRUNC counts all
    if (const Descriptor *const echoes = echoSocket(fd)) noteReply(*echoes, buffer, seen, nullptr);
    if (one == nullptr || (one->kind != Kind::config && one->kind != Kind::modem)) return got;
    Note("receive").channelOf(*one).bytes(buffer, seen).tell();
    return got;
}

template <typename Call>
static ssize_t receiveMessage(int fd, msghdr *message, int flags, Call call) {
    Descriptor *const one = active() ? at(fd) : nullptr;
    if (one == nullptr || one->kind == Kind::none || message == nullptr || message->msg_iovlen == 0) return call();
    void *const buffer = message->msg_iov[0].iov_base;
    const size_t size = message->msg_iov[0].iov_len;
    if (echoSocket(fd) != nullptr && replays()) return replayReply(*one, buffer, size, flags, message);
    const ssize_t got = call();
    if (got < 0) countLook(fd);
    if (got < 0 || replays() || (flags & MSG_PEEK) != 0) return got;
    const size_t seen = static_cast<size_t>(got) < size ? static_cast<size_t>(got) : size;
    if (echoSocket(fd) != nullptr) {
        noteReply(*one, buffer, seen, message);
    } else if (one->kind == Kind::config || one->kind == Kind::modem) {
        Note("receive").channelOf(*one).bytes(buffer, seen).tell();
    }
    return got;
}

#define WRAP_OPEN(name, function)                                                                              \
    extern "C" int function(const char *path, int flags, ...) NAMED(name);                                     \
    int function(const char *path, int flags, ...) {                                                           \
        REAL(name, int (*)(const char *, int, ...));                                                           \
        va_list arguments;                                                                                     \
        va_start(arguments, flags);                                                                            \
        const auto permissions = (flags & (O_CREAT | __O_TMPFILE)) != 0 ? va_arg(arguments, unsigned int) : 0; \
        va_end(arguments);                                                                                     \
        return openAt(AT_FDCWD, path, flags, [&] { return real(path, flags, permissions); });                  \
    }
WRAP_OPEN("open", tapOpen)
WRAP_OPEN("open64", tapOpen64)

#define WRAP_OPENAT(name, function)                                                                            \
    extern "C" int function(int directory, const char *path, int flags, ...) NAMED(name);                      \
    int function(int directory, const char *path, int flags, ...) {                                            \
        REAL(name, int (*)(int, const char *, int, ...));                                                      \
        va_list arguments;                                                                                     \
        va_start(arguments, flags);                                                                            \
        const auto permissions = (flags & (O_CREAT | __O_TMPFILE)) != 0 ? va_arg(arguments, unsigned int) : 0; \
        va_end(arguments);                                                                                     \
        return openAt(directory, path, flags, [&] { return real(directory, path, flags, permissions); });      \
    }
WRAP_OPENAT("openat", tapOpenat)
WRAP_OPENAT("openat64", tapOpenat64)

#define WRAP_OPEN2(name, function)                                               \
    extern "C" int function(const char *path, int flags) NAMED(name);            \
    int function(const char *path, int flags) {                                  \
        REAL(name, int (*)(const char *, int));                                  \
        return openAt(AT_FDCWD, path, flags, [&] { return real(path, flags); }); \
    }
WRAP_OPEN2("__open_2", tapOpen2)
WRAP_OPEN2("__open64_2", tapOpen642)

#define WRAP_OPENAT2(name, function)                                                         \
    extern "C" int function(int directory, const char *path, int flags) NAMED(name);         \
    int function(int directory, const char *path, int flags) {                               \
        REAL(name, int (*)(int, const char *, int));                                         \
        return openAt(directory, path, flags, [&] { return real(directory, path, flags); }); \
    }
WRAP_OPENAT2("__openat_2", tapOpenat2)
WRAP_OPENAT2("__openat64_2", tapOpenat642)

#define WRAP_FOPEN(name, function)                                             \
    extern "C" FILE *function(const char *path, const char *mode) NAMED(name); \
    FILE *function(const char *path, const char *mode) {                       \
        REAL(name, FILE *(*)(const char *, const char *));                     \
        return openStream(path, mode, real);                                   \
    }
WRAP_FOPEN("fopen", tapFopen)
WRAP_FOPEN("fopen64", tapFopen64)

WRAP int fclose(FILE *stream) {
    if (active() && stream != nullptr) {
        noteStream(stream);
        forget(::fileno(stream));
    }
    return realFclose(stream);
}

WRAP ssize_t read(int fd, void *buffer, size_t size) {
    return readFile(fd, buffer, size, [&] { return realRead(fd, buffer, size); });
}

#define WRAP_PREAD(name, function, type)                                                     \
    extern "C" ssize_t function(int fd, void *buffer, size_t size, type offset) NAMED(name); \
    ssize_t function(int fd, void *buffer, size_t size, type offset) {                       \
        REAL(name, ssize_t (*)(int, void *, size_t, type));                                  \
        return readFile(fd, buffer, size, [&] { return real(fd, buffer, size, offset); });   \
    }
WRAP_PREAD("pread", tapPread, off_t)
WRAP_PREAD("pread64", tapPread64, off64_t)

// libevent reads FIFOs with it. Of a file, one piece is read.
WRAP ssize_t readv(int fd, const iovec *pieces, int count) {
    REAL("readv", ssize_t(*)(int, const iovec *, int));
    const Descriptor *const one = active() ? at(fd) : nullptr;
    if (one == nullptr || count < 1 || (one->kind != Kind::file && one->kind != Kind::fifo))
        return real(fd, pieces, count);
    if (one->kind == Kind::file || count == 1) return read(fd, pieces[0].iov_base, pieces[0].iov_len);
    Path path = "";
    if (one->text != nullptr) copyPath(path, one->text);
    const ssize_t got = real(fd, pieces, count);
    if (got <= 0 || replays()) return got;
    auto left = static_cast<size_t>(got);
    for (int i = 0; i < count && left > 0; ++i) {
        const size_t piece = left < pieces[i].iov_len ? left : pieces[i].iov_len;
        Note("fifo").bytes(path).bytes(pieces[i].iov_base, piece).tell();
        left -= piece;
    }
    return got;
}

WRAP ssize_t write(int fd, const void *data, size_t size) {
    if (active() && at(fd, Kind::modem) != nullptr) return sendto(fd, data, size, 0, nullptr, 0);
    return writeFile(fd, data, size, [&] { return realWrite(fd, data, size); });
}

WRAP ssize_t writev(int fd, const iovec *pieces, int count) {
    REAL("writev", ssize_t(*)(int, const iovec *, int));
    const Descriptor *const one = active() ? at(fd) : nullptr;
    if (one == nullptr || (one->kind != Kind::file && one->kind != Kind::fifo)) return real(fd, pieces, count);
    auto *const bytes = static_cast<char *>(std::malloc(longestRecorded));
    if (bytes == nullptr) return real(fd, pieces, count);
    size_t length = 0;
    for (int i = 0; i < count; ++i) {
        const size_t room = longestRecorded - length;
        const size_t piece = pieces[i].iov_len < room ? pieces[i].iov_len : room;
        std::memcpy(bytes + length, pieces[i].iov_base, piece);
        length += piece;
    }
    const ssize_t result = writeFile(fd, bytes, length, [&] { return real(fd, pieces, count); });
    std::free(bytes);
    return result;
}

#define WRAP_PWRITE(name, function, type)                                                        \
    extern "C" ssize_t function(int fd, const void *data, size_t size, type offset) NAMED(name); \
    ssize_t function(int fd, const void *data, size_t size, type offset) {                       \
        REAL(name, ssize_t (*)(int, const void *, size_t, type));                                \
        return writeFile(fd, data, size, [&] { return real(fd, data, size, offset); });          \
    }
WRAP_PWRITE("pwrite", tapPwrite, off_t)
WRAP_PWRITE("pwrite64", tapPwrite64, off64_t)

#define WRAP_RECVMSG(name, function)                                                         \
    extern "C" ssize_t function(int fd, msghdr *message, int flags) NAMED(name);             \
    ssize_t function(int fd, msghdr *message, int flags) {                                   \
        REAL(name, ssize_t (*)(int, msghdr *, int));                                         \
        return receiveMessage(fd, message, flags, [&] { return real(fd, message, flags); }); \
    }
WRAP_RECVMSG("recvmsg", tapRecvmsg)
WRAP_RECVMSG("__recvmsg64", tapRecvmsg64)

// Nothing leaves the socket of an echo in a replay.
#define WRAP_SENDMSG(name, function)                                                   \
    extern "C" ssize_t function(int fd, const msghdr *message, int flags) NAMED(name); \
    ssize_t function(int fd, const msghdr *message, int flags) {                       \
        REAL(name, ssize_t (*)(int, const msghdr *, int));                             \
        if (active() && replays() && echoSocket(fd) != nullptr) return 0;              \
        return real(fd, message, flags);                                               \
    }
WRAP_SENDMSG("sendmsg", tapSendmsg)
WRAP_SENDMSG("__sendmsg64", tapSendmsg64)

WRAP int access(const char *path, int kind) noexcept {
    REAL("access", int (*)(const char *, int));
    return accessAt(AT_FDCWD, path, [&] { return real(path, kind); });
}

WRAP int faccessat(int directory, const char *path, int kind, int flags) noexcept {
    REAL("faccessat", int (*)(int, const char *, int, int));
    return accessAt(directory, path, [&] { return real(directory, path, kind, flags); });
}

#define WRAP_STAT(name, function)                                                               \
    extern "C" int function(const char *path, void *about) NAMED(name);                         \
    int function(const char *path, void *about) {                                               \
        REAL(name, int (*)(const char *, void *));                                              \
        return statAt(AT_FDCWD, path, [&](const char *looked) { return real(looked, about); }); \
    }
WRAP_STAT("stat", tapStat)
WRAP_STAT("stat64", tapStat64)
WRAP_STAT("__stat64_time64", tapStatTime64)
WRAP_STAT("lstat", tapLstat)
WRAP_STAT("lstat64", tapLstat64)
WRAP_STAT("__lstat64_time64", tapLstatTime64)

#define WRAP_FSTATAT(name, function)                                                                               \
    extern "C" int function(int directory, const char *path, void *about, int flags) NAMED(name);                  \
    int function(int directory, const char *path, void *about, int flags) {                                        \
        REAL(name, int (*)(int, const char *, void *, int));                                                       \
        return statAt(directory, path, [&](const char *looked) { return real(directory, looked, about, flags); }); \
    }
WRAP_FSTATAT("fstatat", tapFstatat)
WRAP_FSTATAT("fstatat64", tapFstatat64)
WRAP_FSTATAT("__fstatat64_time64", tapFstatatTime64)

WRAP int mkdir(const char *path, mode_t permissions) noexcept {
    REAL("mkdir", int (*)(const char *, mode_t));
    return makeAt("directory", AT_FDCWD, path, [&] { return real(path, permissions); });
}
WRAP int mkdirat(int directory, const char *path, mode_t permissions) noexcept {
    REAL("mkdirat", int (*)(int, const char *, mode_t));
    return makeAt("directory", directory, path, [&] { return real(directory, path, permissions); });
}
WRAP int mkfifo(const char *path, mode_t permissions) noexcept {
    REAL("mkfifo", int (*)(const char *, mode_t));
    return makeAt("fifo", AT_FDCWD, path, [&] { return real(path, permissions); });
}
WRAP int mkfifoat(int directory, const char *path, mode_t permissions) noexcept {
    REAL("mkfifoat", int (*)(int, const char *, mode_t));
    return makeAt("fifo", directory, path, [&] { return real(directory, path, permissions); });
}
WRAP int symlink(const char *target, const char *path) noexcept {
    REAL("symlink", int (*)(const char *, const char *));
    return makeAt("link", AT_FDCWD, path, [&] { return real(target, path); });
}
WRAP int symlinkat(const char *target, int directory, const char *path) noexcept {
    REAL("symlinkat", int (*)(const char *, int, const char *));
    return makeAt("link", directory, path, [&] { return real(target, directory, path); });
}
WRAP int unlink(const char *path) noexcept {
    REAL("unlink", int (*)(const char *));
    return removeAt(AT_FDCWD, path, [&] { return real(path); });
}
WRAP int unlinkat(int directory, const char *path, int flags) noexcept {
    REAL("unlinkat", int (*)(int, const char *, int));
    return removeAt(directory, path, [&] { return real(directory, path, flags); });
}
WRAP int rmdir(const char *path) noexcept {
    REAL("rmdir", int (*)(const char *));
    return removeAt(AT_FDCWD, path, [&] { return real(path); });
}
WRAP int remove(const char *path) noexcept {
    REAL("remove", int (*)(const char *));
    return removeAt(AT_FDCWD, path, [&] { return real(path); });
}
WRAP int rename(const char *from, const char *to) noexcept {
    REAL("rename", int (*)(const char *, const char *));
    return renameAt(AT_FDCWD, from, AT_FDCWD, to, [&] { return real(from, to); });
}
WRAP int renameat(int oldDirectory, const char *from, int newDirectory, const char *to) noexcept {
    REAL("renameat", int (*)(int, const char *, int, const char *));
    return renameAt(oldDirectory, from, newDirectory, to, [&] { return real(oldDirectory, from, newDirectory, to); });
}

// NOLINTBEGIN(bugprone-macro-parentheses): these are types and parameter lists
#define WRAP_TEMPORARY(name, function, parameters, arguments, types) \
    extern "C" int function parameters NAMED(name);                  \
    int function parameters {                                        \
        REAL(name, int(*) types);                                    \
        return makeTemporary(path, [&] { return real arguments; });  \
    }
WRAP_TEMPORARY("mkstemp", tapMkstemp, (char *path), (path), (char *))
WRAP_TEMPORARY("mkstemp64", tapMkstemp64, (char *path), (path), (char *))
WRAP_TEMPORARY("mkostemp", tapMkostemp, (char *path, int flags), (path, flags), (char *, int))
WRAP_TEMPORARY("mkostemp64", tapMkostemp64, (char *path, int flags), (path, flags), (char *, int))

#define WRAP_SCANDIR(name, function, Entry)                                                                       \
    using function##Filter = int (*)(const Entry *);                                                              \
    using function##Compare = int (*)(const Entry **, const Entry **);                                            \
    extern "C" int function(const char *path, Entry ***found, function##Filter filter, function##Compare compare) \
        NAMED(name);                                                                                              \
    int function(const char *path, Entry ***found, function##Filter filter, function##Compare compare) {          \
        REAL(name, int (*)(const char *, Entry ***, function##Filter, function##Compare));                        \
        return list<Entry>(path, found, filter, compare, real);                                                   \
    }
WRAP_SCANDIR("scandir", tapScandir, dirent)
WRAP_SCANDIR("scandir64", tapScandir64, dirent64)
// NOLINTEND(bugprone-macro-parentheses)

WRAP int socket(int family, int type, int protocol) noexcept {
    int fd = realSocket(family, type, protocol);
    if (!active()) return fd;
    const bool raw = (type & 0xf) == SOCK_RAW;
    const Kind kind = family == AF_PACKET && raw                             ? Kind::link
                      : family == AF_INET && raw && protocol == IPPROTO_ICMP ? Kind::icmp
                                                                             : Kind::none;
    if (fd == -1 && kind != Kind::none && replays()) fd = realSocket(AF_UNIX, SOCK_DGRAM | (type & SOCK_CLOEXEC), 0);
    if (fd == -1) return fd;
    forget(fd);
    if (kind != Kind::none) remember(fd, kind);
    return fd;
}

template <typename Call>
static int setOption(int fd, int level, int option, const void *value, socklen_t length, Call call) {
    Descriptor *const one = active() ? echoSocket(fd) : nullptr;
    if (one == nullptr) return call();
    if (level == SOL_SOCKET && option == SO_BINDTODEVICE && value != nullptr) {
        std::free(one->text);
        one->text = ::strndup(static_cast<const char *>(value), length);
    }
    if (level == SOL_SOCKET && (option == SO_TIMESTAMPNS_OLD || option == SO_TIMESTAMPNS_NEW)) one->stamps = option;
    return replays() ? 0 : call();
}

#define WRAP_SETSOCKOPT(name, function)                                                                             \
    extern "C" int function(int fd, int level, int option, const void *value, socklen_t length) NAMED(name);        \
    int function(int fd, int level, int option, const void *value, socklen_t length) {                              \
        REAL(name, int (*)(int, int, int, const void *, socklen_t));                                                \
        return setOption(fd, level, option, value, length, [&] { return real(fd, level, option, value, length); }); \
    }
WRAP_SETSOCKOPT("setsockopt", tapSetsockopt)
WRAP_SETSOCKOPT("__setsockopt64", tapSetsockopt64)

WRAP int bind(int fd, const sockaddr *address, socklen_t length) noexcept {
    REAL("bind", int (*)(int, const sockaddr *, socklen_t));
    if (active() && replays() && echoSocket(fd) != nullptr) return 0;
    return real(fd, address, length);
}

template <typename Call>
static int control(unsigned long request, void *argument, Call call) {
    struct Named {
        unsigned long request;
        const char *name;
    };
    constexpr Named known[] = {{SIOCGIFINDEX, "index"},     {SIOCGIFADDR, "address"}, {SIOCGIFNETMASK, "netmask"},
                               {SIOCGIFHWADDR, "hardware"}, {SIOCGIFFLAGS, "flags"},  {SIOCGIFMTU, "mtu"}};
    constexpr size_t valueLength = 16;
    const char *name = nullptr;
    for (const Named &one : known) name = one.request == request ? one.name : name;
    if (name == nullptr || argument == nullptr || !active()) return call();
    auto *const about = static_cast<ifreq *>(argument);
    char interface[IFNAMSIZ];
    std::snprintf(interface, sizeof interface, "%.*s", IFNAMSIZ - 1, about->ifr_name);
    std::memcpy(lastInterface, interface, sizeof lastInterface);
    if (!replays()) {
        const int result = call();
        Note("interface")
            .bytes(interface)
            .name(name)
            .bytes(&about->ifr_ifru, valueLength)
            .result(result == -1 ? errno : 0)
            .tell();
        return result;
    }
    int error;
    {
        Note note("interface");
        const char *bytes = nullptr;
        const TapAnswer answer = note.bytes(interface).name(name).bytes("").result(0).ask(&bytes);
        error = answer.error;
        if (error == 0 && answer.length == valueLength) std::memcpy(&about->ifr_ifru, bytes, valueLength);
    }
    if (error <= 0) return error == 0 ? 0 : call();
    errno = error;
    return -1;
}

#define WRAP_IOCTL(name, function)                                                      \
    extern "C" int function(int fd, unsigned long request, ...) NAMED(name);            \
    int function(int fd, unsigned long request, ...) {                                  \
        REAL(name, int (*)(int, unsigned long, ...));                                   \
        va_list arguments;                                                              \
        va_start(arguments, request);                                                   \
        void *const argument = va_arg(arguments, void *);                               \
        va_end(arguments);                                                              \
        return control(request, argument, [&] { return real(fd, request, argument); }); \
    }
WRAP_IOCTL("ioctl", tapIoctl)
WRAP_IOCTL("__ioctl_time64", tapIoctlTime64)

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
WRAP void vsyslog(int priority, const char *format, va_list arguments) {
    REAL("vsyslog", void (*)(int, const char *, va_list));
    noteLog(priority, format, arguments);
    real(priority, format, arguments);
}
WRAP void syslog(int priority, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsyslog(priority, format, arguments);
    va_end(arguments);
}
WRAP void __vsyslog_chk(int priority, int, const char *format, va_list arguments) {
    vsyslog(priority, format, arguments);
}
WRAP void __syslog_chk(int priority, int, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsyslog(priority, format, arguments);
    va_end(arguments);
}
#pragma GCC diagnostic pop

WRAP int system(const char *command) {
    REAL("system", int (*)(const char *));
    const char *const words[] = {command, nullptr};
    noteRun(words);
    return real(command);
}
WRAP FILE *popen(const char *command, const char *mode) {
    REAL("popen", FILE * (*)(const char *, const char *));
    const char *const words[] = {command, nullptr};
    noteRun(words);
    return real(command, mode);
}
WRAP int execv(const char *path, char *const words[]) noexcept {
    REAL("execv", int (*)(const char *, char *const *));
    noteRun(words);
    return real(path, words);
}
WRAP int execve(const char *path, char *const words[], char *const environment[]) noexcept {
    REAL("execve", int (*)(const char *, char *const *, char *const *));
    noteRun(words);
    return real(path, words, environment);
}
WRAP int execvp(const char *file, char *const words[]) noexcept {
    REAL("execvp", int (*)(const char *, char *const *));
    noteRun(words);
    return real(file, words);
}
using Spawn = int (*)(pid_t *, const char *, const posix_spawn_file_actions_t *, const posix_spawnattr_t *,
                      char *const *, char *const *);
WRAP int posix_spawn(pid_t *pid, const char *path, const posix_spawn_file_actions_t *actions,
                     const posix_spawnattr_t *attributes, char *const words[], char *const environment[]) {
    REAL("posix_spawn", Spawn);
    noteRun(words);
    return real(pid, path, actions, attributes, words, environment);
}
WRAP int posix_spawnp(pid_t *pid, const char *file, const posix_spawn_file_actions_t *actions,
                      const posix_spawnattr_t *attributes, char *const words[], char *const environment[]) {
    REAL("posix_spawnp", Spawn);
    noteRun(words);
    return real(pid, file, actions, attributes, words, environment);
}

WRAP pid_t fork() noexcept {
    REAL("fork", pid_t(*)());
    if (!active()) return real();
    const Lock lock;  // the child has one thread, and it holds the lock
    const int number = ++children;
    const pid_t pid = real();
    if (pid == 0) {
        const size_t length = std::strlen(source);
        std::snprintf(source + length, sizeof source - length, "/%d", number);
        children = threads = connections = 0;
    }
    return pid;
}

WRAP int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*run)(void *),
                        void *argument) noexcept {
    REAL("pthread_create", int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *));
    auto *const start = active() ? static_cast<Start *>(std::malloc(sizeof(Start))) : nullptr;
    if (start == nullptr) return real(thread, attributes, run, argument);
    *start = {run, argument, ""};
    std::snprintf(start->source, sizeof start->source, "%.*s.%d", static_cast<int>(nameLength - 13), source, ++threads);
    const int error = real(thread, attributes, runThread, start);
    if (error != 0) std::free(start);
    return error;
}

WRAP ssize_t recv(int fd, void *buffer, size_t size, int flags) {
    return recvfrom(fd, buffer, size, flags, nullptr, nullptr);
}
