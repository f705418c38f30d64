// SPDX-License-Identifier: MIT
// vx sms: short messages.
#include <dirent.h>
#include <unistd.h>
#include <vxutils/simplesms.h>

#include <algorithm>
#include <memory>
#include <set>

#include "commands/commands.h"
#include "core/failure.h"
#include "core/follow.h"
#include "core/owned.h"
#include "core/watch.h"

namespace tool {

namespace {

constexpr const char *script = "/usr/local/sbin/send-sms";
constexpr const char *spool = "/var/spool/sms/incoming";

int send(const Arguments &arguments, Output &out) {
    const std::string &number = arguments[0];
    if (number.empty() || number.find_first_of("\r\n") != std::string::npos)
        throw Usage{"NUMBER is empty or holds a line break"};
    if (::access(script, X_OK) != 0) throw systemFailure(script);
    if (CSimpleSMS(number, arguments[1]).send() != 0)
        throw Failure(number, std::string(script) + " did not accept the message");
    out.done();
    return statusDone;
}

void checkSpool() {
    const Owned<DIR, &::closedir> directory(::opendir(spool));
    if (!directory) throw systemFailure(spool);
}

// Of the incoming messages, with their times, the oldest first.
std::vector<std::pair<long long, std::string>> incomingIds() {
    checkSpool();
    std::vector<std::pair<long long, std::string>> ids;
    CSimpleSMS::RetrieveIncomingIds(ids);
    std::sort(ids.begin(), ids.end());
    return ids;
}

int list(const Arguments &, Output &out) {
    const auto ids = incomingIds();
    std::vector<Record> records;
    records.reserve(ids.size());
    for (const auto &[time, id] : ids) records.push_back({{"id", id}, {"time", time}});
    out.print(records, Plain::name);
    return statusDone;
}

// Nothing for a message that is not there or cannot be understood.
std::optional<Record> messageOf(const std::string &id) {
    const std::unique_ptr<CSimpleSMS> message(CSimpleSMS::getIncomingSMSById(id));
    if (!message) return std::nullopt;
    return Record{
        {"id", id}, {"from", message->getNumber()}, {"received", message->getReceived()}, {"text", message->getText()}};
}

void checkId(const std::string &id) {
    if (id.empty() || id == "." || id == ".." || id.find('/') != std::string::npos)
        throw Usage{"ID '" + id + "' is not a message's"};
    if (::access((std::string(spool) + "/" + id).c_str(), R_OK) != 0) throw systemFailure(id);
}

int show(const Arguments &arguments, Output &out) {
    checkId(arguments[0]);
    const auto message = messageOf(arguments[0]);
    if (!message) throw Failure(arguments[0], "the file is not a short message");
    out.print(*message, Plain::fields);
    return statusDone;
}

int remove(const Arguments &arguments, Output &out) {
    checkId(arguments[0]);
    if (CSimpleSMS::DeleteIncomingSMSById(arguments[0]) != 0) throw systemFailure(arguments[0]);
    out.done();
    return statusDone;
}

// The spool, watched for messages that come in.
class Incoming {
public:
    Incoming() { look(); }

    int fd() const { return watch_.fd(); }

    std::vector<Record> messages() {
        std::vector<Record> found;
        for (const auto &change : watch_.changes()) {
            if (change.name.empty()) {
                look();
            } else if (auto message = messageAt(change)) {
                found.push_back(std::move(*message));
            }
        }
        return found;
    }

private:
    // Also where the directory has gone, or been replaced.
    void look() {
        watch_.add(spool);
        checkSpool();
    }

    // A message is there when its file has been written to its end or has got its name, and may be read.
    std::optional<Record> messageAt(const DirectoryWatch::Change &change) {
        if (change.name[0] == '.' || change.isDirectory || change.isNew) return std::nullopt;
        const bool waitedFor = unreadable_.erase(change.name) > 0;
        if (change.onlyAttributes && !waitedFor) return std::nullopt;
        auto message = messageOf(change.name);
        const std::string path = std::string(spool) + "/" + change.name;
        if (!message && ::access(path.c_str(), F_OK) == 0) unreadable_.insert(change.name);
        return message;
    }

    DirectoryWatch watch_;
    std::set<std::string> unreadable_;  // those that may be messages when their mode has changed
};

int watch(const Arguments &arguments, Output &out) {
    Follow follow(arguments, out);
    Incoming incoming;
    while (follow.wait(incoming.fd()) == Follow::Event::ready) {
        for (const Record &message : incoming.messages()) {
            if (!follow.print(message, Plain::name)) return statusDone;
        }
    }
    return statusDone;
}

std::vector<std::string> idWords(const Arguments &) {
    std::vector<std::string> words;
    for (const auto &[time, id] : incomingIds()) words.push_back(id);
    return words;
}

constexpr Argument outgoing[] = {{"NUMBER", Count::one}, {"TEXT", Count::one}};
constexpr Argument id[] = {{"ID", Count::one, idWords}};

constexpr Verb verbs[] = {
    {"send", "send a message", {}, outgoing, send},
    {"list", "print the ids of the incoming messages, the oldest first", {}, {}, list},
    {"show", "print a message", {}, id, show},
    {"delete", "delete a message", {}, id, remove},
    {"watch", "print the id of each message that comes in", {}, {}, watch, true},
};

}  // namespace

const Command smsCommand{"sms", "short messages", {}, verbs};

}  // namespace tool
