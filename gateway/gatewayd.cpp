// SPDX-License-Identifier: MIT
// gatewayd: the gateway from within its box. Starts the peers, runs the program under test, obeys gw. Started by vxgateway
// and by the demo; its options are theirs and not documented elsewhere:
//
//   gatewayd --serve [--echo-log PREFIX]   serves until SIGTERM; prints "ready" once everything runs
//   gatewayd --install-library             installs the library of /gateway/lib under the names it has on a board
//   gatewayd [--net none|wan|full] [--user NAME] [--timeout S] [--keep] [--report FD] [--shell] [--clock]
//            [--scenario FILE] [--replay NAME [--tolerance S] [--ignore PATTERN]...] [--panel FD] [--leash FD]
//            [--] [PROGRAM ARGUMENT...]
//
// --panel serves the front panel on a socket that listens; the gateway then goes on without the program until the other end
// of the pipe of --leash is closed.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "gateway/core/board.h"
#include "gateway/core/control.h"
#include "gateway/core/junit.h"
#include "gateway/core/preload.h"
#include "gateway/core/replay.h"
#include "gateway/ignored_signal.h"
#include "gateway/tap.h"

namespace {

namespace fs = std::filesystem;
using namespace vxgateway;

constexpr const char *libraryDirectory = "/gateway/lib";
constexpr const char *pageDirectory = "/gateway/panel";
constexpr std::chrono::seconds graceToEnd{5};  // after SIGTERM

enum ExitStatus { failed = 1, timedOut = 124, noGateway = 125, cannotRun = 126, notFound = 127 };

struct Options {
    bool serve = false;
    bool installOnly = false;
    bool keep = false;
    bool shell = false;
    bool clock = false;
    std::string echoLog;
    Net net = Net::wan;
    std::string user;
    double timeout_s = 0;  // 0: none
    int report = -1;
    int panel = -1;
    int leash = -1;
    std::string scenario;
    std::string replay;
    Replay::Tolerance tolerance;
    std::vector<char *> program;
};

Options parse(int argc, char **argv) {
    Options options;
    int next = 1;
    const auto argument = [&] { return std::string(next < argc ? argv[next++] : ""); };
    while (next < argc && argv[next][0] == '-') {
        const std::string option = argv[next++];
        if (option == "--") break;
        if (option == "--serve") options.serve = true;
        if (option == "--install-library") options.installOnly = true;
        if (option == "--keep") options.keep = true;
        if (option == "--shell") options.shell = true;
        if (option == "--clock") options.clock = true;
        if (option == "--echo-log") options.echoLog = argument();
        if (option == "--user") options.user = argument();
        if (option == "--timeout") options.timeout_s = std::strtod(argument().c_str(), nullptr);
        for (const auto &[name, fd] : {std::pair("--report", &options.report), std::pair("--panel", &options.panel),
                                       std::pair("--leash", &options.leash)}) {
            if (option == name) *fd = static_cast<int>(std::strtol(argument().c_str(), nullptr, 10));
        }
        if (option == "--scenario") options.scenario = argument();
        if (option == "--replay") options.replay = argument();
        if (option == "--tolerance") options.tolerance.seconds = std::strtod(argument().c_str(), nullptr);
        if (option == "--ignore") options.tolerance.ignored.push_back(argument());
        if (option == "--net") {
            const std::string net = argument();
            options.net = net == "none" ? Net::none : net == "full" ? Net::full : Net::wan;
        }
    }
    while (next < argc) options.program.push_back(argv[next++]);
    if (!options.program.empty()) options.program.push_back(nullptr);
    return options;
}

std::string ownDirectory() { return fs::read_symlink("/proc/self/exe").parent_path(); }

constexpr const char *banner =
    R"(You are inside the gateway; 'exit' leaves it and nothing of it remains. Peers and examples are on the PATH.
Move and change things ("gw help" lists all orders):
  gw input N 0|1                           move a digital input; gw outputs shows what was set
  gw wan cut | restore | lose | carry      the cable of the WAN link; the quality of its line
  gw modem reset on|off, gw modem busy 2   the modem daemon of card 0
  gw config set KEY VALUE                  change the configuration, then kill -HUP the daemon
  gw usb in | out, gw voltage 1 11000      a USB disk; a supply voltage in millivolts
See what came of it, each also with --json:
  gw status           gw log               the status tree; the system log
  gw events           gw sms               what the event manager and the SMS tool got
  gw devlog           gw power             the device log; reboots asked for
  gw watch            gw wait CONDITION    all of these as they come (Ctrl-C ends it); waits for one of them
)";

