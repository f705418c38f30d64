// SPDX-License-Identifier: MIT
#include "gateway/core/control.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "gateway/core/board.h"

namespace vxgateway {

namespace {

constexpr size_t packetSize = 32768;
constexpr size_t mostPackets = 4096;  // kept for a client that does not read
constexpr double defaultWait_s = 10;
constexpr std::chrono::seconds longestSilence{1};  // of a client that keeps others from being served

// As many as leave descriptors for what they ask.
size_t mostClients() {
    constexpr rlim_t most = 512;
    constexpr rlim_t least = 16;
    constexpr rlim_t kept = 64;
    rlimit descriptors{};
    if (::getrlimit(RLIMIT_NOFILE, &descriptors) == -1 || descriptors.rlim_cur <= kept + least) return least;
    return static_cast<size_t>(std::min(descriptors.rlim_cur - kept, most));
}

Words wordsOf(const std::string &request) {
    Words words;
    for (size_t at = 0; at < request.size();) {
        const size_t end = std::min(request.find('\0', at), request.size());
        words.push_back(request.substr(at, end - at));
        at = end + 1;
    }
    return words;
}

// Takes "--name VALUE" out of the words; "" when it is not there.
std::optional<std::string> takeOption(Words &words, const std::string &name) {
    const auto found = std::find(words.begin(), words.end(), name);
    if (found == words.end()) return std::nullopt;
    const std::string value = found + 1 == words.end() ? "" : *(found + 1);
    words.erase(found, found + 1 == words.end() ? words.end() : found + 2);
    return value;
}

}  // namespace

void Control::listen() {
    most_ = mostClients();
    ::unlink(controlSocket);
    listener_ = Descriptor(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, controlSocket);
    if (listener_.get() == -1 ||
        ::bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == -1 ||
        ::chmod(controlSocket, 0666) == -1 || ::listen(listener_.get(), 64) == -1) {
        throw std::runtime_error(std::string(controlSocket) + ": " + std::strerror(errno));
    }
}

void Control::leave() const { ::unlink(controlSocket); }

void Control::addTo(std::vector<pollfd> &waiting) const {
    waiting.push_back({isFull() ? -1 : listener_.get(), POLLIN, 0});
    for (const Shared &client : clients_) {
        waiting.push_back({client->fd.get(), static_cast<short>(client->packets.empty() ? POLLIN : POLLOUT), 0});
    }
}

bool Control::waits() const {
    return std::any_of(clients_.begin(), clients_.end(),
                       [](const Shared &client) { return client->condition.has_value(); });
}

void Control::serve() {
    accept();
    for (const Shared &client : clients_) read(client);
    dropSilent();
    // Only then, because what one client has ordered may be what another one waits for.
    for (const Shared &client : clients_) {
        proceed(*client);
        send(*client);
    }
    clients_.remove_if([](const Shared &client) { return client->gone || (client->over && client->packets.empty()); });
}

void Control::accept() {
    for (int fd;
         !isFull() && (fd = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) != -1;) {
        clients_.push_back(std::make_shared<Client>());
        clients_.back()->fd = Descriptor(fd);
    }
}

void Control::dropSilent() {
    if (!isFull()) return;
    const auto last = Clock::now() - longestSilence;
    for (const Shared &client : clients_) client->gone = client->gone || (!client->asked && client->since < last);
}

void Control::read(const Shared &client) {
    std::string request(packetSize, '\0');
    const ssize_t got = ::recv(client->fd.get(), request.data(), request.size(), MSG_TRUNC);
    if (got == -1 && (errno == EAGAIN || errno == EINTR)) return;
    if (got <= 0) {
        client->gone = true;
        return;
    }
    if (client->asked) return;
    client->asked = true;
    if (static_cast<size_t>(got) > packetSize)
        return refuse(*client, "more than " + std::to_string(packetSize) + " bytes of words", 2);
    request.resize(static_cast<size_t>(got));
    obey(client, wordsOf(request));
}

void Control::obey(const Shared &client, Words words) {
    client->json =
        words.size() > 1 && words.back() == "--json" && groupOf(Words(words.begin(), words.end() - 1)) == Group::query;
    if (client->json) words.pop_back();
    const Group group = groupOf(words);
    if (group == Group::wait) return wait(client, std::move(words));
    if (const auto problem = check(group, words)) return refuse(*client, problem->message, 2);
    if (words[0] == "watch") {
        client->watching = true;
        const Record &record = gateway_.record();
        const size_t last = words.size() == 3 ? std::stoul(words[2]) : 0;
        client->seen = std::max(record.first(), record.end() - std::min(last, record.end()));
        return;
    }
    // The client may be gone when a peer has obeyed.
    const auto done = [client](const Outcome &outcome) {
        if (!outcome.obeyed) return refuse(*client, outcome.text, outcome.status);
        print(*client, 'o', outcome.text);
        end(*client, 0);
    };
    if (group != Group::query) return gateway_.perform(words, done);
    if (const auto text = gateway_.show(words, client->json, done)) done({true, *text});
}

void Control::wait(const Shared &client, Words words) {
    double patience = defaultWait_s;
    double since = 0;
    for (const auto &[option, value] : {std::pair("--for", &patience), std::pair("--since", &since)}) {
        const auto text = takeOption(words, option);
        if (!text) continue;
        // Times of the record have six digits after the point.
        const size_t point = text->find('.');
        const auto time = seconds(point == std::string::npos ? *text : text->substr(0, point + 4));
        if (!time)
            return refuse(*client, std::string(option) + " takes seconds from 0 to 86400, not '" + *text + "'", 2);
        *value = *time;
    }
    words.erase(words.begin());
    if (const auto problem = checkCondition(words)) return refuse(*client, problem->message, 2);
    client->condition.emplace(words, gateway_.record(), static_cast<long long>(since * 1e6));
    client->deadline = Clock::now() + std::chrono::milliseconds(static_cast<long long>(patience * 1000));
}

void Control::proceed(Client &client) {
    if (client.condition) {
        if (client.condition->holds(gateway_)) {
            end(client, 0);
        } else if (Clock::now() >= client.deadline) {
            refuse(client, "not in time: " + client.condition->text(), 1);
        }
        if (client.over) client.condition.reset();
    }
    while (client.watching && client.seen < gateway_.record().end() && client.packets.size() < mostPackets / 2) {
        const Entry *const entry = gateway_.record().at(client.seen++);
        if (entry == nullptr) continue;
        print(client, 'o', (client.json ? entry->json() : entry->kind + ": " + entry->line) + "\n");
    }
}

void Control::refuse(Client &client, const std::string &message, int status) {
    print(client, 'e', "gw: " + message + "\n");
    end(client, status);
}

void Control::print(Client &client, char kind, const std::string &text) {
    for (size_t at = 0; at < text.size(); at += packetSize - 1)
        client.packets.push_back(kind + text.substr(at, packetSize - 1));
    if (client.packets.size() > mostPackets) client.gone = true;
}

void Control::end(Client &client, int status) {
    client.packets.push_back({'x', static_cast<char>(status)});
    client.over = true;
}

void Control::send(Client &client) {
    while (!client.packets.empty() && !client.gone) {
        const std::string &packet = client.packets.front();
        if (::send(client.fd.get(), packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT) == -1) {
            client.gone = errno != EAGAIN && errno != EINTR;
            return;
        }
        client.packets.pop_front();
    }
}

}  // namespace vxgateway
