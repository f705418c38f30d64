// SPDX-License-Identifier: MIT
// What the tests of PingClient share: a WAN to ping over, and the wait for an answer.
#pragma once

#include <gtest/gtest.h>
#include <vxutils/pingclient.h>

#include <memory>

#include "support/files.h"
#include "support/netns.h"
#include "support/process.h"
#include "support/wan.h"

namespace vxtest::pingclient {

class Client : public testing::Test {
protected:
    static void SetUpTestSuite() {
        writeFile("/etc/hosts", "127.0.0.1 localhost\n192.0.2.1 wan-gateway\n");
        writeFile("/etc/nsswitch.conf", "hosts: files\n");
        wan = std::make_unique<Wan>();
        ip("route add 198.51.100.0/24 via 192.0.2.1");
    }
    static void TearDownTestSuite() { wan.reset(); }
    void TearDown() override {
        Wan::answers(wan->gateway, true);
        Wan::answers(wan->target, true);
    }

    static inline std::unique_ptr<Wan> wan;
};

// Polls as a caller would.
inline int answer(PingClient &client) {
    int result = 2;
    eventually([&] { return (result = client.checkPingResponse()) != 2; }, 2000);
    return result;
}

}  // namespace vxtest::pingclient
