// SPDX-License-Identifier: MIT
// Reading the bridge tool's table, line by line.
#pragma once

#include <string_view>

namespace vx {

// Tabs separate the table's fields; empty ones only align the columns.
class TabFields {
public:
    explicit TabFields(std::string_view line) noexcept : rest_(line) {}

    // Returns the next field that holds more than white space, stripped; empty when there is none.
    std::string_view next() noexcept {
        while (!rest_.empty()) {
            const size_t tab = rest_.find('\t');
            const std::string_view field = stripped(rest_.substr(0, tab));
            rest_ = tab == std::string_view::npos ? std::string_view{} : rest_.substr(tab + 1);
            if (!field.empty()) return field;
        }
        return {};
    }

private:
    static std::string_view stripped(std::string_view text) noexcept {
        constexpr std::string_view white = " \t\r\n";
        const size_t first = text.find_first_not_of(white);
        if (first == std::string_view::npos) return {};
        return text.substr(first, text.find_last_not_of(white) - first + 1);
    }

    std::string_view rest_;
};

// Picks the members of one bridge out of the table.
class BridgeTable {
public:
    explicit BridgeTable(std::string_view bridge) noexcept : bridge_(bridge) {}

    // Returns the member that this line adds to the list; empty when it adds none.
    std::string_view member(std::string_view line) noexcept {
        if (line.starts_with("bridge ")) return {};  // heading
        TabFields fields(line);
        if (line.starts_with('\t') || line.starts_with(' ')) return seen_ ? fields.next() : std::string_view{};
        if (firstField(line) != bridge_) return {};
        seen_ = true;  // for good: continuation lines of later bridges count too
        constexpr int columnsBeforeMember = 3;
        for (int column = 0; column < columnsBeforeMember; ++column) fields.next();
        return fields.next();
    }

private:
    static std::string_view firstField(std::string_view line) noexcept {
        return line.substr(0, line.find_first_of("\t\n"));
    }

    std::string_view bridge_;
    bool seen_ = false;
};

}  // namespace vx
