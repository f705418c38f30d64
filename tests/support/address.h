// SPDX-License-Identifier: MIT
// Records of addresses and routes made from texts, for the tests of address.h.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <vxutils/address.h>

#include <cstddef>
#include <cstring>
#include <string>

namespace vxtest::address {

// Bytes seen as a record; what they are aligned to is the test's business.
template <typename Type>
Type *as(void *bytes) {
    return static_cast<Type *>(bytes);
}

// A record with room for either family, every byte that was not written set to 0xA5.
class Record {
public:
    Record() { memset(&storage_, 0xA5, sizeof storage_); }
    explicit Record(const std::string &text) : Record() { EXPECT_EQ(str2addr(text.c_str(), get()), 0) << text; }
    static Record ofFamily(sa_family_t family) {
        Record record;
        record.storage_.sin6_family = family;
        return record;
    }

    sockaddr *get() { return reinterpret_cast<sockaddr *>(&storage_); }
    const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&storage_); }
    operator const sockaddr *() const { return get(); }
    sockaddr_in6 &v6() { return storage_; }
    int family() const { return storage_.sin6_family; }
    std::string raw() const { return {reinterpret_cast<const char *>(&storage_), sizeof storage_}; }
    std::string text() const {
        char buffer[INET6_ADDRSTRLEN];
        return addr2str(buffer, get());
    }

private:
    sockaddr_in6 storage_;
};

inline route_record routeOf(const std::string &first, const std::string &second, const std::string &third) {
    route_record route{};
    const std::string *texts[] = {&first, &second, &third};
    for (size_t i = 0; i < 3; ++i) memcpy(&route.slot[i], Record(*texts[i]).get(), sizeof route.slot[i]);
    return route;
}

}  // namespace vxtest::address