// The program's own rights, in its process. Ends it when they cannot be had.
void becomeUser(const std::string &name) {
    const passwd *const user = ::getpwnam(name.c_str());
    const auto fail = [&](const char *why) {
        std::fprintf(stderr, "vxgateway: --user %s: %s\n", name.c_str(), why);
        ::_exit(noGateway);
    };
    if (user == nullptr) fail("no such user on this machine");
    const std::string home = user->pw_dir;
    std::error_code ignored;
    fs::create_directories(home, ignored);
    if (::chown(home.c_str(), user->pw_uid, user->pw_gid) == -1) ::setenv("HOME", "/tmp", 1);
    // The groups that the firmware lets write the device log and set outputs.
    std::vector<gid_t> groups{user->pw_gid};
    for (const char *group : {"adm", "dialout"}) {
        if (usableGroup(group) != 0) groups.push_back(usableGroup(group));
    }
    ::setenv("HOME", home.c_str(), 1);
    ::setenv("USER", name.c_str(), 1);
    ::setenv("LOGNAME", name.c_str(), 1);
    if (::setgroups(groups.size(), groups.data()) == -1 || ::setgid(user->pw_gid) == -1 ||
        ::setuid(user->pw_uid) == -1) {
        fail("needs root, because a user's own namespace knows no other user");
    }
}

class Session final : public Stage {
public:
    explicit Session(const Options &options)
        : options_(options), gateway_(ownDirectory(), options.net), control_(gateway_) {
        gateway_.echoLog = options.echoLog;
        gateway_.stage = this;
        gateway_.setsClock = options.clock;
    }

    int run() {
        holdSignals();
        for (const int ours : {options_.panel, options_.leash}) ::fcntl(ours, F_SETFD, FD_CLOEXEC);
        if (fs::is_directory(libraryDirectory) && !options_.serve) installLibrary(libraryDirectory);
        if (!options_.replay.empty()) {
            replay_.emplace(options_.replay, readRecording(options_.replay, readText("/gateway/recording")),
                            options_.tolerance);
        }
        gateway_.replaysDaemons = replay_.has_value();
        gateway_.start();
        if (replay_) replay_->listen();
        control_.listen();
        if (options_.serve) {
            std::puts("ready");
            std::fflush(stdout);
        }
        if (options_.panel != -1) startPanel();
        began_ = Clock::now();
        if (!options_.scenario.empty()) {
            player_.emplace(gateway_, readScenario(fs::path(options_.scenario).filename(), readText(options_.scenario)),
                            !options_.program.empty());
            playing_ = true;
        }
        if (!options_.program.empty()) startProgram();
        while (!over_) step();
        control_.leave();
        if (options_.serve) gateway_.stop();  // else all processes end with the box
        leaveRecords();
        return status_;
    }

    Outcome play(const std::string &name) override {
        if (playing_ || (player_ && player_->isOrdering())) return {false, "a scenario is being played already"};
        const std::string path =
            name.find('/') != std::string::npos ? name : std::string(scenarioDirectory) + "/" + name + ".scenario";
        if (!fs::is_regular_file(path)) return {false, "no scenario " + name};
        Scenario scenario = readScenario(name, readText(path));
        player_.reset();
        player_.emplace(gateway_, std::move(scenario), program_ != -1);
        playing_ = true;
        return {true, ""};
    }

    Outcome stopPlaying() override {
        if (playing_) player_->stop();
        return {true, ""};
    }

