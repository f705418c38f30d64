// SPDX-License-Identifier: MIT
#include <vxutils/timefmt.h>

#include <sys/sysinfo.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace {

constexpr size_t resultSize = 256;
constexpr size_t elementSize = 1024;

constexpr char units[] = {' ', 'K', 'M', 'G', 'T'};
constexpr size_t lastUnit = sizeof units - 1;

constexpr const char *unknownTime = "1970-01-01 00:00:00";
constexpr const char *shortYear = "%y-%m-%d %H:%M:%S";
constexpr const char *fullYear = "%Y-%m-%d %H:%M:%S";

// Subtraction that wraps instead of overflowing: callers hand in whatever a peer or a clock gave them.
template <typename Signed>
constexpr Signed wrappedDifference(Signed a, std::type_identity_t<Signed> b) {
    using Unsigned = std::make_unsigned_t<Signed>;
    return static_cast<Signed>(static_cast<Unsigned>(a) - static_cast<Unsigned>(b));
}

// (n + 512) >> 10 without the sum, which could leave the range: bit 9 says whether to round up.
constexpr int64_t nearest1024th(int64_t n) { return (n >> 10) + ((n >> 9) & 1); }

// (bytes * 800 + 512) >> 10, that is (bytes * 25 + 16) >> 5, with the product taken of what the shift leaves.
constexpr int64_t kilobitHundredths(int64_t bytes) {
    const int64_t whole = bytes >> 5;
    const int64_t rest = bytes & 31;
    return whole * 25 + ((rest * 25 + 16) >> 5);
}
static_assert(kilobitHundredths(1000) == 781 && kilobitHundredths(INT64_MAX) > 0 && kilobitHundredths(INT64_MIN) < 0);

// One bracketed tag, which the caller knows to fit.
class Tag {
public:
    Tag(std::string_view opening, std::string_view name) {
        char *end = static_cast<char *>(mempcpy(text_, opening.data(), opening.size()));
        end = static_cast<char *>(mempcpy(end, name.data(), name.size()));
        *end++ = '>';
        *end = '\0';
    }
    [[nodiscard]] const char *text() const { return text_; }

private:
    char text_[elementSize];
};

constexpr size_t longestTagName = elementSize - sizeof "</>";  // a longer one cannot be closed within the buffer

}  // namespace

long jiffy(void) {
    struct sysinfo info {};
    ::sysinfo(&info);
    return info.uptime;
}

const char *timeformat(const time_t *t) {
    static char text[resultSize];
    const time_t now = time(nullptr);
    const struct tm *local = localtime(t != nullptr ? t : &now);
    if (local == nullptr) return unknownTime;
    snprintf(text, sizeof text, "%04jd-%02d-%02d %02d:%02d:%02d", intmax_t{local->tm_year} + 1900, local->tm_mon + 1,
             local->tm_mday, local->tm_hour, local->tm_min, local->tm_sec);
    return text;
}

// Quirk Q54.
time_t timeparse(const char *text) {
    if (text == nullptr || *text == '\0') return 0;
    struct tm parsed {};
    if (strptime(text, shortYear, &parsed) == nullptr && strptime(text, fullYear, &parsed) == nullptr) return 0;
    const time_t first = mktime(&parsed);
    struct tm universal {};
    return gmtime_r(&first, &universal) != nullptr ? mktime(&universal) : 0;
}

struct timespec diffts(struct timespec start, struct timespec end) {
    struct timespec difference {};
    difference.tv_sec = wrappedDifference(end.tv_sec, start.tv_sec);
    difference.tv_nsec = wrappedDifference(end.tv_nsec, start.tv_nsec);
    if (difference.tv_nsec < 0) {
        difference.tv_sec = wrappedDifference(difference.tv_sec, 1);
        difference.tv_nsec += 1000000000;
    }
    return difference;
}

int64_t uselapsed(struct timespec start, struct timespec end) {
    const auto seconds = static_cast<uint64_t>(wrappedDifference(end.tv_sec, start.tv_sec));
    const auto microseconds = wrappedDifference<int64_t>(end.tv_nsec, start.tv_nsec) / 1000;
    return static_cast<int64_t>(seconds * 1000000 + static_cast<uint64_t>(microseconds));
}

uint32_t mkid(void) {
    const auto high = (static_cast<uint64_t>(time(nullptr)) & 0xFFFF) % 0xFFFF;
    const auto low = (static_cast<uint64_t>(random()) & 0xFFFF) % 0xFFFF;
    return static_cast<uint32_t>(high << 16 | low);
}

const char *format_size(int64_t bytes) {
    static char text[resultSize];
    size_t unit = 0;
    int64_t n = bytes;
    while (n >= 10000 && unit < lastUnit) {
        n = nearest1024th(n);
        ++unit;
    }
    if (unit == 0) {
        snprintf(text, sizeof text, "%jd B", intmax_t{n});
    } else {
        snprintf(text, sizeof text, "%jd %cB", intmax_t{n}, units[unit]);
    }
    return text;
}

const char *format_rate(int64_t bytes_per_second) {
    static char text[resultSize];
    size_t unit = 1;
    int64_t hundredths = kilobitHundredths(bytes_per_second);
    while (hundredths > 99999 && unit < lastUnit) {
        hundredths = nearest1024th(hundredths);
        ++unit;
    }
    const intmax_t rounded = hundredths + 5;
    snprintf(text, sizeof text, "%jd.%1jd %cbit/s", rounded / 100, rounded / 10 % 10, units[unit]);
    return text;
}

char *xml_readattr(const char *document, const char *tag) {
    static char element[elementSize];
    if (document == nullptr || *document == '\0' || tag == nullptr || *tag == '\0') return nullptr;
    // The tag may be this function's previous result: it is used up before the buffer is cleared.
    const std::string_view name(tag, strnlen(tag, longestTagName + 1));
    const bool fits = name.size() <= longestTagName;
    const Tag opening("<", name.substr(0, longestTagName));
    const Tag closing("</", name.substr(0, longestTagName));
    memset(element, 0, sizeof element);
    if (!fits) return nullptr;

    const char *found = strstr(document, opening.text());
    if (found == nullptr) return nullptr;
    const char *content = found + strlen(opening.text());
    if (*content == '\0') return nullptr;

    memcpy(element, content, strnlen(content, sizeof element - 1));
    char *end = strstr(element, closing.text());
    if (end == nullptr) return nullptr;
    *end = '\0';
    return element;
}
