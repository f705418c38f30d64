// SPDX-License-Identifier: MIT
#include "gateway/core/junit.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

namespace vxgateway {

namespace {

// Text of an XML document. What is not ASCII is written as if it were Latin-1, control characters as "?": XML has no way
// to write them.
std::string xml(const std::string &text) {
    std::string escaped;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '<' || c == '>' || c == '&' || c == '"' || byte >= 0x80) {
            escaped += "&#" + std::to_string(byte) + ";";
        } else {
            escaped += byte < 0x20 && c != '\n' && c != '\t' ? '?' : c;
        }
    }
    return escaped;
}

}  // namespace

bool writeReport(int fd, const Result &result, const Record &record) {
    std::array<char, 32> seconds;
    (void)std::snprintf(seconds.data(), seconds.size(), "%.3f", result.seconds);
    const bool passed = result.failure.empty();
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    const std::string counts = std::string(" tests=\"1\" failures=\"") + (passed ? "0" : "1") +
                               "\" errors=\"0\" time=\"" + seconds.data() + "\"";
    text += "<testsuites" + counts + ">\n<testsuite name=\"vxgateway\"" + counts + ">\n";
    text += "<testcase classname=\"vxgateway\" name=\"" + xml(result.name) + "\" time=\"" + seconds.data() + "\">\n";
    if (!passed) text += "<failure message=\"" + xml(result.failure) + "\"/>\n";
    text += "<system-out>";
    for (const Entry &entry : record.entries()) {
        if (entry.kind == "log") text += xml(secondsText(entry.time_us) + " " + entry.line) + "\n";
    }
    text += "</system-out>\n</testcase>\n</testsuite>\n</testsuites>\n";
    for (size_t at = 0; at < text.size();) {
        const ssize_t written = ::write(fd, text.data() + at, text.size() - at);
        if (written == -1 && errno == EINTR) continue;
        if (written <= 0) return false;
        at += static_cast<size_t>(written);
    }
    return true;
}

}  // namespace vxgateway
