// SPDX-License-Identifier: MIT
#include <vxutils/configdaemonclient.h>

#include <array>
#include <cstring>

#include "vxutils/internal/number.h"

namespace {

// One record and the empty one that ends the array.
using Entries = std::array<configd_entry, 2>;

// Fills in a field of zeros.
template <size_t size>
bool fill(char (&field)[size], String const &text) {
    const auto length = static_cast<size_t>(text.length());
    if (length >= size) return false;
    std::memcpy(field, text.c_str(), length);
    return true;
}

// The key that a pattern gives; empty, which no call accepts, when the pattern is too long.
// The pattern is the caller's: the compiler cannot check it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
String indexedKey(String const &pattern, unsigned long index) {
    String key;
    if (pattern.length() < CONFIGD_KEY_LEN) key.format(pattern.c_str(), index);
    return key;
}
#pragma GCC diagnostic pop

bool set(configd_handle *handle, String const &key, String const &value) {
    Entries entries{};
    if (handle == nullptr || !fill(entries[0].key, key) || !fill(entries[0].value, value)) return false;
    return configd_set(handle, entries.data()) == 0;
}

// Fills in entries[0].value of empty records; false on any failure.
bool get(configd_handle *handle, String const &key, Entries &entries) {
    if (handle == nullptr || !fill(entries[0].key, key) || entries[0].key[0] == '\0') return false;
    return configd_get(handle, entries.data()) == 0;
}

}  // namespace

ConfigDaemonClient::ConfigDaemonClient() : handle_(configd_open()) {}

ConfigDaemonClient::~ConfigDaemonClient() { configd_close(handle_); }

bool ConfigDaemonClient::setValue(String const &key, String const &value) const { return set(handle_, key, value); }

bool ConfigDaemonClient::setValueAsInt(String const &key, long value) const {
    return set(handle_, key, String::stringOf(value));
}

bool ConfigDaemonClient::setIndexedValue(String const &key, unsigned long index, String const &value) const {
    return set(handle_, indexedKey(key, index), value);
}

bool ConfigDaemonClient::setIndexedValueAsInt(String const &key, unsigned long index, long value) const {
    return set(handle_, indexedKey(key, index), String::stringOf(value));
}

String &ConfigDaemonClient::getValue(String const &key, String &value) const {
    Entries entries{};
    if (get(handle_, key, entries)) value = static_cast<const char *>(entries[0].value);
    return value;
}

long ConfigDaemonClient::getValueAsInt(String const &key, long &value) const {
    Entries entries{};
    if (get(handle_, key, entries)) value = vx::toInt(entries[0].value);
    return value;
}

String &ConfigDaemonClient::getIndexedValue(String const &key, unsigned long index, String &value) const {
    return ConfigDaemonClient::getValue(indexedKey(key, index), value);
}

long ConfigDaemonClient::getIndexedValueAsInt(String const &key, unsigned long index, long &value) const {
    return ConfigDaemonClient::getValueAsInt(indexedKey(key, index), value);
}
