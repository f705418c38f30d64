// SPDX-License-Identifier: MIT
// Bridge tables of any text: the members are those that a slow reading of the lines gives, and lie within their lines.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz/split.h"
#include "vxutils/interface_bridge.h"

namespace {

std::string stripped(std::string text) {
    const std::string white = " \t\r\n";
    while (!text.empty() && white.find(text.front()) != std::string::npos) text.erase(0, 1);
    while (!text.empty() && white.find(text.back()) != std::string::npos) text.pop_back();
    return text;
}

// The rules once more: all fields of a line are split before any of them is looked at.
class SlowTable {
public:
    explicit SlowTable(std::string bridge) : bridge_(std::move(bridge)) {}

    std::string member(const std::string &line) {
        if (line.compare(0, 7, "bridge ") == 0) return "";
        const std::vector<std::string> fields = split(line, "\t");
        const std::string name = fields[0].substr(0, fields[0].find('\n'));
        std::vector<std::string> full;
        for (const std::string &field : fields) {
            if (!stripped(field).empty()) full.push_back(stripped(field));
        }
        const bool continues = line[0] == '\t' || line[0] == ' ';
        if (continues) return seen_ && !full.empty() ? full[0] : "";
        if (name != bridge_) return "";
        seen_ = true;
        return full.size() > 3 ? full[3] : "";
    }

private:
    std::string bridge_;
    bool seen_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 4096) return 0;
    const std::string text(reinterpret_cast<const char *>(data), size);
    const size_t nameEnd = text.find('\n');
    const std::string bridge = text.substr(0, nameEnd);
    vx::BridgeTable table(bridge);
    SlowTable slowTable(bridge);
    for (size_t at = nameEnd; at != std::string::npos && at + 1 < text.size();) {
        const size_t end = text.find('\n', at + 1);
        const std::string line = text.substr(at + 1, end == std::string::npos ? end : end - at);
        const std::string_view member = table.member(line);
        if (member != slowTable.member(line)) std::abort();
        if (!member.empty() &&
            (member.data() < line.data() || member.data() + member.size() > line.data() + line.size())) {
            std::abort();
        }
        at = end;
    }
    return 0;
}
