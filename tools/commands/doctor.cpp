// SPDX-License-Identifier: MIT
// vx doctor: what of all this works on this machine, for this user.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxutils/adc.h>
#include <vxutils/dio.h>
#include <vxutils/route.h>

#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>

#include "commands/commands.h"
#include "core/failure.h"
#include "core/fd.h"
#include "core/socket.h"
#include "core/zeromq.h"

namespace tool {

namespace {

// ---- one check

enum class Need { needed, ifFitted };  // of every gateway, or of those that have the hardware or the service

struct Finding {
    bool ok;
    std::string detail;  // of a failure: why; of a success: what was found, or nothing
};

struct Check {
    const char *area;  // the command that needs it
    const char *what;
    Need need;
    const char *advice;
    std::function<Finding()> look;
};

Finding found(std::string detail = {}) { return {true, std::move(detail)}; }
Finding lacking(std::string detail) { return {false, std::move(detail)}; }
Finding fromErrno(const std::string &on) { return lacking(on + ": " + std::strerror(errno)); }

Finding permitted(const std::string &path, int mode) {
    return ::access(path.c_str(), mode) == 0 ? found(path) : fromErrno(path);
}

std::function<Finding()> may(const char *path, int mode) {
    return [=] { return permitted(path, mode); };
}

Finding answersAt(const std::string &path, int type) { return answers(path, type) ? found(path) : fromErrno(path); }

// ---- what is looked at

constexpr int connectTime_ms = 2000;

Finding eventFifo() {
    constexpr const char *path = "/tmp/status/event-manager/throw";
    struct stat status {};
    if (::stat(path, &status) != 0) return fromErrno(path);
    if (!S_ISFIFO(status.st_mode)) return lacking(std::string(path) + ": not a FIFO");
    // The library opens it for reading too, so as not to wait for a reader.
    return permitted(path, R_OK | W_OK);
}

Finding eventManager() {
    constexpr const char *path = "/tmp/status/event-manager/throw";
    if (Fd(::open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC)).valid()) return found();
    return errno == ENXIO ? lacking(std::string(path) + ": no reader") : fromErrno(path);
}

Finding lines() {
    unsigned int inputs = 0;
    unsigned int outputs = 0;
    constexpr const char *path = "/sys/devices/vantorix";
    if (::access(path, F_OK) != 0) return fromErrno(path);
    if (dio_roCount(&inputs) != DIO_OK || dio_rwCount(&outputs) != DIO_OK) return fromErrno(path);
    return found(std::to_string(inputs) + " inputs, " + std::to_string(outputs) + " outputs");
}

Finding outputsWritable() {
    unsigned int outputs = 0;
    if (dio_rwCount(&outputs) != DIO_OK || outputs == 0) return lacking("the board has no outputs");
    for (unsigned int i = 1; i <= outputs; ++i) {
        Finding one = permitted("/sys/devices/vantorix/dout" + std::to_string(i) + "/value", W_OK);
        if (!one.ok) return one;
    }
    return found();
}

Finding converters() {
    if (qxalpha_adc_supported() == 1) return found("converter");
    return ::access("/sys/bus/i2c/devices/0-0058/da9063-hwmon/hwmon", X_OK) == 0 ? found("monitor")
                                                                                 : lacking("no converter");
}

Finding modems() {
    std::string cards;
    std::string silent;
    for (int card = 0; card <= 15; ++card) {
        const std::string path = "/var/run/wwanmd" + std::to_string(card) + "/server";
        if (::access(path.c_str(), F_OK) != 0) continue;
        (answers(path, SOCK_STREAM) ? cards : silent) += " " + std::to_string(card);
    }
    if (!silent.empty()) return lacking("no daemon answers for card" + silent);
    return cards.empty() ? lacking("no modem daemon runs") : found("card" + cards);
}

std::function<Finding()> socketOpens(int domain, int type, int protocol) {
    return [=] {
        return Fd(::socket(domain, type | SOCK_CLOEXEC, protocol)).valid() ? found() : lacking(std::strerror(errno));
    };
}

Finding routes() {
    sockaddr_in loopback{};
    loopback.sin_family = AF_INET;
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addrinfo target{};
    target.ai_family = AF_INET;
    target.ai_addr = reinterpret_cast<sockaddr *>(&loopback);
    std::array<char, IF_NAMESIZE> name{};
    return route_get_interface(&target, name.data()) == 0 ? found() : lacking(std::strerror(errno));
}

// Waits for a connection on its way. False with errno set when it fails or takes too long.
bool isConnected(int fd) {
    pollfd waiting{fd, POLLOUT, 0};
    int error = ETIMEDOUT;
    socklen_t size = sizeof error;
    if (::poll(&waiting, 1, connectTime_ms) == 1) ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
    errno = error;
    return error == 0;
}

Finding publisher() {
    // A daemon that hangs takes no connections: a blocking call would wait for minutes.
    const Fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(47011);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool connected = ::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ||
                           (errno == EINPROGRESS && isConnected(fd.get()));
    return connected ? found() : lacking(std::string("tcp://127.0.0.1:47011: ") + std::strerror(errno));
}

Finding legacyEvents() {
    try {
        zeroMq();
        return found();
    } catch (const Failure &failure) {
        return lacking(failure.text);
    }
}

Finding firewallLock() {
    constexpr const char *path = "/var/lock/iptables_flock_file";
    if (::access(path, F_OK) == 0) return permitted(path, R_OK);
    return permitted("/var/lock", W_OK | X_OK);
}

Finding notVetoed(const char *marker) {
    return ::access(marker, R_OK) == 0 ? lacking(std::string("vetoed by ") + marker) : found();
}

std::vector<Check> allChecks() {
    constexpr Need needed = Need::needed;
    constexpr Need ifFitted = Need::ifFitted;
    const auto logSocket = [] { return answersAt("/dev/log", SOCK_DGRAM); };
    return {
        {"log", "system log", needed, "start a system logger: the library's messages are lost", logSocket},
        {"config", "directory", needed, "make it, writable for this user: clients bind their sockets in it",
         may("/var/run/configd", W_OK | X_OK)},
        {"config", "daemon", needed, "start configd",
         [] { return answersAt("/var/run/configd/daemon.sock", SOCK_DGRAM); }},
        {"sysinfo", "file", needed, "install the firmware's system information", may("/etc/default/system-info", R_OK)},
        {"status", "reading", needed, "make the directory, readable for this user", may("/tmp/status", R_OK | X_OK)},
        {"status", "writing", needed, "run as a user that may write there", may("/tmp/status", W_OK | X_OK)},
        {"status", "reading --nv", needed, "mount or make the directory, readable for this user",
         may("/nvstatus", R_OK | X_OK)},
        {"status", "writing --nv", needed, "run as a user that may write there", may("/nvstatus", W_OK | X_OK)},
        {"event", "FIFO", needed, "start the event manager; this user must be able to read and write its FIFO",
         eventFifo},
        {"event", "manager", needed, "start the event manager", eventManager},
        {"event", "ZeroMQ", ifFitted, "install it", legacyEvents},
        {"event", "publisher", ifFitted, "start the daemon that publishes events", publisher},
        {"log", "key file", needed, "make the file: the log's lock is found by it", may("/etc/fstab", F_OK)},
        {"log", "directory", needed, "run as a user that may write there", may("/var/log", W_OK | X_OK)},
        {"io", "lines", ifFitted, "load the board driver", lines},
        {"io", "outputs", ifFitted, "run as a user that may write the driver's files", outputsWritable},
        {"adc", "converter", ifFitted, "load the driver of the board's converter or monitor", converters},
        {"board", "board data", ifFitted, "run the firmware's kernel, which has it", may("/proc/sysinfo", R_OK | X_OK)},
        {"storage", "block devices", needed, "mount /sys", may("/sys/class/block", R_OK | X_OK)},
        {"modem", "daemons", ifFitted, "start wwanmd for each card", modems},
        {"sms", "sending", ifFitted, "install the firmware's script", may("/usr/local/sbin/send-sms", X_OK)},
        {"sms", "spool", ifFitted, "make the directory, readable for this user",
         may("/var/spool/sms/incoming", R_OK | X_OK)},
        {"ping", "raw sockets", needed, "run as root or with CAP_NET_RAW",
         socketOpens(AF_INET, SOCK_RAW, IPPROTO_ICMP)},
        {"ping", "packet sockets", needed, "run as root or with CAP_NET_RAW", socketOpens(AF_PACKET, SOCK_RAW, 0)},
        {"route", "route query", needed, "bring up the loopback interface", routes},
        {"link", "bridge members", ifFitted, "install bridge-utils", may("/usr/sbin/brctl", X_OK)},
        {"link", "link manager", ifFitted, "start the link manager", may("/tmp/status/link-manager", R_OK | X_OK)},
        {"lock", "library file", needed, "install the library there: the guard of named locks is found by it",
         may("/usr/lib/libvxutils.so.1.0.0", F_OK)},
        {"lock", "shared memory", needed, "mount /dev/shm, writable for this user", may("/dev/shm", W_OK | X_OK)},
        {"lock", "packet filter", needed, "run as root: the lock file is root's", firewallLock},
        {"proc", "process table", needed, "mount /proc so that other users' processes are seen",
         may("/proc/1/stat", R_OK)},
        {"reboot", "script", needed, "install the firmware's script: without it the kernel restarts at once",
         may("/usr/local/sbin/system-reboot", X_OK)},
        {"reboot", "veto", ifFitted, "vx reboot --unveto allows it", [] { return notVetoed("/nvstatus/skip-reboot"); }},
        {"poweroff", "script", needed, "install the firmware's script: without it the kernel switches off at once",
         may("/usr/local/sbin/system-poweroff", X_OK)},
        {"poweroff", "veto", ifFitted, "vx poweroff --unveto allows it",
         [] { return notVetoed("/nvstatus/skip-poweroff"); }},
    };
}

void print(Output &out, std::vector<Record> &records, const Check &check, const char *state, const Finding &finding) {
    const std::string &detail = finding.detail;
    if (out.json()) {
        records.push_back({{"command", check.area},
                           {"check", check.what},
                           {"state", state},
                           {"detail", detail.empty() ? Value() : Value(detail)},
                           {"advice", finding.ok ? Value() : Value(check.advice)}});
        return;
    }
    std::string text = check.what;
    if (!detail.empty()) text += ": " + detail;
    if (!finding.ok) text += std::string("; ") + check.advice;
    out.print(Record{{"state", state}, {"command", check.area}, {"text", text}}, Plain::words);
}

int doctor(const Arguments &arguments, Output &out) {
    const std::vector<Check> checks = allChecks();
    const auto &wanted = arguments.words();
    for (const std::string &word : wanted) {
        const bool known =
            std::any_of(checks.begin(), checks.end(), [&](const Check &check) { return word == check.area; });
        if (!known) throw Usage{"COMMAND '" + word + "' needs nothing that could be missing"};
    }
    std::vector<Record> records;
    bool complete = true;
    for (const Check &check : checks) {
        if (!wanted.empty() && std::find(wanted.begin(), wanted.end(), check.area) == wanted.end()) continue;
        const Finding finding = check.look();
        // What was asked for by name is needed.
        const bool missing = !finding.ok && (check.need == Need::needed || !wanted.empty());
        print(out, records, check, finding.ok ? "ok" : missing ? "missing" : "absent", finding);
        complete = complete && !missing;
    }
    if (out.json()) out.print(records, Plain::words);
    return complete ? statusDone : statusFailed;
}

std::vector<std::string> areaWords(const Arguments &) {
    std::vector<std::string> words;
    for (const Check &check : allChecks()) {
        if (std::find(words.begin(), words.end(), check.area) == words.end()) words.emplace_back(check.area);
    }
    return words;
}

constexpr Argument commands[] = {{"COMMAND", Count::any, areaWords}};
constexpr Verb verbs[] = {
    {"", "check what the commands, or those named, need on this machine for this user", {}, commands, doctor}};

}  // namespace

const Command doctorCommand{"doctor", "what works here, and what to do about the rest", {}, verbs};

}  // namespace tool
