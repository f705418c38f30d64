// SPDX-License-Identifier: MIT
#include "gateway/core/condition.h"

#include <array>
#include <stdexcept>

namespace vxgateway {

namespace {

bool hasPattern(const Words &words, size_t first) {
    return words[first] == "log" || words[first] == "sms" || words[first] == "power";
}

}  // namespace

Pattern::Pattern(const std::string &text) {
    // The C library compiles each bracket by a deeper call of its own.
    constexpr size_t longest = 1024;
    if (text.size() > longest) throw std::runtime_error("longer than " + std::to_string(longest) + " bytes");
    auto fresh = std::make_unique<regex_t>();
    const int error = ::regcomp(fresh.get(), text.c_str(), REG_EXTENDED | REG_NOSUB);
    if (error != 0) {
        std::array<char, 256> reason;
        ::regerror(error, fresh.get(), reason.data(), reason.size());
        throw std::runtime_error(reason.data());
    }
    compiled_.reset(fresh.release());
}

std::optional<Problem> checkCondition(const Words &words, size_t first) {
    if (auto problem = check(Group::condition, words, first)) return problem;
    if (!hasPattern(words, first)) return std::nullopt;
    try {
        const Pattern pattern(join(words, first + 1, words.size()));
    } catch (const std::exception &bad) {
        return Problem{first + 1, std::string("not a regular expression: ") + bad.what()};
    }
    return std::nullopt;
}

Condition::Condition(Words words, const Record &record, long long since_us)
    : words_(std::move(words)), next_(record.first()) {
    if (hasPattern(words_, 0)) pattern_.emplace(join(words_, 1, words_.size()));
    for (const Entry *entry; (entry = record.at(next_)) != nullptr && entry->time_us < since_us;) ++next_;
}

bool Condition::holds(const World &world) {
    if (words_[0] == "status") return world.status(words_[1]) == join(words_, 2, words_.size());
    if (words_[0] == "output") return world.outputLevel(*number(words_[1], 1, 200)) == words_[2][0];
    if (words_[0] == "program") return world.programRuns() == (words_[1] == "running");
    return recorded(world.record());
}

bool Condition::recorded(const Record &record) {
    for (next_ = std::max(next_, record.first()); const Entry *entry = record.at(next_); ++next_) {
        if (matches(*entry)) return true;
    }
    return false;
}

bool Condition::matches(const Entry &entry) const {
    if (entry.kind != words_[0]) return false;
    if (pattern_) return pattern_->matches(entry.line);
    const auto same = [&](size_t word, const char *field) {
        return std::stoull(words_[word]) == std::stoull(entry.field(field));
    };
    return same(1, "id") && (words_.size() == 2 || same(2, "param"));
}

}  // namespace vxgateway
