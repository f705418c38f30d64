// SPDX-License-Identifier: MIT
// The gateway's side of gw: one request a connection, answered in packets.
//
// A request is its words, each ended by a zero byte. An answer is any number of packets "o" (for standard output) and "e"
// (for standard error) with text, then "x" and the exit status as one byte.
#ifndef VXGATEWAY_CONTROL_H
#define VXGATEWAY_CONTROL_H

#include <poll.h>

#include <list>
#include <memory>

#include "gateway/core/gateway.h"
#include "gateway/core/scenario.h"

namespace vxgateway {

class Control {
public:
    explicit Control(Gateway &gateway) : gateway_(gateway) {}

    void listen();  // throws std::runtime_error
    void leave() const;
    void addTo(std::vector<pollfd> &waiting) const;
    void serve();  // whatever is to be done now; never waits
    bool waits() const;
    bool isFull() const { return clients_.size() >= most_; }

private:
    struct Client {
        Descriptor fd;
        std::list<std::string> packets;
        std::optional<Condition> condition;
        Clock::time_point deadline;
        bool watching = false;
        bool json = false;
        size_t seen = 0;
        Clock::time_point since = Clock::now();
        bool asked = false;
        bool over = false;  // nothing more to be said once the packets are sent
        bool gone = false;
    };
    using Shared = std::shared_ptr<Client>;

    void accept();
    void dropSilent();
    void read(const Shared &client);
    void obey(const Shared &client, Words words);
    void wait(const Shared &client, Words words);
    void proceed(Client &client);
    static void refuse(Client &client, const std::string &message, int status);
    static void print(Client &client, char kind, const std::string &text);
    static void end(Client &client, int status);
    static void send(Client &client);

    Gateway &gateway_;
    Descriptor listener_;
    size_t most_ = 0;  // clients at once
    std::list<Shared> clients_;
};

}  // namespace vxgateway

#endif
