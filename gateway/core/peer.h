// SPDX-License-Identifier: MIT
// One peer of the gateway as a process: started, steered by lines on its standard input, heard line by line.
#ifndef VXGATEWAY_PEER_H
#define VXGATEWAY_PEER_H

#include <sys/types.h>

#include <chrono>
#include <deque>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace vxgateway {

using Clock = std::chrono::steady_clock;

// What became of an order.
struct Outcome {
    bool obeyed = false;
    std::string text;  // what the peer printed for it, or why it did not obey
    int status = 1;    // of gw, when it was not obeyed
};
using Done = std::function<void(const Outcome &)>;

// A descriptor that is closed at the end.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    ~Descriptor() { close(); }
    Descriptor(Descriptor &&other) noexcept : fd_(other.release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        close();
        fd_ = other.release();
        return *this;
    }
    int get() const { return fd_; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void close();

private:
    int fd_;
};

class Peer {
public:
    using Hear = std::function<void(const std::string &line)>;
    static constexpr std::chrono::seconds patience{3};  // a peer that has not obeyed by then does not

    Peer(std::string name, std::vector<std::string> command, Hear hear)
        : name_(std::move(name)), command_(std::move(command)), hear_(std::move(hear)) {}

    const std::string &name() const { return name_; }
    pid_t pid() const { return pid_; }
    bool running() const { return pid_ > 0; }
    bool ready() const { return ready_; }
    int output() const { return output_.get(); }
    const std::string &said() const { return said_; }  // until it was ready

    void start(const std::string &logPath);  // throws std::runtime_error
    void endInput() { input_.close(); }      // every peer ends with it
    void kill() const;
    void ended();  // its process has been waited for

    void order(const std::string &text, Done done);
    void read();
    void giveUp(Clock::time_point now);  // on orders whose time is over
    bool isBusy() const;                 // something is to be done without news from its process

private:
    struct Pending {
        std::string text;
        Done done;  // none once its time was over: its confirmation still comes, before those of later orders
        Clock::time_point deadline;
        std::string answer;
        bool refused = false;
    };
    void take(const std::string &line);
    void skipLost(const std::string &line);
    void finish(bool obeyed);
    void sendRest();

    std::string name_;
    std::vector<std::string> command_;
    Hear hear_;
    pid_t pid_ = -1;
    Descriptor input_;
    Descriptor output_;
    std::ofstream log_;
    std::string partial_;
    std::string unsent_;  // rest of an order
    std::string said_;
    bool ready_ = false;
    std::deque<Pending> pending_;
};

}  // namespace vxgateway

#endif
