// SPDX-License-Identifier: MIT
// What the tests of the configuration daemon's client share: handles, arrays, sockets that belong to no handle.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vxutils/configd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/configd.h"
#include "support/files.h"
#include "support/syslog_capture.h"

namespace vxtest::configd {

using namespace std::chrono_literals;

using vxtest::Configd;
using vxtest::LogLine;
using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;
using Log = std::vector<LogLine>;

constexpr const char *directory = "/var/run/configd";
constexpr const char *daemonSocket = "/var/run/configd/daemon.sock";

using Handle = std::unique_ptr<configd_handle, decltype(&configd_close)>;
inline Handle openHandle() { return Handle(configd_open(), &configd_close); }

// A caller's array: the pairs and the record that ends it.
inline std::vector<configd_entry> entries(const std::vector<std::pair<std::string, std::string>> &pairs) {
    std::vector<configd_entry> array(pairs.size() + 1);
    std::memset(array.data(), 0, array.size() * sizeof(configd_entry));
    for (size_t i = 0; i < pairs.size(); ++i) {
        std::memcpy(array[i].key, pairs[i].first.data(), pairs[i].first.size());
        std::memcpy(array[i].value, pairs[i].second.data(), pairs[i].second.size());
    }
    return array;
}

inline std::string value(configd_handle *handle, const std::string &key) {
    auto array = entries({{key, "untouched"}});
    return configd_get(handle, array.data()) == 0 ? array[0].value : "failed: " + std::string(array[0].value);
}

inline ino_t inode(const std::string &path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_ino;
}

inline std::string clientPath(const configd_handle *handle) {
    char path[256];
    std::snprintf(path, sizeof path, "%s/client.%d.%p", directory, ::getpid(), static_cast<const void *>(handle));
    return path;
}

inline void expectConnected(const configd_handle *handle) {
    EXPECT_GE(handle->fd, 0);
    EXPECT_EQ(handle->server_path, std::string(daemonSocket));
    EXPECT_EQ(handle->client_path, clientPath(handle));
    EXPECT_TRUE(std::filesystem::is_socket(handle->client_path));
}

inline void expectClosed(const configd_handle *handle) {
    EXPECT_EQ(handle->fd, -1);
    EXPECT_STREQ(handle->server_path, "");
    EXPECT_STREQ(handle->client_path, "");
    EXPECT_FALSE(exists(clientPath(handle)));
}

inline sockaddr_un addressOf(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

// A datagram socket that belongs to no handle.
class Peer {
public:
    explicit Peer(const char *path = nullptr) : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        if (path == nullptr) return;
        ::unlink(path);
        const sockaddr_un address = addressOf(path);
        EXPECT_EQ(::bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    }
    ~Peer() { ::close(fd_); }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    // The name that the next request came from.
    std::string receive() const {
        sockaddr_un from{};
        socklen_t length = sizeof from;
        char request[64];
        EXPECT_GT(::recvfrom(fd_, request, sizeof request, 0, reinterpret_cast<sockaddr *>(&from), &length), 0);
        return from.sun_path;
    }

    // 0 or the error.
    int send(const std::string &name, const std::string &text) const {
        const sockaddr_un to = addressOf(name);
        const ssize_t sent =
            ::sendto(fd_, text.data(), text.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&to), sizeof to);
        return sent == static_cast<ssize_t>(text.size()) ? 0 : errno;
    }

private:
    int fd_;
};

inline std::string answerOf(const std::string &value) { return value + std::string("\n\0", 2); }

inline size_t socketFiles() {
    size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        count += entry.path().filename().string().rfind("client.", 0) == 0;
    }
    return count;
}

class ConfigdTest : public testing::Test {
protected:
    void SetUp() override { std::filesystem::remove_all("/var/lib/configd"); }
    Configd daemon;
    SyslogCapture log;
};

}  // namespace vxtest::configd
