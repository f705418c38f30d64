// SPDX-License-Identifier: MIT
// Conditions that "gw wait" and scenarios wait for.
#ifndef VXGATEWAY_CONDITION_H
#define VXGATEWAY_CONDITION_H

#include <regex.h>

#include <memory>
#include <optional>
#include <string>

#include "gateway/core/forms.h"
#include "gateway/core/record.h"

namespace vxgateway {

// What conditions ask the gateway about.
class World {
public:
    virtual std::optional<std::string> status(const std::string &name) const = 0;
    virtual char outputLevel(long long output) const = 0;
    virtual bool programRuns() const = 0;
    virtual const Record &record() const = 0;

protected:
    ~World() = default;
};

// A POSIX extended regular expression.
class Pattern {
public:
    explicit Pattern(const std::string &text);  // throws std::runtime_error with the reason
    bool matches(const std::string &text) const { return ::regexec(compiled_.get(), text.c_str(), 0, nullptr, 0) == 0; }

private:
    struct Free {
        void operator()(regex_t *regex) const {
            ::regfree(regex);
            delete regex;
        }
    };
    std::unique_ptr<regex_t, Free> compiled_;
};

// As check(), and says which pattern is none.
std::optional<Problem> checkCondition(const Words &words, size_t first = 0);

class Condition {
public:
    // Words that checkCondition() has passed. What was recorded before `since` does not count.
    Condition(Words words, const Record &record, long long since_us);

    bool holds(const World &world);
    std::string text() const { return join(words_, 0, words_.size()); }

private:
    bool recorded(const Record &record);
    bool matches(const Entry &entry) const;

    Words words_;
    std::optional<Pattern> pattern_;
    size_t next_;
};

}  // namespace vxgateway

#endif
