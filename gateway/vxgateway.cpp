// SPDX-License-Identifier: MIT
// vxgateway: runs a program in a virtual gateway. Makes the box, in which gatewayd does the rest.
#include <arpa/inet.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "gateway/core/junit.h"
#include "gateway/core/recorder.h"
#include "gateway/core/scenario.h"
#include "gateway/ignored_signal.h"
#include "gateway/standard_streams.h"

namespace {

namespace fs = std::filesystem;
using Arguments = std::vector<std::string>;

constexpr const char *usage =
    "usage: vxgateway run [OPTION]... [--] PROGRAM [ARGUMENT]...\n"
    "       vxgateway shell [OPTION]...\n"
    "       vxgateway play [OPTION]... SCENARIO [[--] PROGRAM [ARGUMENT]...]\n"
    "       vxgateway record [-o FILE] [--mask PATTERN]... [--] PROGRAM [ARGUMENT]...\n"
    "       vxgateway replay [OPTION]... FILE [--] PROGRAM [ARGUMENT]...\n"
    "       vxgateway panel [OPTION]... [--port N] [[--] PROGRAM [ARGUMENT]...]\n"
    "       vxgateway list [scenarios]\n"
    "       vxgateway --help | --version\n"
    "Runs a program in a virtual gateway: a throwaway system with the daemons, the board and the WAN link of a "
    "router.\n"
    "\n"
    "  --user NAME            the program runs as this user\n"
    "  --share DIR            the directory is seen at /share/DIR and can be written to\n"
    "  --show PATH            a file or directory is seen at its own place, read-only\n"
    "  --path DIR             as --show, and its programs are found by name\n"
    "  --with-directory       the program is seen with the directory that it lies in, as /program/NAME\n"
    "  --clock                the program's clock can be set (gw clock); play does it where the scenario sets it\n"
    "  --net none|wan|full    no network; a WAN link (default); a WAN link and a LAN with a host\n"
    "  --keep DIR             logs of all peers, the system log, the record and the status tree are left in this "
    "directory\n"
    "  --timeout SECONDS      the program is ended after this time, with status 124\n"
    "  --junit FILE           the result is written to this file\n"
    "  --tolerance SECONDS    replay: time within which independent actions may change places, 1 by default\n"
    "  --ignore PATTERN       replay: lines that match are not compared, as 'write \"/tmp/status/wan/rtt\" *'\n"
    "  --port N               the panel's port on this machine; 0 (default) takes a free one\n"
    "\n"
    "Ends with the program's own status (128 + signal number when a signal ended it), 124 when its time was over, 125 "
    "when\n"
    "the gateway could not be started, 126 or 127 when the program could not be run or was not found. In the gateway, "
    "gw\n"
    "moves things and shows what came of it: gw help.\n";

enum ExitStatus { failed = 1, wrongUsage = 2, noGateway = 125, cannotRun = 126, notFound = 127 };

[[noreturn]] void refuse(int status, const std::string &what) {
    std::fprintf(stderr, "vxgateway: %s\n", what.c_str());
    std::exit(status);
}

[[noreturn]] void wrong(const std::string &what) { refuse(wrongUsage, what + "; vxgateway --help shows the usage"); }

struct Options {
    std::string command;
    Arguments box;     // options for the box
    Arguments inside;  // options for gatewayd
    Arguments path;    // directories first on the PATH
    Arguments shown;   // seen at their own places
    bool withDirectory = false;
    bool clock = false;
    std::string junit;
    std::string scenario;
    std::string recording;
    uint16_t port = 0;
    Arguments program;
};

// ---- where the parts are

// The directory of this program's file: in the build tree all parts are there.
std::string ownDirectory() { return fs::read_symlink("/proc/self/exe").parent_path(); }

bool inBuildTree() { return fs::exists(ownDirectory() + "/gatewayd"); }

std::string partsDirectory() {
    return inBuildTree() ? ownDirectory() : fs::weakly_canonical(ownDirectory() + "/" VXGATEWAY_PARTS).string();
}
std::string libraryDirectory() {
    return fs::weakly_canonical(ownDirectory() + (inBuildTree() ? "/../vxutils" : "/" VXGATEWAY_LIBRARY)).string();
}
std::string scenarioDirectory() {
    return fs::weakly_canonical(ownDirectory() + (inBuildTree() ? "/scenarios" : "/" VXGATEWAY_SCENARIOS)).string();
}

std::string panelDirectory() {
    return inBuildTree() ? ownDirectory() + "/page"
                         : fs::weakly_canonical(ownDirectory() + "/" VXGATEWAY_PANEL).string();
}
std::string pytestDirectory() { return fs::weakly_canonical(ownDirectory() + "/" VXGATEWAY_PYTEST).string(); }

// The box shows these as they are on the machine.
bool isSystem(const std::string &path) {
    for (const char *directory : {"/usr/", "/bin/", "/sbin/", "/lib/", "/lib32/", "/lib64/", "/libx32/"}) {
        if (path.rfind(directory, 0) == 0) return true;
    }
    return false;
}

// ---- options

std::string existing(const std::string &option, const std::string &path, bool directory) {
    std::error_code error;
    const fs::path whole = fs::canonical(path, error);
    if (error) refuse(wrongUsage, option + ": " + path + ": " + error.message());
    if (directory && !fs::is_directory(whole)) refuse(wrongUsage, option + ": " + path + " is not a directory");
    return whole;
}

void show(Options &options, const std::string &path) {
    if (isSystem(path + "/")) return;
    options.box.insert(options.box.end(), {"--show", path, path});
    options.shown.push_back(path);
}

// A scenario's text, from a file (with a "/" in its name) or from the catalogue.
std::string scenarioFile(const std::string &name, bool &setsClock) {
    const std::string path =
        name.find('/') != std::string::npos ? name : scenarioDirectory() + "/" + name + ".scenario";
    if (!fs::is_regular_file(path))
        refuse(wrongUsage, "no scenario " + name + "; vxgateway list scenarios shows them, a file's name has a '/'");
    std::ifstream file(path);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    try {
        for (const vxgateway::Step &step : vxgateway::readScenario(name, text).steps)
            setsClock = setsClock || (step.kind == vxgateway::Step::Kind::at && step.words[0] == "clock");
    } catch (const std::exception &problem) {
        std::fprintf(stderr, "%s\n", problem.what());
        std::exit(wrongUsage);
    }
    return fs::canonical(path);
}

std::string recordingFile(const std::string &name) {
    if (fs::exists(name) && !fs::is_regular_file(name)) refuse(wrongUsage, name + ": not a file");
    std::ifstream file(name);
    if (!file) refuse(wrongUsage, name + ": " + std::strerror(errno));
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    try {
        vxgateway::readRecording(name, text);
    } catch (const std::exception &problem) {
        std::fprintf(stderr, "%s\n", problem.what());
        std::exit(wrongUsage);
    }
    return fs::canonical(name);
}

void takeOption(Options &options, const std::string &option, const std::string &value) {
    if (option == "--user") {
        if (::getpwnam(value.c_str()) == nullptr) refuse(wrongUsage, "--user: no such user: " + value);
        options.inside.insert(options.inside.end(), {option, value});
    } else if (option == "--share") {
        const std::string directory = existing(option, value, true);
        options.box.insert(options.box.end(), {"--share", directory, "/share" + directory});
    } else if (option == "--show") {
        show(options, existing(option, value, false));
    } else if (option == "--path") {
        options.path.push_back(existing(option, value, true));
        show(options, options.path.back());
    } else if (option == "--net") {
        if (value != "none" && value != "wan" && value != "full")
            wrong("--net is none, wan or full, not '" + value + "'");
        options.inside.insert(options.inside.end(), {option, value});
    } else if (option == "--keep") {
        std::error_code error;
        fs::create_directories(value, error);
        if (error) refuse(wrongUsage, option + ": " + value + ": " + error.message());
        options.box.insert(options.box.end(), {"--share", existing(option, value, true), "/tmp/gateway"});
        options.inside.emplace_back(option);
    } else if (option == "--timeout") {
        const auto time = vxgateway::seconds(value);
        if (!time || *time == 0) wrong("--timeout takes seconds above 0 and up to 86400, not '" + value + "'");
        options.inside.insert(options.inside.end(), {option, value});
    } else if (option == "--ignore") {
        options.inside.insert(options.inside.end(), {option, value});
    } else if (option == "--tolerance") {
        if (!vxgateway::seconds(value)) wrong("--tolerance takes seconds up to 86400, not '" + value + "'");
        options.inside.insert(options.inside.end(), {option, value});
    } else if (option == "--port") {
        const auto port = vxgateway::number(value, 0, 65535);
        if (!port) wrong("--port takes a number from 0 to 65535, not '" + value + "'");
        options.port = static_cast<uint16_t>(*port);
    } else {
        options.junit = value;
    }
}

Options parse(const Arguments &arguments) {
    constexpr const char *withValue[] = {"--user", "--share",   "--show",  "--path",      "--net",
                                         "--keep", "--timeout", "--junit", "--tolerance", "--ignore"};
    Options options;
    options.command = arguments[0];
    size_t next = 1;
    const auto takeOptions = [&] {
        while (next < arguments.size() && arguments[next].rfind('-', 0) == 0) {
            const std::string &option = arguments[next++];
            if (option == "--") return;
            if (option == "--with-directory") {
                options.withDirectory = true;
                continue;
            }
            if (option == "--clock" && options.command != "replay") {
                options.clock = true;
                continue;
            }
            const bool known = std::find(std::begin(withValue), std::end(withValue), option) != std::end(withValue);
            if (!known && !(option == "--port" && options.command == "panel")) wrong("unknown option " + option);
            if (next == arguments.size() || arguments[next].empty()) wrong(option + " needs a value");
            takeOption(options, option, arguments[next++]);
        }
    };
    takeOptions();
    if (options.command == "play") {
        if (next == arguments.size()) wrong("play needs a scenario");
        options.scenario = arguments[next++];
        takeOptions();
    }
    if (options.command == "replay") {
        if (next == arguments.size()) wrong("replay needs a recording");
        options.recording = arguments[next++];
        takeOptions();
    }
    options.program.assign(arguments.begin() + static_cast<std::ptrdiff_t>(std::min(next, arguments.size())),
                           arguments.end());
    if ((options.command == "run" || options.command == "replay") && options.program.empty())
        wrong(options.command + " needs a program");
    if (options.command == "shell" && !options.program.empty()) wrong("shell runs no program: " + options.program[0]);
    return options;
}

// ---- the program

// Directories of PATH that cannot be read have no program for this user.
bool isFile(const std::string &path) {
    std::error_code error;
    return fs::is_regular_file(path, error) && ::access(path.c_str(), X_OK) == 0;
}

std::string onPath(const std::string &name) {
    const char *const path = std::getenv("PATH");
    std::string_view left = path == nullptr ? "/usr/bin:/bin" : path;
    while (!left.empty()) {
        const size_t end = std::min(left.find(':'), left.size());
        std::string candidate(left.substr(0, end));
        candidate += "/" + name;
        if (isFile(candidate)) return candidate;
        left.remove_prefix(std::min(end + 1, left.size()));
    }
    refuse(notFound, name + ": not found");
}

// Where the program is in the gateway: at its own place when that is shown, else in /program.
std::string place(Options &options, const std::string &name) {
    std::string path = name;
    if (name.find('/') == std::string::npos) {
        Arguments own = options.path;
        own.push_back(partsDirectory());
        if (std::any_of(own.begin(), own.end(),
                        [&](const std::string &directory) { return isFile(directory + "/" + name); }))
            return name;
        path = onPath(name);
    }
    if (!fs::exists(path)) refuse(notFound, name + ": not found");
    if (!isFile(path)) refuse(cannotRun, name + ": not a program that can be run");
    std::string real = fs::canonical(path);
    for (const std::string &seen : {fs::absolute(path).lexically_normal().string(), real}) {
        if (isSystem(seen)) return seen;
    }
    for (const std::string &shown : options.shown) {
        if (real.rfind(shown + "/", 0) == 0 || real == shown) return real;
    }
    const std::string file = fs::path(path).filename();
    if (options.withDirectory) {
        options.box.insert(options.box.end(), {"--show", fs::path(real).parent_path(), "/program"});
        return "/program/" + fs::path(real).filename().string();
    }
    options.box.insert(options.box.end(), {"--show", real, "/program/" + file});
    return "/program/" + file;
}

// ---- the panel

// A socket on the loopback of the machine, not the one of the box.
int listenForPanel(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd == -1 || ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1 ||
        ::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == -1 || ::listen(fd, 16) == -1) {
        refuse(noGateway, "port " + std::to_string(port) + ": " + std::strerror(errno));
    }
    return fd;
}

