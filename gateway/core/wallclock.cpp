// SPDX-License-Identifier: MIT
#include "gateway/core/wallclock.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <string_view>

#include "gateway/core/json.h"
#include "gateway/core/peer.h"
#include "gateway/core/record.h"

namespace vxgateway {

namespace {

constexpr int64_t day_s = 86400;
constexpr int firstYear = 1970;
constexpr int lastYear = 2199;
constexpr int64_t end_s = 7258118400;  // of the last year

struct Unit {
    char letter;
    int64_t seconds;
};
constexpr std::array units{Unit{'s', 1},     Unit{'m', 60},        Unit{'h', 3600},
                           Unit{'d', day_s}, Unit{'w', 7 * day_s}, Unit{'y', 365 * day_s}};

bool isDigits(std::string_view text) { return text.find_first_not_of("0123456789") == std::string_view::npos; }

std::optional<int64_t> wholeNumber(std::string_view text, size_t mostDigits) {
    if (text.empty() || text.size() > mostDigits || !isDigits(text)) return std::nullopt;
    return std::strtoll(std::string(text).c_str(), nullptr, 10);
}

std::optional<ClockMove> distance(std::string_view word) {
    if (word.size() < 3) return std::nullopt;
    const int64_t count = wholeNumber(word.substr(1, word.size() - 2), 10).value_or(-1);
    if (count < 0) return std::nullopt;
    for (const Unit &unit : units) {
        if (unit.letter != word.back() || count > end_s / unit.seconds) continue;
        const int64_t ns = count * unit.seconds * secondInNs;
        return ClockMove{true, word[0] == '-' ? -ns : ns};
    }
    return std::nullopt;
}

std::optional<ClockMove> sinceEpoch(std::string_view word) {
    const size_t point = std::min(word.find('.'), word.size());
    const auto seconds = wholeNumber(word.substr(1, point - 1), 10);
    if (!seconds || *seconds >= end_s) return std::nullopt;
    if (point == word.size()) return ClockMove{false, *seconds * secondInNs};
    std::string fraction(word.substr(point + 1));
    if (fraction.empty() || fraction.size() > 9 || !isDigits(fraction)) return std::nullopt;
    fraction.resize(9, '0');
    return ClockMove{false, *seconds * secondInNs + std::strtoll(fraction.c_str(), nullptr, 10)};
}

bool isLeap(int64_t year) { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }

int64_t daysOf(int64_t year, int64_t month) {
    constexpr std::array<int64_t, 12> days{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && isLeap(year) ? 29 : days[static_cast<size_t>(month - 1)];
}

std::optional<ClockMove> date(const std::string &word) {
    constexpr std::string_view pattern = "dddd-dd-ddTdd:dd:dd";
    if (word.size() != pattern.size()) return std::nullopt;
    for (size_t i = 0; i < word.size(); ++i) {
        if (pattern[i] == 'd' ? !isDigits({&word[i], 1}) : word[i] != pattern[i]) return std::nullopt;
    }
    const auto part = [&](size_t at, size_t length) {
        return std::strtoll(word.substr(at, length).c_str(), nullptr, 10);
    };
    const int64_t year = part(0, 4);
    const int64_t month = part(5, 2);
    const int64_t day = part(8, 2);
    if (year < firstYear || year > lastYear || month < 1 || month > 12 || day < 1 || day > daysOf(year, month) ||
        part(11, 2) > 23 || part(14, 2) > 59 || part(17, 2) > 59) {
        return std::nullopt;
    }
    int64_t days = day - 1;
    for (int64_t one = firstYear; one < year; ++one) days += isLeap(one) ? 366 : 365;
    for (int64_t one = 1; one < month; ++one) days += daysOf(year, one);
    return ClockMove{false, (days * day_s + part(11, 2) * 3600 + part(14, 2) * 60 + part(17, 2)) * secondInNs};
}

// Through 64 bits on every machine.
std::string dateText(int64_t seconds) {
    int64_t days = seconds / day_s;
    int64_t year = firstYear;
    for (; days >= (isLeap(year) ? 366 : 365); ++year) days -= isLeap(year) ? 366 : 365;
    int64_t month = 1;
    for (; days >= daysOf(year, month); ++month) days -= daysOf(year, month);
    std::array<char, 64> text;
    (void)std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02dZ", static_cast<int>(year),
                        static_cast<int>(month), static_cast<int>(days + 1), static_cast<int>(seconds % day_s / 3600),
                        static_cast<int>(seconds % 3600 / 60), static_cast<int>(seconds % 60));
    return text.data();
}

int64_t machine_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

std::optional<ClockMove> clockMove(const std::string &word) {
    if (word.empty()) return std::nullopt;
    if (word[0] == '+' || word[0] == '-') return distance(word);
    return word[0] == '@' ? sinceEpoch(word) : date(word);
}

WallClock::~WallClock() {
    if (offset_ == nullptr) return;
    ::munmap(offset_, sizeof *offset_);
    ::unlink(clockFile);
}

void WallClock::share() {
    const Descriptor file(::open(clockFile, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    void *mapped = MAP_FAILED;
    if (file.get() != -1 && ::fchmod(file.get(), 0644) == 0 && ::ftruncate(file.get(), sizeof *offset_) == 0)
        mapped = ::mmap(nullptr, sizeof *offset_, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (mapped == MAP_FAILED) throw std::runtime_error(std::string(clockFile) + ": " + std::strerror(errno));
    offset_ = static_cast<ClockOffset *>(mapped);
}

int64_t WallClock::offset_ns() const {
    return offset_ == nullptr ? 0 : __atomic_load_n(&offset_->ns, __ATOMIC_ACQUIRE);
}

std::string WallClock::set(const ClockMove &move) {
    const int64_t machine = machine_ns();
    const int64_t present = machine + offset_ns();
    const bool inside = !move.relative || (move.ns < 0 ? -move.ns <= present : move.ns < end_s * secondInNs - present);
    if (!inside) {
        return "the clock goes from " + std::to_string(firstYear) + " to " + std::to_string(lastYear) + ", it shows " +
               dateText(present / secondInNs);
    }
    __atomic_store_n(&offset_->ns, (move.relative ? present + move.ns : move.ns) - machine, __ATOMIC_RELEASE);
    return "";
}

void WallClock::setReal() const { __atomic_store_n(&offset_->ns, 0, __ATOMIC_RELEASE); }

std::string WallClock::text() const {
    const int64_t offset = offset_ns();
    const std::string distance = offset == 0 ? "as the machine's"
                                             : secondsText(std::abs(offset) / 1000) + " s " +
                                                   (offset < 0 ? "behind" : "ahead of") + " the machine's";
    return dateText((machine_ns() + offset) / secondInNs) + ", " + distance + "\n";
}

std::string WallClock::json() const {
    const int64_t offset = offset_ns();
    return Json::object()
        .text("time", dateText((machine_ns() + offset) / secondInNs))
        .add("offset_s", (offset < 0 ? "-" : "") + secondsText(std::abs(offset) / 1000))
        .truth("settable", isShared())
        .done();
}

}  // namespace vxgateway
