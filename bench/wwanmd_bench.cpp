// SPDX-License-Identifier: MIT
// One modem command, pacing taken out, beside the bare exchange with the same daemon: a send, a wait that has an end, a
// receive.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vxutils/wwanmd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr int card = 15;
constexpr const char *path = "/var/run/wwanmd15/server";

// The virtual gateway's modem daemon.
class Daemon {
public:
    Daemon() {
        if (::pipe2(control_.data(), O_CLOEXEC) == -1) std::abort();
        const std::string program = VXBENCH_GATEWAY_DIR "/wwanmd";
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::dup2(control_[0], 0);
            ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), 1);
            ::execl(program.c_str(), "wwanmd", "15", nullptr);
            std::perror(program.c_str());
            ::_exit(127);
        }
        int fd = -1;
        while ((fd = connected()) == -1) {
            if (::waitpid(pid_, nullptr, WNOHANG) != 0) std::abort();
            ::usleep(1000);
        }
        ::close(fd);
    }
    ~Daemon() {
        ::close(control_[1]);
        ::close(control_[0]);
        ::waitpid(pid_, nullptr, 0);
    }
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    static int connected() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path);
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return fd;
        ::close(fd);
        return -1;
    }

private:
    pid_t pid_ = -1;
    std::array<int, 2> control_{};
};

void Command_ours(benchmark::State &state) {
    const Daemon daemon;
    wwanmd_handle *handle = wwanmd_init(card, "bench");
    if (handle == nullptr) {
        state.SkipWithError("no daemon");
        return;
    }
    static wwanmd_msg message;
    for (auto _ : state) {
        std::memcpy(message.data, "AT+CSQ\n", 8);
        message.len = 7;
        handle->last_io = {};
        if (wwanmd_command(handle, &message) != 0) state.SkipWithError("no answer");
        benchmark::DoNotOptimize(message);
    }
    wwanmd_free(handle);
}
BENCHMARK(Command_ours)->Name("Command/ours")->UseRealTime();

void Command_bare(benchmark::State &state) {
    const Daemon daemon;
    const int fd = Daemon::connected();
    static std::array<char, 8192> buffer;
    for (auto _ : state) {
        std::memcpy(buffer.data(), "AT+CSQ\n", 8);
        if (::send(fd, buffer.data(), 7, 0) != 7) state.SkipWithError("not sent");
        pollfd waiting{fd, POLLIN, 0};
        if (::poll(&waiting, 1, 5000) != 1) state.SkipWithError("no answer in time");
        if (::recv(fd, buffer.data(), buffer.size() - 1, 0) <= 0) state.SkipWithError("no answer");
        benchmark::DoNotOptimize(buffer);
    }
    ::close(fd);
}
BENCHMARK(Command_bare)->Name("Command/bare_exchange")->UseRealTime();

}  // namespace