    std::string timeline() const override { return player_ ? player_->timeline() : "null"; }

private:
    void holdSignals() {
        sigset_t handled;
        ::sigemptyset(&handled);
        for (const int signal : {SIGCHLD, SIGTERM}) ::sigaddset(&handled, signal);
        if (!isIgnored(SIGHUP)) ::sigaddset(&handled, SIGHUP);  // one that is held back comes though it is ignored
        ::sigprocmask(SIG_BLOCK, &handled, &before_);
        signals_ = Descriptor(::signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK));
        for (const int signal : {SIGINT, SIGQUIT, SIGPIPE})
            std::signal(signal, SIG_IGN);  // those of the terminal are the program's
    }

    void startProgram() {
        program_ = ::fork();
        if (program_ == -1) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
        if (program_ != 0) {
            if (replay_) replay_->programStarted(program_);
            return gateway_.programStarted(program_);
        }
        for (const int signal : {SIGINT, SIGQUIT, SIGPIPE}) std::signal(signal, SIG_DFL);
        ::sigprocmask(SIG_SETMASK, &before_, nullptr);
        if (options_.report != -1) ::close(options_.report);
        ::umask(022);
        if (!options_.user.empty()) becomeUser(options_.user);
        if (fs::current_path() == "/") (void)!::chdir(std::getenv("HOME"));
        if (options_.shell) {
            std::fputs(banner, stdout);
            std::fflush(stdout);
        }
        if (options_.clock) preload(ownDirectory() + "/libvxclock.so");
        if (replay_) {
            preload(ownDirectory() + "/libvxtap.so");
            ::setenv(tapVariable, (std::string("replay ") + Replay::socketPath).c_str(), 1);
        }
        ::execvp(options_.program[0], options_.program.data());
        const int status = errno == ENOENT ? notFound : cannotRun;
        std::fprintf(stderr, "vxgateway: %s: %s\n", options_.program[0], std::strerror(errno));
        ::_exit(status);
    }

    void startPanel() {
        panel_ = ::fork();
        if (panel_ == -1) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
        if (panel_ != 0) return;
        ::setsid();  // Ctrl-C ends the gateway, and the panel with it
        ::sigprocmask(SIG_SETMASK, &before_, nullptr);
        ::fcntl(options_.panel, F_SETFD, 0);
        const std::string program = ownDirectory() + "/panel";
        const std::string fd = std::to_string(options_.panel);
        ::execl(program.c_str(), program.c_str(), fd.c_str(), pageDirectory, nullptr);
        std::fprintf(stderr, "vxgateway: %s: %s\n", program.c_str(), std::strerror(errno));
        ::_exit(noGateway);
    }

    void step() {
        std::vector<pollfd> waiting{
            {signals_.get(), POLLIN, 0}, {gateway_.logSocket(), POLLIN, 0}, {options_.leash, POLLIN, 0}};
        bool busy = control_.isFull();
        for (const Peer *peer : gateway_.peers()) {
            waiting.push_back({peer->output(), POLLIN, 0});
            busy = busy || peer->isBusy();
        }
        control_.addTo(waiting);
        const bool watches = playing_ || control_.waits();  // status files do not announce themselves
        if (replay_) replay_->addTo(waiting);
        int patience_ms = watches ? 5 : busy || options_.timeout_s > 0 || killing_ ? 20 : -1;
        if (replay_) patience_ms = std::min(replay_->patience_ms(), patience_ms == -1 ? INT_MAX : patience_ms);
        ::poll(waiting.data(), waiting.size(), patience_ms);
        if (waiting[2].revents != 0) over_ = true;
        // What programs told before they were seen to end comes first.
        gateway_.readLog();
        for (Peer *peer : gateway_.peers()) peer->read();
        if (replay_) replay_->serve();
        readSignals();
        watchReplay();
        gateway_.giveUp();
        control_.serve();
        playOn();
        watchTime();
    }

    void readSignals() {
        signalfd_siginfo got{};
        while (::read(signals_.get(), &got, sizeof got) == sizeof got) {
            if (got.ssi_signo != SIGCHLD) over_ = true;
        }
        int status = 0;
        for (pid_t pid; (pid = ::waitpid(-1, &status, WNOHANG)) > 0;) {
            if (pid == program_)
                programEnded(status);
            else if (pid == panel_)
                panelEnded(status);
            else
                gateway_.childEnded(pid, status);
        }
    }

    void programEnded(int status) {
        gateway_.programEnded();
        program_ = -1;
        if (replay_) return replayEnded(WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status));
        const bool asked = ending_ && (status == 0 || (WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM));
        if (status_ == 0 && !asked) status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
        over_ = (options_.scenario.empty() && options_.panel == -1) || ending_;
    }

    void panelEnded(int status) {
        std::fprintf(stderr, "vxgateway: the panel has ended, wait status %d\n", status);
        status_ = failed;
        over_ = true;
    }

    // A program that did what it did has succeeded, whatever its status was.
    void replayEnded(int status) {
        replay_->serve();
        replay_->programEnded(status);
        watchReplay();
        over_ = true;
    }

    void playOn() {
        if (!playing_ || ending_ || over_) return;
        if (options_.scenario.empty()) {
            playing_ = player_->next();
            return;
        }
        if (player_->next() && !(program_ == -1 && !options_.program.empty() && !player_->expectsMore())) return;
        if (!player_->failure().empty()) {
            std::fprintf(stderr, "vxgateway: %s\n", player_->failure().c_str());
            status_ = failed;
        }
        if (program_ == -1)
            over_ = true;
        else
            endProgram();
    }

    void watchReplay() {
        if (!replay_ || ending_ || over_) return;
        if (!replay_->difference().empty()) {
            std::fprintf(stderr, "%s\n", replay_->difference().c_str());
            status_ = failed;
            over_ = true;
        } else if (replay_->over() && program_ != -1) {
            endProgram();
        }
    }

    bool programIsStopped() const {
        siginfo_t state{};
        return ::waitid(P_PID, static_cast<id_t>(program_), &state, WSTOPPED | WNOHANG | WNOWAIT) == 0 &&
               state.si_pid == program_;
    }

    void endProgram() {
        ending_ = true;
        ::kill(program_, SIGTERM);
        // SIGCONT cancels a pending SIGSTOP: a program to which the address sanitizer attaches in its check for leaks would
        // wait for that stop for ever.
        if (programIsStopped()) ::kill(program_, SIGCONT);
        killing_ = Clock::now() + graceToEnd;
    }

    void watchTime() {
        const auto now = Clock::now();
        if (!over_ && options_.timeout_s > 0 && status_ != timedOut &&
            now - began_ >= std::chrono::duration<double>(options_.timeout_s)) {
            status_ = timedOut;
            if (program_ == -1)
                over_ = true;
            else
                endProgram();
            std::fprintf(stderr, "vxgateway: not ended after %g s\n", options_.timeout_s);
        }
        if (!over_ && killing_ && now >= *killing_) {
            if (status_ != timedOut) {
                std::fprintf(stderr, "vxgateway: %s does not end within %lld s of SIGTERM\n", options_.program[0],
                             static_cast<long long>(graceToEnd.count()));
                status_ = failed;
            }
            over_ = true;
        }
    }

    // For --keep and --junit.
    void leaveRecords() {
        gateway_.readLog();
        const double seconds = std::chrono::duration<double>(Clock::now() - began_).count();
        if (options_.report != -1) {
            const std::string name =
                options_.program.empty() ? options_.scenario : fs::path(options_.program[0]).filename().string();
            const std::string why =
                player_ && !player_->failure().empty() ? player_->failure() : "exit status " + std::to_string(status_);
            if (!writeReport(options_.report, {name, seconds, status_ == 0 ? "" : why}, gateway_.record()))
                std::fprintf(stderr, "vxgateway: --junit: the report is incomplete: %s\n", std::strerror(errno));
        }
        if (!options_.keep) return;
        const bool kept = keepStatus();
        std::ofstream record(std::string(logDirectory) + "/record.json");
        for (const Entry &entry : gateway_.record().entries()) record << entry.json() << '\n';
        record.close();
        if (!kept || !record)
            std::fputs("vxgateway: --keep: the directory is incomplete; is there room on its disk?\n", stderr);
    }

    // Its directories and values; FIFOs take commands.
    static bool keepStatus() {
        const fs::path tree = "/tmp/status";
        bool all = true;
        std::error_code end;
        for (auto entry = fs::recursive_directory_iterator(tree, end);
             !end && entry != fs::recursive_directory_iterator(); entry.increment(end)) {
            const fs::path copy = logDirectory / ("status" / entry->path().lexically_relative(tree));
            std::error_code ignored;
            std::error_code error;
            if (entry->is_directory(ignored)) {
                fs::create_directories(copy, error);
            } else if (entry->is_regular_file(ignored)) {
                fs::create_directories(copy.parent_path(), error);
                fs::copy_file(entry->path(), copy, fs::copy_options::overwrite_existing, error);
            }
            all = all && !error;
        }
        return all && !end;
    }

    const Options &options_;
    Gateway gateway_;
    Control control_;
    Descriptor signals_;
    sigset_t before_{};
    std::optional<Player> player_;
    bool playing_ = false;
    std::optional<Replay> replay_;
    pid_t program_ = -1;
    pid_t panel_ = -1;
    Clock::time_point began_;
    std::optional<Clock::time_point> killing_;
    bool ending_ = false;
    bool over_ = false;
    int status_ = 0;
};

}  // namespace

int main(int argc, char **argv) {
    const Options options = parse(argc, argv);
    try {
        if (options.installOnly) {
            installLibrary(libraryDirectory);
            return 0;
        }
        return Session(options).run();
    } catch (const std::exception &problem) {
        std::fprintf(stderr, "vxgateway: the gateway cannot be started: %s\n", problem.what());
        return noGateway;
    }
}
