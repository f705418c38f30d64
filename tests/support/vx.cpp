// SPDX-License-Identifier: MIT
#include "support/vx.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "support/files.h"

namespace vxtest {

namespace {

struct Pipe {
    Pipe() {
        if (::pipe2(ends.data(), O_CLOEXEC) == -1) throw std::runtime_error("pipe");
    }
    void close(int end) {
        if (ends[static_cast<size_t>(end)] != -1) ::close(std::exchange(ends[static_cast<size_t>(end)], -1));
    }
    ~Pipe() {
        close(0);
        close(1);
    }
    std::array<int, 2> ends{-1, -1};
};

[[noreturn]] void become(const std::vector<std::string> &command, const VxSetting &setting, int in, int out, int err) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(in, 0);
    ::dup2(setting.outputPath.empty() ? out : ::open(setting.outputPath.c_str(), O_WRONLY | O_CREAT, 0644), 1);
    ::dup2(err, 2);
    for (const auto &[name, value] : setting.environment) ::setenv(name.c_str(), value.c_str(), 1);
    if (!setting.directory.empty() && ::chdir(setting.directory.c_str()) != 0) ::_exit(126);
    const uid_t user = setting.user;
    if (user != 0 &&
        (::setgroups(0, nullptr) != 0 || ::setresgid(user, user, user) != 0 || ::setresuid(user, user, user) != 0)) {
        ::_exit(126);
    }
    std::vector<char *> argv;
    for (const std::string &word : command) argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    ::alarm(setting.alarm_s);
    for (const auto &[resource, most] : setting.limits) {
        const rlimit limit{most, most};
        if (::setrlimit(static_cast<__rlimit_resource>(resource), &limit) != 0) ::_exit(126);
    }
    ::execvp(argv[0], argv.data());
    ::_exit(127);
}

// Reads both pipes to their ends while the input is written.
void exchange(Pipe &in, std::string_view input, Pipe &out, std::string &outText, Pipe &err, std::string &errText) {
    const auto drain = [](Pipe &pipe, std::string &text) {
        std::array<char, 65536> piece;
        const ssize_t got = ::read(pipe.ends[0], piece.data(), piece.size());
        if (got > 0) text.append(piece.data(), static_cast<size_t>(got));
        if (got <= 0) pipe.close(0);
    };
    while (out.ends[0] != -1 || err.ends[0] != -1) {
        if (input.empty()) in.close(1);
        std::array<pollfd, 3> waiting{{{out.ends[0], POLLIN, 0}, {err.ends[0], POLLIN, 0}, {in.ends[1], POLLOUT, 0}}};
        if (::poll(waiting.data(), waiting.size(), -1) == -1) throw std::runtime_error("poll");
        if (waiting[0].revents != 0) drain(out, outText);
        if (waiting[1].revents != 0) drain(err, errText);
        if (waiting[2].revents == 0) continue;
        const ssize_t put = ::write(in.ends[1], input.data(), std::min<size_t>(input.size(), 4096));
        input.remove_prefix(put > 0 ? static_cast<size_t>(put) : input.size());
    }
}

VxResult collect(const std::vector<std::string> &command, const VxSetting &setting) {
    Pipe in;
    Pipe out;
    Pipe err;
    const pid_t pid = ::fork();
    if (pid == -1) throw std::runtime_error("fork");
    if (pid == 0) become(command, setting, in.ends[0], out.ends[1], err.ends[1]);
    in.close(0);
    out.close(1);
    err.close(1);
    ::signal(SIGPIPE, SIG_IGN);
    VxResult result{};
    exchange(in, setting.input, out, result.out, err, result.err);
    ::signal(SIGPIPE, SIG_DFL);
    result.status = waitChild(pid);
    return result;
}

}  // namespace

std::vector<std::string> vxCommand(const std::vector<std::string> &words) {
    std::vector<std::string> command;
    const std::string start = shellCommand("tools/vx");
    for (size_t at = 0; at < start.size();) {
        const size_t end = std::min(start.find(' ', at), start.size());
        command.push_back(start.substr(at, end - at));
        at = end + 1;
    }
    command.insert(command.end(), words.begin(), words.end());
    return command;
}

VxResult vx(const std::vector<std::string> &words, const VxSetting &setting) {
    return collect(vxCommand(words), setting);
}

int becomeVx(const std::vector<std::string> &words) {
    const std::vector<std::string> command = vxCommand(words);
    std::vector<char *> argv;
    for (const std::string &word : command) argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data());
    return 127;
}

VxResult vxScript(const std::string &script, const VxSetting &setting) {
    static const std::string directory = "/tmp/vx-command";
    if (!exists(directory + "/vx")) {
        writeFile(directory + "/vx", "#!/bin/sh\nexec " + shellCommand("tools/vx") + " \"$@\"\n");
        std::filesystem::permissions(directory + "/vx", std::filesystem::perms(0755));
    }
    return collect({"bash", "-c", "PATH=" + directory + ":$PATH\n" + script}, setting);
}

void waitForWatch(const Process &process) {
    const std::string directory = "/proc/" + std::to_string(process.pid()) + "/fdinfo";
    EXPECT_TRUE(eventually([&] {
        std::error_code ended;
        for (const auto &entry : std::filesystem::directory_iterator(directory, ended)) {
            if (readFile(entry.path()).find("inotify wd:") != std::string::npos) return true;
        }
        return false;
    }));
}

std::string schemaErrors(const std::string &schema, const std::string &json) {
    static const std::string python = "/usr/bin/python3";
    if (!exists(python)) return {};
    static const std::string program = VXTEST_SOURCE_DIR "/tests/tools/validate.py";
    static Process validator({python, program, VXTEST_SOURCE_DIR "/tools/schemas"});
    validator.send(schema + " " + std::to_string(json.size()) + "\n" + json);
    const std::string answer = validator.readLine(30000);
    return answer == "valid" ? std::string() : answer + "\nin " + json;
}

std::string vxJson(const std::string &schema, const std::vector<std::string> &words, const VxSetting &setting) {
    std::vector<std::string> all{"-j"};
    all.insert(all.end(), words.begin(), words.end());
    const VxResult result = vx(all, setting);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(schemaErrors(schema, result.out), "");
    return result.out;
}

}  // namespace vxtest
