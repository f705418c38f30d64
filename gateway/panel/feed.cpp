// SPDX-License-Identifier: MIT
#include "gateway/panel/feed.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdio>

namespace vxgateway {

namespace {

constexpr const char *shownAtFirst = "1000";  // entries of the record
constexpr std::chrono::milliseconds lookInterval{50};
constexpr std::chrono::seconds signOfLife{5};  // so that a page that has gone is noticed

void add(std::string &events, const char *name, std::string_view json) {
    events.append("event: ").append(name).append("\ndata: ").append(json).append("\n\n");
}

// All of the answer's standard output; nothing when the gateway did not answer.
std::optional<std::string> ask(const Words &words) {
    const Descriptor gateway = connectToGateway();
    if (gateway.get() == -1 || !sendRequest(gateway.get(), requestOf(words))) return std::nullopt;
    std::string text;
    while (const auto packet = receivePacket(gateway.get())) {
        if (packet->kind == 'x') return text;
        text += packet->text;
    }
    return std::nullopt;
}

}  // namespace

Feed::Feed(bool measures) : watch_(connectToGateway()) {
    if (measures) probe_.emplace();
    if (watch_.get() != -1) sendRequest(watch_.get(), requestOf({"watch", "last", shownAtFirst, "--json"}));
}

std::optional<std::string> Feed::next() {
    std::array<pollfd, 2> waiting{pollfd{watch_.get(), POLLIN, 0}, pollfd{probe_ ? probe_->fd() : -1, POLLIN, 0}};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(look_ - Clock::now()).count();
    ::poll(waiting.data(), waiting.size(), left > 0 ? static_cast<int>(left) : 0);
    std::string events;
    if (!readRecord(events) || (Clock::now() >= look_ && !lookAtState(events))) return std::nullopt;
    for (const auto &trip : probe_ ? probe_->poll_ms() : std::vector<std::optional<double>>()) {
        std::array<char, 32> text{"null"};
        if (trip) (void)std::snprintf(text.data(), text.size(), "%.3f", *trip);
        add(events, "trip", std::string("{\"ms\":") + text.data() + "}");
    }
    const auto now = Clock::now();
    if (events.empty() && now - quietSince_ >= signOfLife) events = ": still here\n\n";
    if (!events.empty()) quietSince_ = now;
    return events;
}

bool Feed::readRecord(std::string &events) {
    constexpr size_t mostAtOnce = 1 << 18;
    while (events.size() < mostAtOnce) {
        const auto packet = receivePacket(watch_.get(), MSG_DONTWAIT);
        if (!packet) return errno == EAGAIN;
        if (packet->kind != 'o') return false;
        partial_ += packet->text;
        for (size_t end; (end = partial_.find('\n')) != std::string::npos; partial_.erase(0, end + 1))
            add(events, "record", std::string_view(partial_).substr(0, end));
    }
    return true;
}

bool Feed::lookAtState(std::string &events) {
    look_ = Clock::now() + lookInterval;
    auto answer = ask({"show", "--json"});
    if (!answer || answer->empty()) return false;
    answer->pop_back();
    // The time comes first and always changes.
    const std::string state = answer->substr(answer->find(',') + 1);
    if (state == state_) return true;
    state_ = state;
    add(events, "state", *answer);
    return true;
}

}  // namespace vxgateway