volatile int leash = -1;  // what holds the gateway of a panel: closing it ends the gateway in its own way

void preparePanel(Options &options) {
    if (!fs::exists(partsDirectory() + "/panel"))
        refuse(noGateway, "built without the panel, which needs cpp-httplib (Debian package libcpp-httplib-dev)");
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) == -1) refuse(noGateway, std::string("pipe: ") + std::strerror(errno));
    ::fcntl(ends[1], F_SETFD, FD_CLOEXEC);
    leash = ends[1];
    options.box.insert(options.box.end(), {"--show", panelDirectory(), "/gateway/panel"});
    options.inside.insert(options.inside.end(), {"--panel", std::to_string(listenForPanel(options.port)), "--leash",
                                                 std::to_string(ends[0])});
}

// ---- the run

volatile pid_t box = -1;

// Ends the gateway of a panel, at once if that takes long or is asked for again.
void endPanel(int) {
    if (leash == -1 && box > 0) ::kill(box, SIGTERM);
    ::close(leash);
    leash = -1;
    ::alarm(5);
}

void passToBox(int signal) {
    if (box > 0) ::kill(box, signal);
}

int runBox(const Arguments &command) {
    std::vector<char *> words;
    for (const std::string &word : command) words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    const pid_t parent = ::getpid();
    box = ::fork();
    if (box == -1) refuse(noGateway, std::string("fork: ") + std::strerror(errno));
    if (box == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (::getppid() != parent) ::_exit(noGateway);
        ::execv(words[0], words.data());
        std::fprintf(stderr, "vxgateway: %s: %s\n", words[0], std::strerror(errno));
        ::_exit(noGateway);
    }
    // Ctrl-C is for the program inside; a request to end is for the box.
    for (const int signal : {SIGINT, SIGQUIT}) std::signal(signal, SIG_IGN);
    for (const int signal : {SIGTERM, SIGHUP}) {
        if (signal == SIGHUP && isIgnored(signal)) continue;
        std::signal(signal, leash != -1 ? endPanel : passToBox);
    }
    if (leash != -1) {
        for (const int signal : {SIGINT, SIGALRM}) std::signal(signal, endPanel);
    }
    int status = 0;
    while (::waitpid(box, &status, 0) == -1) {
        if (errno != EINTR) refuse(noGateway, std::string("waitpid: ") + std::strerror(errno));
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

int run(Options options) {
    Arguments program;
    if (options.command == "shell") {
        program = {"bash", "--norc", "-i"};
        options.inside.emplace_back("--shell");
    } else if (!options.program.empty()) {
        program = options.program;
        program[0] = place(options, program[0]);
    }
    if (!options.scenario.empty()) {
        options.box.insert(options.box.end(), {"--show", scenarioFile(options.scenario, options.clock),
                                               "/gateway/" + options.scenario.substr(options.scenario.rfind('/') + 1)});
        options.inside.insert(options.inside.end(),
                              {"--scenario", "/gateway/" + options.scenario.substr(options.scenario.rfind('/') + 1)});
    }
    if (!options.recording.empty()) {
        options.box.insert(options.box.end(), {"--show", recordingFile(options.recording), "/gateway/recording"});
        options.inside.insert(options.inside.end(), {"--replay", options.recording});
    }
    if (options.clock) options.inside.emplace_back("--clock");
    if (options.command == "panel") preparePanel(options);
    int report = -1;
    if (!options.junit.empty()) {
        report = ::open(options.junit.c_str(), O_CREAT | O_TRUNC | O_RDWR, 0644);
        if (report == -1) refuse(wrongUsage, "--junit: " + options.junit + ": " + std::strerror(errno));
        options.inside.insert(options.inside.end(), {"--report", std::to_string(report)});
    }
    // Programs that were installed with this one, vx among them, are found by name as well.
    if (!inBuildTree() && !isSystem(ownDirectory() + "/")) {
        options.path.push_back(ownDirectory());
        show(options, ownDirectory());
    }
    // The plugin for pytest works in a gateway only, so it is found there only.
    if (fs::is_directory(pytestDirectory())) {
        show(options, pytestDirectory());
        const char *const others = std::getenv("PYTHONPATH");
        ::setenv("PYTHONPATH", (pytestDirectory() + (others == nullptr ? "" : std::string(":") + others)).c_str(), 1);
    }
    std::string path = "/gateway/bin";
    for (const std::string &directory : options.path) path += ":" + directory;
    const char *const machines = std::getenv("PATH");
    path += ":" + std::string(machines == nullptr ? "/usr/bin:/bin" : machines) + ":/usr/sbin:/sbin";
    ::setenv("PATH", path.c_str(), 1);
    ::setenv("HOME", "/root", 1);

    Arguments command{partsDirectory() + "/vxbox"};
    command.insert(command.end(), options.box.begin(), options.box.end());
    if (fs::is_directory(scenarioDirectory()))
        command.insert(command.end(), {"--show", scenarioDirectory(), "/gateway/scenarios"});
    command.insert(command.end(), {"--show", partsDirectory(), "/gateway/bin", "--show", libraryDirectory(),
                                   "/gateway/lib", "--", "/gateway/bin/gatewayd"});
    command.insert(command.end(), options.inside.begin(), options.inside.end());
    command.emplace_back("--");
    command.insert(command.end(), program.begin(), program.end());
    const int status = runBox(command);
    struct stat about {};
    if (report != -1 && ::fstat(report, &about) == 0 && about.st_size == 0) {
        const std::string name = program.empty() ? options.scenario : fs::path(program[0]).filename().string();
        (void)vxgateway::writeReport(report, {name, 0, "the gateway ended early, status " + std::to_string(status)},
                                     {});
    }
    return status;
}

int record(const Arguments &arguments) {
    vxgateway::Recording wanted;
    wanted.tap = partsDirectory() + "/libvxtap.so";
    wanted.file = "recording.vxr";
    size_t next = 1;
    while (next < arguments.size() && arguments[next].rfind('-', 0) == 0) {
        const std::string &option = arguments[next++];
        if (option == "--") break;
        if (option != "-o" && option != "--mask" && option != "--tap") wrong("unknown option " + option);
        if (next == arguments.size() || arguments[next].empty()) wrong(option + " needs a value");
        const std::string &value = arguments[next++];
        if (option == "-o") wanted.file = value;
        if (option == "--mask") wanted.masks.push_back(value);
        if (option == "--tap") wanted.tap = existing(option, value, false);
    }
    wanted.program.assign(arguments.begin() + static_cast<std::ptrdiff_t>(next), arguments.end());
    if (wanted.program.empty()) wrong("record needs a program");
    return vxgateway::record(wanted);
}

// The status of what only prints.
int written() {
    if (std::fflush(stdout) != 0) refuse(failed, std::string("standard output: ") + std::strerror(errno));
    return 0;
}

int list(const Arguments &arguments) {
    if (arguments.size() > 2 || (arguments.size() == 2 && arguments[1] != "scenarios"))
        wrong("list takes only the word scenarios");
    if (arguments.size() == 1) {
        std::fputs(
            "config   configuration daemon           /var/run/configd/daemon.sock, its store "
            "/var/lib/configd/gateway-store\n"
            "modem    modem daemon of card 0         /var/run/wwanmd0/server, marks in /tmp/status/wwanmd/card0\n"
            "events   event manager                  /tmp/status/event-manager/throw\n"
            "board    inputs and outputs             /sys/devices/vantorix/din1 to din4, dout1 and dout2\n"
            "         identity                       /proc/sysinfo\n"
            "         supply voltages, converter     /sys/bus/i2c/devices/0-0058, /sys/bus/iio/devices/iio:device0\n"
            "         storage                        /sys/class/block: mmcblk0p3, mmcblk0p4 on /data, mmcblk1p1, sda1 "
            "on /media/usb\n"
            "wan      WAN link                       wan0 192.0.2.10/24, gateway 192.0.2.1, target 198.51.100.9\n"
            "         LAN with --net full            eth0 192.168.1.1/24, host 192.168.1.100\n"
            "log      system log                     /dev/log; device log /var/log/qxlog\n"
            "sms      short messages                 /usr/local/sbin/send-sms, /var/spool/sms/incoming\n"
            "power    reboot and power-off           /usr/local/sbin/system-reboot, system-poweroff\n"
            "status   status tree                    /tmp/status, /nvstatus\n",
            stdout);
        return written();
    }
    std::vector<fs::path> files;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(scenarioDirectory(), error)) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    for (const fs::path &file : files) {
        std::ifstream text(file);
        const auto scenario = vxgateway::readScenario(file.filename(), {std::istreambuf_iterator<char>(text), {}});
        std::printf("%-22s %s\n", file.stem().c_str(), scenario.question.c_str());
    }
    return written();
}

}  // namespace

int main(int argc, char **argv) {
    openStandardStreams();
    std::signal(SIGCHLD, SIG_DFL);  // a caller that ignores it has the kernel throw away the program's status
    const Arguments arguments(argv + 1, argv + argc);
    if (arguments.empty()) wrong("a command is missing");
    const std::string &command = arguments[0];
    if (command == "--help" || command == "-h" || command == "--version") {
        std::fputs(command == "--version" ? "vxgateway " VXGATEWAY_VERSION "\n" : usage, stdout);
        return written();
    }
    try {
        if (command == "list") return list(arguments);
        if (command == "record") return record(arguments);
        if (command == "run" || command == "shell" || command == "play" || command == "replay" || command == "panel")
            return run(parse(arguments));
    } catch (const std::exception &problem) {
        refuse(noGateway, problem.what());
    }
    wrong("unknown command " + command);
}
