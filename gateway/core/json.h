// SPDX-License-Identifier: MIT
// JSON as gw prints it: built up as text, in order.
#ifndef VXGATEWAY_JSON_H
#define VXGATEWAY_JSON_H

#include <string>
#include <string_view>

namespace vxgateway {

// A JSON string. Bytes that are not valid UTF-8 are read as Latin-1, so that the result is always valid JSON.
std::string jsonString(std::string_view text);

// An object or an array under construction.
class Json {
public:
    static Json object() { return Json('{', '}'); }
    static Json array() { return Json('[', ']'); }

    Json &add(std::string_view name, const std::string &json) {
        separate();
        text_ += jsonString(name) + ":" + json;
        return *this;
    }
    Json &text(std::string_view name, std::string_view value) { return add(name, jsonString(value)); }
    Json &number(std::string_view name, long long value) { return add(name, std::to_string(value)); }
    Json &truth(std::string_view name, bool value) { return add(name, value ? "true" : "false"); }
    Json &add(const std::string &json) {
        separate();
        text_ += json;
        return *this;
    }

    std::string done() const { return text_ + end_; }

private:
    Json(char begin, char end) : text_(1, begin), end_(end) {}
    void separate() {
        if (text_.size() > 1) text_ += ',';
    }

    std::string text_;
    char end_;
};

}  // namespace vxgateway

#endif
