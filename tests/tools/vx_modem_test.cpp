// SPDX-License-Identifier: MIT
// vx modem against the stand-in of the modem daemon.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/files.h"
#include "support/vx.h"

namespace {

using vxtest::Process;
using vxtest::vx;
using vxtest::vxCommand;
using vxtest::vxJson;

class Modem {
public:
    explicit Modem(int card) : process_({vxtest::built("gateway/wwanmd"), std::to_string(card)}) {
        while (process_.readLine() != "ready") continue;
    }
    void tell(const std::string &order) {
        process_.send(order + "\n");
        while (process_.readLine() != "done") continue;
    }
    // Waits for a handshake that it was told not to answer, answers it, and closes the connection at once.
    void hangUpAfterTheHandshake() {
        while (process_.readLine().find("command init ") == std::string::npos) continue;
        for (const char *order : {"handshake ok", "stale OK", "hangup"}) tell(order);
    }

private:
    Process process_;
};

class VxModem : public testing::Test {
protected:
    VxModem() {
        std::filesystem::remove_all("/tmp/status/wwanmd");
        for (const char *card : {"0", "3"}) {
            std::filesystem::remove_all(std::string("/var/run/wwanmd") + card);
            vxtest::makeDirs(std::string("/var/run/wwanmd") + card);
            vxtest::makeDirs(std::string("/tmp/status/wwanmd/card") + card);
        }
    }
};

TEST_F(VxModem, AsksForTheSignal) {
    Modem modem(0);
    modem.tell("on signal = OK -67 dBm");
    EXPECT_EQ(vx({"modem", "signal"}).out, "-67 dBm\n");
    EXPECT_EQ(vxJson("modem-signal", {"modem", "signal"}), R"({"card":0,"answer":"-67 dBm","dbm":-67})"
                                                           "\n");
    modem.tell("on signal = OK unknown");
    EXPECT_EQ(vxJson("modem-signal", {"modem", "signal"}), R"({"card":0,"answer":"unknown","dbm":null})"
                                                           "\n");
}

TEST_F(VxModem, SendsCommandsToTheChosenCard) {
    Modem modem(3);
    modem.tell(R"(on imei read = OK 1234\n5678\xff\n)");
    EXPECT_EQ(vx({"modem", "--card", "3", "send", "imei read"}).out, "1234\n5678\xff\n");
    EXPECT_EQ(vxJson("modem-send", {"modem", "send", "--card=3", "imei read"}),
              R"({"card":3,"answer":{"escaped":"1234\n5678\\0377"}})"
              "\n");
    EXPECT_EQ(vx({"modem", "send", "x"}).status, 1) << "card 0 has no daemon";
}

TEST_F(VxModem, ARefusalIsAFailureWithTheDaemonsWords) {
    Modem modem(0);
    modem.tell(R"(error not now\x1b[31m)");
    const auto result = vx({"modem", "send", "x"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "vx: modem send: card 0: the modem daemon refuses or is busy: not now\\0033[31m\n");
}

TEST_F(VxModem, ACommandThatCannotBeSentIsNotShownAsTheDaemonsWords) {
    Modem modem(0);
    modem.tell("silent");
    modem.tell("handshake silent");
    Process send(vxCommand({"modem", "send", "hello"}));
    modem.hangUpAfterTheHandshake();
    EXPECT_EQ(send.readAll(), "vx: modem send: card 0: no answer from the modem daemon\n");
    EXPECT_EQ(send.wait(), 1);
}

// Each takes the library's 5 s, so they run at the same time.
TEST_F(VxModem, ASilentDaemonOrAResetIsNamedAfterFiveSeconds) {
    Modem silent(0);
    silent.tell("silent");
    silent.tell("handshake ok");
    Modem inReset(1);
    inReset.tell("reset on");
    Process send(vxCommand({"modem", "send", "x", "--wait", "5"}));
    Process signal(vxCommand({"modem", "--card", "1", "signal"}));
    Process state(vxCommand({"modem", "--card", "1", "state"}));
    EXPECT_EQ(send.readAll(), "vx: modem send: card 0: no answer from the modem daemon\n");
    EXPECT_EQ(send.wait(), 1);
    EXPECT_EQ(signal.readAll(), "vx: modem signal: card 1: the card is being reset\n");
    EXPECT_EQ(signal.wait(), 1);
    EXPECT_EQ(state.readAll(), "card=1\ndaemon=0\nreset=1\nsuspended=0\n");
    EXPECT_EQ(state.wait(), 0);
}

TEST_F(VxModem, AMissingDaemonIsNamed) {
    EXPECT_EQ(vx({"modem", "signal"}).err,
              "vx: modem signal: card 0: no modem daemon at /var/run/wwanmd0/server: No such file or directory\n");
}

TEST_F(VxModem, ADaemonThatDiedIsNamed) {
    { const Modem modem(0); }
    ASSERT_TRUE(vxtest::exists("/var/run/wwanmd0/server")) << "its socket stays";
    EXPECT_EQ(vx({"modem", "signal"}).err,
              "vx: modem signal: card 0: no modem daemon at /var/run/wwanmd0/server: Connection refused\n");
}

TEST_F(VxModem, AUserWithoutRightsIsTold) {
    if (!vxtest::hasOtherUsers()) GTEST_SKIP() << "a box made by an ordinary user has no other";
    const Modem modem(0);
    EXPECT_EQ(vx({"modem", "signal"}, {.user = 65534}).err,
              "vx: modem signal: /var/run/wwanmd0/server: Permission denied\n");
}

TEST_F(VxModem, StateIsPrintedWhateverItIs) {
    EXPECT_EQ(vx({"modem", "state"}).out, "card=0\ndaemon=0\nreset=0\nsuspended=0\n");
    Modem modem(0);
    modem.tell("suspend on");
    EXPECT_EQ(vxJson("modem-state", {"modem", "state"}), R"({"card":0,"daemon":true,"reset":false,"suspended":true})"
                                                         "\n");
}

TEST_F(VxModem, BadArgumentsAreWrongUsage) {
    for (const auto &words : {std::vector<std::string>{"send"},
                              {"send", "a", "b"},
                              {"send", "a\nb"},
                              {"signal", "x"},
                              {"--card", "6", "signal"},
                              {"--card", "16", "signal"},
                              {"--card", "x", "signal"},
                              {"signal", "--wait", "4"},
                              {"signal", "--wait", "301"},
                              {"send", std::string(8191, 'x')}}) {
        std::vector<std::string> all{"modem"};
        all.insert(all.end(), words.begin(), words.end());
        EXPECT_EQ(vx(all).status, 2) << words.back();
    }
}

}  // namespace
