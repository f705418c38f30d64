// SPDX-License-Identifier: MIT
// What happened in a gateway, with the time of each: the record that gw shows, waits for and prints as JSON.
#ifndef VXGATEWAY_RECORD_H
#define VXGATEWAY_RECORD_H

#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace vxgateway {

struct Field {
    std::string name;
    std::string value;
    bool isNumber = false;
};

// Kinds: event, output, counting, log, sms, power, order, peer, modem, program, scenario, note.
struct Entry {
    long long time_us = 0;  // since the gateway's start
    std::string kind;
    std::string line;  // as gw prints it
    std::vector<Field> fields;

    const std::string &field(std::string_view name) const;  // "" when it has none of this name
    std::string json() const;
};

std::string secondsText(long long us);

// Keeps the newest entries. Each has a number, counted from the gateway's start.
class Record {
public:
    static constexpr size_t most = 100000;

    const Entry &add(Entry entry) {
        entries_.push_back(std::move(entry));
        if (entries_.size() > most) {
            entries_.pop_front();
            ++dropped_;
        }
        return entries_.back();
    }
    const std::deque<Entry> &entries() const { return entries_; }
    size_t end() const { return dropped_ + entries_.size(); }
    const Entry *at(size_t number) const {
        return number < dropped_ || number >= end() ? nullptr : &entries_[number - dropped_];
    }
    size_t first() const { return dropped_; }

private:
    std::deque<Entry> entries_;
    size_t dropped_ = 0;
};

// A datagram of the system log: "<11>Nov 21 02:03:04 identity[12]: text", with or without its parts.
Entry logEntry(std::string_view datagram);

}  // namespace vxgateway

#endif
