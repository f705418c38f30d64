// SPDX-License-Identifier: MIT
// Other processes of a test: peers, examples, children that run a piece of the test.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace vxtest {

// Program built by this tree: "gateway/configd" or "examples/configd_reader"; the environment variable VXTEST_BUILD_DIR
// names another place where they lie (a board).
std::string built(const std::string &program);

// The same as words for a shell, the emulator's in front of them where the tests run under one.
std::string shellCommand(const std::string &program);

// A program started with its standard output (and error output) readable and its standard input writable.
// Programs of this tree are run under the emulator where the tests are.
class Process {
public:
    explicit Process(const std::vector<std::string> &command);
    ~Process();  // SIGKILL and wait
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    pid_t pid() const { return pid_; }
    void send(const std::string &text);  // to its standard input
    void closeInput();                   // end of file on its standard input
    // One line without its newline. Throws when the process ends without one, or hangs for so long.
    std::string readLine(int timeout_ms = 60000);
    bool hasOutput() const;  // whether a read would not wait
    std::string readAll();   // everything up to the end of its output
    void signal(int number) const;
    int wait();  // exit status, 128 + signal number when a signal ended it

private:
    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
    std::string buffered_;
};

struct Output {
    int status;
    std::string text;  // standard output and error output
};

// Runs a command to its end.
Output run(const std::vector<std::string> &command);

// Runs `body` in a forked child and returns its exit status (128 + signal number when a signal ended it). The child's
// result is body's; it leaves with _exit, so that neither leak checks nor destructors of the test run twice.
int inChild(const std::function<int()> &body);

// Runs `body` in a thread of a forked child whose first thread has ended, and returns the child's exit status.
int inLaterThread(const std::function<int()> &body);

// Forks a child running `body` and returns its process id at once.
pid_t startChild(const std::function<int()> &body);
int waitChild(pid_t pid);

// Whether this box has users beside root: one made by an ordinary user has not.
bool hasOtherUsers();

// Waits until the condition holds, looking every 2 ms; false after timeout_ms.
bool eventually(const std::function<bool()> &condition, int timeout_ms = 15000);

}  // namespace vxtest
