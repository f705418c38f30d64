// SPDX-License-Identifier: MIT
// The orders of gw and of scenarios: what can be said, in one table, and the check of what was said.
#ifndef VXGATEWAY_FORMS_H
#define VXGATEWAY_FORMS_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vxgateway {

using Words = std::vector<std::string>;

enum class Group {
    order,      // changes something
    query,      // shows something; takes --json
    wait,       // waits for a condition
    condition,  // what "wait", "when" and "expect" can be followed by
    internal,   // said by the gateway's own scripts
};

// A syntax is words apart by blanks: "a|b" one of these words, CAPITALS a value of this type, "[...]" may be left out.
struct Form {
    Group group;
    std::string_view syntax;
    std::string_view purpose;
};

const std::vector<Form> &forms();

// What is wrong, at which word (the number of words when one is missing).
struct Problem {
    size_t word;
    std::string message;
};

// Nothing when the words, from `first` on, are one of the forms of this group.
std::optional<Problem> check(Group group, const Words &words, size_t first = 0);

// Finds the group of the words by their first one: an order's by default.
Group groupOf(const Words &words);

std::optional<double> seconds(const std::string &text);  // 0 to 86400, at most three digits after the point
std::optional<long long> number(const std::string &text, long long least, long long most);

std::string join(const Words &words, size_t first, size_t last);
Words split(const std::string &line);

}  // namespace vxgateway

#endif
